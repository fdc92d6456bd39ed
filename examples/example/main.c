/* The example program: parses the flags, brings up the module and the peer, lets the broker
 * offer its traffic, waits until the module has handled it, and reports. Exit status: 0 all
 * accounted for, 1 something lost or leaked, 2 bad usage. */
#include "example.h"

#include <errno.h>
#include <inttypes.h>
#include <stdlib.h>
#include <unistd.h>

#include "rix_platform_test.h"

ExRun g_run;

/* The orchestrators' allocator: counts every block so that a leak shows. Each block carries
 * its size in front, padded so that the caller's memory keeps the strictest alignment. */
typedef union ExAllocHdr {
    uint32_t size;
    max_align_t align;
} ExAllocHdr;

void *ExAlloc(uint32_t size)
{
    ExAllocHdr *h = malloc(sizeof(ExAllocHdr) + (size_t)size);
    if (h == NULL) {
        return NULL;
    }
    h->size = size;
    atomic_fetch_add_explicit(&g_run.cnt.allocs, 1u, memory_order_relaxed);
    int_fast64_t live = atomic_fetch_add_explicit(&g_run.cnt.liveBytes, size, memory_order_relaxed) + size;
    int_fast64_t peak = atomic_load_explicit(&g_run.cnt.peakBytes, memory_order_relaxed);
    while (live > peak && !atomic_compare_exchange_weak_explicit(&g_run.cnt.peakBytes, &peak, live,
                                                                 memory_order_relaxed, memory_order_relaxed)) {
    }
    return h + 1;
}

void ExFree(void *ptr)
{
    if (ptr == NULL) {
        return;
    }
    ExAllocHdr *h = (ExAllocHdr *)ptr - 1;
    atomic_fetch_add_explicit(&g_run.cnt.frees, 1u, memory_order_relaxed);
    atomic_fetch_sub_explicit(&g_run.cnt.liveBytes, h->size, memory_order_relaxed);
    free(h);
}

/* ---- Flags ---- */

static void ExUsage(FILE *out, const char *prog)
{
    fprintf(out,
            "usage: %s [options]\n"
            "Runs an AutoSync module against an in-process broker and peer, then checks that\n"
            "every record offered was delivered once or coalesced into a later one.\n"
            "\n"
            "  --records N      records the broker offers: keyed updates, ARP probes and\n"
            "                   interface statistics (default 1000000)\n"
            "  --keys N         distinct keys per merged table (default 8192)\n"
            "  --skew S         Zipf exponent of the key choice; 0 is uniform (default 0.9)\n"
            "  --record-size N  bytes per record, %u to %u (default 64)\n"
            "  --duration SEC   stop offering after SEC seconds, 0 for no limit (default 60)\n"
            "  --burst N        most records in one message (default 192)\n"
            "  --sync-every N   sync the keys whose index is a multiple of N to the peer (default 4)\n"
            "  --seed N         seed of the traffic generator (default 1)\n"
            "  --help           this text\n"
            "Exit status: 0 all accounted for, 1 something lost or leaked, 2 bad usage.\n",
            prog, EX_REC_MIN_SIZE, EX_REC_MAX_SIZE);
}

static int ExParseU64(const char *text, uint64_t min, uint64_t max, uint64_t *out)
{
    if (text == NULL || *text == '\0' || *text == '-' || *text == '+') {
        return -1;
    }
    char *end = NULL;
    errno = 0;
    unsigned long long v = strtoull(text, &end, 10);
    if (errno != 0 || end == text || *end != '\0' || v < min || v > max) {
        return -1;
    }
    *out = (uint64_t)v;
    return 0;
}

static int ExParseDouble(const char *text, double min, double max, double *out)
{
    if (text == NULL || *text == '\0') {
        return -1;
    }
    char *end = NULL;
    errno = 0;
    double v = strtod(text, &end);
    if (errno != 0 || end == text || *end != '\0' || !(v >= min && v <= max)) {
        return -1;
    }
    *out = v;
    return 0;
}

/* 0 to run, 1 for --help, 2 for bad usage (already reported). */
static int ExParseOptions(int argc, char **argv, ExOptions *o)
{
    o->records = 1000000u;
    o->keys = 8192u;
    o->skew = 0.9;
    o->recordSize = 64u;
    o->duration = 60.0;
    o->seed = 1u;
    o->syncEvery = 4u;
    o->maxBurst = 192u;
    const char *prog = argv[0];
    for (int i = 1; i < argc; i++) {
        const char *arg = argv[i];
        if (strcmp(arg, "--help") == 0 || strcmp(arg, "-h") == 0) {
            ExUsage(stdout, prog);
            return 1;
        }
        if (strncmp(arg, "--", 2) != 0) {
            fprintf(stderr, "%s: unexpected argument '%s' (see --help)\n", prog, arg);
            return 2;
        }
        char name[32];
        const char *value = NULL;
        const char *eq = strchr(arg, '=');
        size_t nameLen = eq != NULL ? (size_t)(eq - arg) : strlen(arg);
        if (nameLen >= sizeof(name)) {
            fprintf(stderr, "%s: unknown option '%s' (see --help)\n", prog, arg);
            return 2;
        }
        memcpy(name, arg, nameLen);
        name[nameLen] = '\0';
        if (eq != NULL) {
            value = eq + 1;
        } else if (i + 1 < argc) {
            value = argv[++i];
        }
        uint64_t u = 0;
        int bad = 0;
        const char *expect = "";
        if (strcmp(name, "--records") == 0) {
            expect = "a whole number from 1 to 1000000000";
            bad = ExParseU64(value, 1u, 1000000000u, &o->records);
        } else if (strcmp(name, "--keys") == 0) {
            expect = "a whole number from 1 to 4194304";
            bad = ExParseU64(value, 1u, 4194304u, &u);
            o->keys = (uint32_t)u;
        } else if (strcmp(name, "--skew") == 0) {
            expect = "a number from 0 to 5";
            bad = ExParseDouble(value, 0.0, 5.0, &o->skew);
        } else if (strcmp(name, "--record-size") == 0) {
            expect = "a whole number from 32 to 4096";
            bad = ExParseU64(value, EX_REC_MIN_SIZE, EX_REC_MAX_SIZE, &u);
            o->recordSize = (uint32_t)u;
        } else if (strcmp(name, "--duration") == 0) {
            expect = "a number of seconds from 0 to 86400";
            bad = ExParseDouble(value, 0.0, 86400.0, &o->duration);
        } else if (strcmp(name, "--burst") == 0) {
            expect = "a whole number from 1 to 1024";
            bad = ExParseU64(value, 1u, 1024u, &u);
            o->maxBurst = (uint32_t)u;
        } else if (strcmp(name, "--sync-every") == 0) {
            expect = "a whole number from 1 to 4294967295";
            bad = ExParseU64(value, 1u, UINT32_MAX, &u);
            o->syncEvery = (uint32_t)u;
        } else if (strcmp(name, "--seed") == 0) {
            expect = "a whole number";
            bad = ExParseU64(value, 0u, UINT64_MAX, &o->seed);
        } else {
            fprintf(stderr, "%s: unknown option '%s' (see --help)\n", prog, name);
            return 2;
        }
        if (value == NULL) {
            fprintf(stderr, "%s: option %s needs a value: %s\n", prog, name, expect);
            return 2;
        }
        if (bad != 0) {
            fprintf(stderr, "%s: bad value '%s' for %s: expected %s\n", prog, value, name, expect);
            return 2;
        }
    }
    return 0;
}

/* ---- The run ---- */

/* Waits until the module has handled everything offered (or nothing moves for 10 s). */
static void ExDrain(double start, int tty)
{
    uint64_t last = ~(uint64_t)0;
    double stuckSince = ExNow();
    while (!ExAllAccounted()) {
        (void)RIX_TEST_EalWaitIdle(g_run.modEal, ASORCH_THREAD_DATA, 200u);
        (void)RIX_TEST_EalWaitIdle(g_run.modEal, ASORCH_THREAD_EVENT, 200u);
        uint64_t now = ExAccountedAll();
        if (now != last) {
            last = now;
            stuckSince = ExNow();
        } else if (ExNow() - stuckSince > 10.0) {
            ExCheck(0, "the module stopped making progress with work outstanding");
            break;
        }
        if (tty) {
            ExProgress(start);
        }
    }
    (void)RIX_TEST_EalWaitIdle(g_run.modEal, ASORCH_THREAD_DATA, 1000u);
    (void)RIX_TEST_EalWaitIdle(g_run.modEal, ASORCH_THREAD_EVENT, 1000u);
}

int main(int argc, char **argv)
{
    int parsed = ExParseOptions(argc, argv, &g_run.opt);
    if (parsed != 0) {
        return parsed == 1 ? 0 : 2;
    }
    setvbuf(stdout, NULL, _IOLBF, 0);
    if (pthread_mutex_init(&g_run.peerLock, NULL) != 0 || ExAllocBooks() != 0 || ExBrokerInit() != 0) {
        fprintf(stderr, "example_module: out of memory for %u keys\n", g_run.opt.keys);
        ExFreeBooks();
        ExBrokerFree();
        return 1;
    }
    int tty = isatty(STDOUT_FILENO);
    /* The platform's diagnostic lines are kept and summarised, not printed. */
    RIX_TEST_LogCapture(1);

    int ok = 0;
    g_run.mod = ExCreate("EXMOD");
    g_run.peer = ExCreate("EXPEER");
    if (g_run.mod != NULL && g_run.peer != NULL && ExRegisterModule(g_run.mod) == 0 &&
        ExRegisterPeer(g_run.peer) == 0) {
        g_run.modEal = ASOrchGetEalHdl(g_run.mod);
        g_run.peerEal = ASOrchGetEalHdl(g_run.peer);
        /* The test kit's channels stand in for the broker's connections, its sync for the
         * link to the peer. */
        for (uint32_t c = 0; c < ASORCH_CHAN_NUM; c++) {
            RIX_TEST_ChanSetRecv(g_run.modEal, c, ExChanRecv, g_run.mod);
        }
        RIX_TEST_EalSetSyncPeer(g_run.modEal, ExPeerRecv, NULL);
        /* The peer is initialised but never started: its loop runs when data arrives. */
        ok = ASOrchInit(g_run.peer) == 0u && ExStartModule(g_run.mod) == 0;
        if (!ok) {
            ExError("initialising or starting the orchestrators failed");
        }
    }

    printf("example_module: %" PRIu64
           " records over %u keys per table (skew %.2f), %u-byte records, "
           "bursts of up to %u\n",
           g_run.opt.records, g_run.opt.keys, g_run.opt.skew, g_run.opt.recordSize, g_run.opt.maxBurst);
    double start = ExNow();
    double offerTime = 0.0, wall = 0.0;
    if (ok) {
        ExRunBroker(start, tty);
        offerTime = ExNow() - start;
        ExDrain(start, tty);
        wall = ExNow() - start;
        ExPeerRunIdle();
        if (tty) {
            ExProgress(start);
            printf("\n");
        }
    }
    ExReport(ok, offerTime, wall);

    if (g_run.mod != NULL) {
        ASOrchDestroy(g_run.mod);
    }
    if (g_run.peer != NULL) {
        ASOrchDestroy(g_run.peer);
    }
    int failures = ExFinish(ok);
    ExFreeBooks();
    ExBrokerFree();
    pthread_mutex_destroy(&g_run.peerLock);
    printf("RESULT: %s\n", failures == 0 ? "OK" : "FAILED");
    return failures == 0 ? 0 : 1;
}
