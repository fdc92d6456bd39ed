/* The example's books and report: the per-key books of both ends, the progress line, the
 * summary and the checks that decide the exit status. */
#include "example.h"

#include <inttypes.h>
#include <stdarg.h>
#include <stdlib.h>

#include "rix_platform_test.h"

/* ---- Errors and checks ---- */

static int g_exFailures;

static void ExVPrint(FILE *out, const char *prefix, const char *fmt, va_list ap)
{
    fputs(prefix, out);
    vfprintf(out, fmt, ap);
    fputc('\n', out);
}

/* The first twenty failures are reported; every one is counted. */
void ExError(const char *fmt, ...)
{
    if (atomic_fetch_add_explicit(&g_run.cnt.errors, 1u, memory_order_relaxed) < 20u) {
        va_list ap;
        va_start(ap, fmt);
        ExVPrint(stderr, "example_module: error: ", fmt, ap);
        va_end(ap);
    }
}

void ExCheck(int ok, const char *fmt, ...)
{
    if (!ok) {
        g_exFailures++;
        va_list ap;
        va_start(ap, fmt);
        ExVPrint(stdout, "CHECK FAILED: ", fmt, ap);
        va_end(ap);
    }
}

/* ---- Books ---- */

int ExAllocBooks(void)
{
    for (int t = 0; t < EX_T_NUM; t++) {
        g_run.books[t].keys = calloc(g_run.opt.keys, sizeof(ExKeyBook));
        if (g_run.books[t].keys == NULL) {
            return -1;
        }
    }
    return 0;
}

void ExFreeBooks(void)
{
    for (int t = 0; t < EX_T_NUM; t++) {
        free(g_run.books[t].keys);
        g_run.books[t].keys = NULL;
    }
}

/* An entry exists per key from its first write into a queue until its delivery. */
static void ExNoteKeyPending(int table, uint32_t key)
{
    ExTableBooks *b = &g_run.books[table];
    if (key >= g_run.opt.keys || b->keys[key].pending != 0u) {
        return;
    }
    b->keys[key].pending = 1u;
    if (++b->pendingEntries > b->peakPending) {
        b->peakPending = b->pendingEntries;
    }
}

/* Books the records of a merged message as pending before the orchestrator writes them. */
void ExNotePending(uint32_t msgId, const uint8_t *body, uint32_t len)
{
    if (msgId == EX_MSG_ROUTE_ADD || msgId == EX_MSG_ROUTE_DEL) {
        for (uint32_t off = EX_HDR_SIZE; off + g_run.opt.recordSize <= len; off += g_run.opt.recordSize) {
            ExNoteKeyPending(EX_T_DAM, ExRd32(body + off));
        }
    } else if (msgId == EX_MSG_NHP_ADD || msgId == EX_MSG_NHP_DEL) {
        for (uint32_t off = EX_PACKED_HDR_SIZE; off + sizeof(ExPackedRec) <= len;
             off += (uint32_t)sizeof(ExPackedRec)) {
            ExNoteKeyPending(EX_T_FES, ExRd32(body + off));
        }
    }
}

/* Books a record that came out of the module's queue: every offer of its key between the
 * last delivery and this one was coalesced into it. -1 when it came out of order or twice. */
int ExBookDelivered(int table, const ExRecord *rec, uint32_t opType)
{
    ExTableBooks *b = &g_run.books[table];
    ExKeyBook *k = &b->keys[rec->key];
    uint32_t prev = k->deliveredVer;
    if (rec->keyVer <= prev) {
        ExError("key %u of table %d delivered out of order or twice: version %u after %u", rec->key, table, rec->keyVer,
                prev);
        return -1;
    }
    /* The arriving record survives a merge; a delete always stays a delete. */
    if ((rec->op == 1u) != (opType == 1u)) {
        ExError("key %u: offered op %u delivered as opType %u", rec->key, rec->op, opType);
    }
    atomic_fetch_add_explicit(&g_run.cnt.coalesced[table], rec->keyVer - prev - 1u, memory_order_relaxed);
    atomic_fetch_add_explicit(&g_run.cnt.delivered[table], 1u, memory_order_relaxed);
    atomic_fetch_add_explicit(&g_run.cnt.deliveredByOp[opType & 3u], 1u, memory_order_relaxed);
    k->deliveredVer = rec->keyVer;
    k->modelExists = opType != 1u;
    k->modelState = opType != 1u ? rec->state : 0u;
    if (k->pending != 0u) {
        k->pending = 0u;
        b->pendingEntries--;
    } else {
        ExError("key %u of table %d delivered while not pending", rec->key, table);
    }
    return 0;
}

/* ---- Totals ---- */

static uint64_t ExLoad(atomic_uint_fast64_t *a)
{
    return (uint64_t)atomic_load_explicit(a, memory_order_relaxed);
}

static uint64_t ExOfferedKeyed(void)
{
    return g_run.broker.offered[EX_T_DAM] + g_run.broker.offered[EX_T_FES];
}

uint64_t ExOfferedAll(void)
{
    return ExOfferedKeyed() + g_run.broker.offeredImmediate + g_run.broker.offeredUserDef;
}

static uint64_t ExCoalescedAll(void)
{
    return ExLoad(&g_run.cnt.coalesced[EX_T_DAM]) + ExLoad(&g_run.cnt.coalesced[EX_T_FES]);
}

static uint64_t ExAccountedKeyed(void)
{
    return ExLoad(&g_run.cnt.delivered[EX_T_DAM]) + ExLoad(&g_run.cnt.delivered[EX_T_FES]) + ExCoalescedAll();
}

/* Offers that came out on the module's side, delivered or coalesced. */
uint64_t ExAccountedAll(void)
{
    return ExAccountedKeyed() + ExLoad(&g_run.cnt.immediate) + ExLoad(&g_run.cnt.userDefRecords);
}

static uint64_t ExDeliveredAll(void)
{
    return ExLoad(&g_run.cnt.delivered[EX_T_DAM]) + ExLoad(&g_run.cnt.delivered[EX_T_FES]) +
           ExLoad(&g_run.cnt.immediate) + ExLoad(&g_run.cnt.userDefRecords);
}

void ExProgress(double start)
{
    double t = ExNow() - start;
    uint64_t in = ExOfferedAll();
    uint64_t done = ExAccountedAll();
    printf("\r  in %10" PRIu64 "  pending %8" PRIu64 "  coalesced %10" PRIu64 "  delivered %10" PRIu64 "  %9.0f rec/s ",
           in, in >= done ? in - done : 0u, ExCoalescedAll(), ExDeliveredAll(), t > 0.0 ? (double)in / t : 0.0);
    fflush(stdout);
}

/* All offered work has come out on the module's side. */
int ExAllAccounted(void)
{
    return ExAccountedKeyed() == ExOfferedKeyed() && ExLoad(&g_run.cnt.immediate) == g_run.broker.offeredImmediate &&
           ExLoad(&g_run.cnt.userDefRecords) == g_run.broker.offeredUserDef &&
           ExLoad(&g_run.cnt.damEntries) == g_run.broker.damEntries &&
           ExLoad(&g_run.cnt.fesEntries) == g_run.broker.fesEntries &&
           ExLoad(&g_run.cnt.compTables) == g_run.broker.compTables &&
           ExLoad(&g_run.cnt.smoothOwn) == g_run.broker.smoothOwn &&
           ExLoad(&g_run.cnt.smoothPre) == g_run.broker.smoothPre;
}

/* Reads a counter from the library's printed statistics: the number after a row's label. */
static int ExStatFromText(const char *text, const char *label, uint64_t *out)
{
    const char *p = text;
    size_t n = strlen(label);
    while ((p = strstr(p, label)) != NULL) {
        int lineStart = p == text || p[-1] == '\n';
        if (lineStart && p[n] == ' ') {
            char *end = NULL;
            unsigned long long v = strtoull(p + n, &end, 10);
            if (end != p + n) {
                *out = (uint64_t)v;
                return 0;
            }
        }
        p += n;
    }
    return -1;
}

/* Per key: every offer came out once (delivered or absorbed), and the last state delivered
 * is the last state offered, on the module and, for synced keys, on the peer. */
static void ExCheckKeys(void)
{
    static const char *const names[EX_T_NUM] = {"DAM", "FES"};
    for (int t = 0; t < EX_T_NUM; t++) {
        ExTableBooks *b = &g_run.books[t];
        uint32_t badVer = 0, badState = 0, badPeer = 0, stillPending = 0;
        for (uint32_t key = 0; key < g_run.opt.keys; key++) {
            const ExKeyBook *k = &b->keys[key];
            int exists = k->offerVer != 0u && k->lastOfferedOp == 0u;
            uint32_t state = exists ? k->lastOfferedState : 0u;
            badVer += k->deliveredVer != k->offerVer;
            badState += k->modelExists != exists || k->modelState != state;
            stillPending += k->pending != 0u;
            if (key % g_run.opt.syncEvery == 0u) {
                badPeer += k->peerExists != exists || k->peerState != state;
            }
        }
        ExCheck(badVer == 0u, "%s: %u keys did not deliver their last offer", names[t], badVer);
        ExCheck(badState == 0u, "%s: %u keys end in another state than offered", names[t], badState);
        ExCheck(stillPending == 0u && b->pendingEntries == 0u, "%s: %u keys still pending", names[t], stillPending);
        ExCheck(badPeer == 0u, "%s: %u synced keys differ on the peer", names[t], badPeer);
    }
}

/* Fills the "Success Merge" and "MergeQue HistoryMaxCnt" counts of EXMOD_DAM, EXMOD_FES,
 * EXPEER_DAM and EXPEER_FES, in that order. */
static void ExPrintDiagnostics(uint64_t merges[4], uint64_t maxCnt[4])
{
    static const char *const queues[] = {"EXMOD_DAM", "EXMOD_FES", "EXPEER_DAM", "EXPEER_FES"};
    enum { BUF = 16384 };
    char *buf = malloc(BUF);
    if (buf == NULL) {
        ExCheck(0, "no memory for the diagnostics");
        return;
    }
    printf("\n== merge queues ==\n");
    uint32_t n = RIX_PrintMergeQueListAll(buf, BUF);
    printf("%.*s", (int)n, buf);
    for (size_t i = 0; i < sizeof(queues) / sizeof(queues[0]); i++) {
        memset(buf, 0, BUF);
        n = RIX_PrintMergeQueInfo(queues[i], buf, BUF);
        ExCheck(n > 0u, "queue %s not found by name", queues[i]);
        printf("\n== %s ==\n%.*s", queues[i], (int)n, buf);
        ExCheck(ExStatFromText(buf, "Success Merge", &merges[i]) == 0 &&
                    ExStatFromText(buf, "MergeQue HistoryMaxCnt", &maxCnt[i]) == 0,
                "statistics of %s not readable", queues[i]);
    }
    free(buf);
}

/* Captured platform log: a count, and the lines that are neither routine nor expected. */
static void ExPrintLogSummary(void)
{
    uint32_t n = RIX_TEST_LogCount();
    uint32_t monitor = 0, drains = 0, shown = 0, failures = 0;
    for (uint32_t i = 0; i < n; i++) {
        const char *line = RIX_TEST_LogLine(i);
        if (line == NULL) {
            continue;
        }
        if (strstr(line, "MQUE monitor") != NULL) {
            monitor++;
        } else if (strstr(line, "merge msg count") != NULL) {
            drains++;
        } else if (strstr(line, "ail") != NULL || strstr(line, "rror") != NULL) {
            failures++;
            if (shown++ < 10u) {
                printf("  log: %s\n", line);
            }
        }
    }
    printf("platform log lines    : %u captured (%u water-mark reports, %u queue drains, %u failures)\n", n, monitor,
           drains, failures);
    ExCheck(failures == 0u, "%u failure lines in the platform log", failures);
}

/* ---- Summary ---- */

typedef struct ExPlatformCounts {
    uint32_t presses[2];
    uint32_t releases[2];
    uint32_t entryCalls;
} ExPlatformCounts;

static void ExPrintSummary(const ExPlatformCounts *pc, double offerTime, double wall)
{
    const ExBrokerStats *br = &g_run.broker;
    ExCounters *c = &g_run.cnt;
    uint64_t offered = ExOfferedAll();
    uint64_t delivered = ExDeliveredAll();
    printf("\n== summary ==\n");
    printf("records offered       : %" PRIu64 " (DAM routes %" PRIu64 ", FES next hops %" PRIu64 ", ARP probes %" PRIu64
           ", interface statistics %" PRIu64 ")\n",
           offered, br->offered[EX_T_DAM], br->offered[EX_T_FES], br->offeredImmediate, br->offeredUserDef);
    printf("messages sent         : DAM %" PRIu64 ", FES %" PRIu64 ", UP %" PRIu64 ", EVT %" PRIu64 "\n",
           br->messages[0], br->messages[1], br->messages[2], br->messages[3]);
    printf("records coalesced     : %" PRIu64 " (DAM %" PRIu64 ", FES %" PRIu64 ")\n", ExCoalescedAll(),
           ExLoad(&c->coalesced[EX_T_DAM]), ExLoad(&c->coalesced[EX_T_FES]));
    printf("records delivered     : %" PRIu64 " (opType 0: %" PRIu64 ", 1: %" PRIu64 ", 2: %" PRIu64 ", 3: %" PRIu64
           "; at once %" PRIu64 "; user-defined %" PRIu64 " in %" PRIu64 " calls)\n",
           delivered, ExLoad(&c->deliveredByOp[0]), ExLoad(&c->deliveredByOp[1]), ExLoad(&c->deliveredByOp[2]),
           ExLoad(&c->deliveredByOp[3]), ExLoad(&c->immediate), ExLoad(&c->userDefRecords), ExLoad(&c->userDefCalls));
    printf("back-pressure         : DAM %u presses / %u releases, FES %u / %u; broker paused %" PRIu64
           " times, retried %" PRIu64 " writes\n",
           pc->presses[0], pc->releases[0], pc->presses[1], pc->releases[1], br->backPressWaits, br->deliverRetries);
    printf("peak pending entries  : DAM %" PRIu64 ", FES %" PRIu64 " (water marks %u/%u and %u/%u)\n",
           g_run.books[EX_T_DAM].peakPending, g_run.books[EX_T_FES].peakPending, EX_DAM_HIGH_WATER, EX_DAM_LOW_WATER,
           EX_FES_HIGH_WATER, EX_FES_LOW_WATER);
    printf("synced to peer        : %" PRIu64 " records (group 0 %" PRIu64 ", group 2 %" PRIu64
           "); peer received %" PRIu64 ", delivered %" PRIu64 "\n",
           ExLoad(&c->synced[EX_T_DAM]) + ExLoad(&c->synced[EX_T_FES]), ExLoad(&c->synced[EX_T_DAM]),
           ExLoad(&c->synced[EX_T_FES]), ExLoad(&c->peerReceived), ExLoad(&c->peerDelivered));
    printf("transfer tables       : DAM entries %" PRIu64 ", FES entries %" PRIu64 ", composite %" PRIu64
           "; smoothing: pre %" PRIu64 ", own %" PRIu64 ", platform entries %u\n",
           ExLoad(&c->damEntries), ExLoad(&c->fesEntries), ExLoad(&c->compTables), ExLoad(&c->smoothPre),
           ExLoad(&c->smoothOwn), pc->entryCalls);
    printf("wall time             : %.3f s (offering %.3f s); %.0f records/s offered, %.0f delivered/s\n", wall,
           offerTime, offerTime > 0.0 ? (double)offered / offerTime : 0.0, wall > 0.0 ? (double)delivered / wall : 0.0);
    printf("module memory         : peak %" PRIdFAST64 " bytes in use\n",
           atomic_load_explicit(&g_run.cnt.peakBytes, memory_order_relaxed));
}

/* What the module, the peer, the queues' own statistics and the platform counted must agree. */
static void ExCheckTotals(const ExPlatformCounts *pc, const uint64_t merges[4], const uint64_t maxCnt[4])
{
    ExCounters *c = &g_run.cnt;
    uint64_t synced = ExLoad(&c->synced[EX_T_DAM]) + ExLoad(&c->synced[EX_T_FES]);
    ExCheck(ExAllAccounted(), "not everything offered came out");
    ExCheck(ExAccountedKeyed() == ExOfferedKeyed(),
            "keyed records: %" PRIu64 " offered, %" PRIu64 " delivered or coalesced", ExOfferedKeyed(),
            ExAccountedKeyed());
    ExCheckKeys();
    for (int t = 0; t < EX_T_NUM; t++) {
        ExCheck(merges[t] == ExLoad(&c->coalesced[t]),
                "queue %d counted %" PRIu64 " merges, the module %" PRIu64 " coalesced records", t, merges[t],
                ExLoad(&c->coalesced[t]));
        ExCheck(maxCnt[t] == g_run.books[t].peakPending,
                "queue %d peaked at %" PRIu64 " entries, the module counted %" PRIu64, t, maxCnt[t],
                g_run.books[t].peakPending);
    }
    ExCheck(ExLoad(&c->peerDelivered) + merges[2] + merges[3] == ExLoad(&c->peerReceived),
            "peer: %" PRIu64 " received, %" PRIu64 " delivered, %" PRIu64 " merged", ExLoad(&c->peerReceived),
            ExLoad(&c->peerDelivered), merges[2] + merges[3]);
    ExCheck(ExLoad(&c->unpackCalls) == ExLoad(&c->unpackFrees), "unpack called %" PRIu64 " times, released %" PRIu64,
            ExLoad(&c->unpackCalls), ExLoad(&c->unpackFrees));
    ExCheck(pc->entryCalls == g_run.broker.platformEntries, "platform smoothing entries: %u, expected %" PRIu64,
            pc->entryCalls, g_run.broker.platformEntries);
    ExCheck(synced == ExLoad(&c->peerReceived) && ExLoad(&c->syncFailed) == 0u,
            "synced %" PRIu64 ", peer received %" PRIu64 ", %" PRIu64 " sends failed", synced, ExLoad(&c->peerReceived),
            ExLoad(&c->syncFailed));
    if (pc->presses[0] + pc->presses[1] == 0u) {
        printf("note: no back-pressure in this run (too few records or keys to pass a high water mark)\n");
    }
    ExCheck(pc->presses[0] == pc->releases[0] && pc->presses[1] == pc->releases[1], "a channel is still back-pressed");
}

/* The summary and, when the run took place (ok), the queues' statistics and the checks. */
void ExReport(int ok, double offerTime, double wall)
{
    ExPlatformCounts pc = {{0, 0}, {0, 0}, 0};
    if (ok) {
        for (uint32_t c = 0; c < 2u; c++) {
            pc.presses[c] = RIX_TEST_ChanBackPressCount(g_run.modEal, c, &pc.releases[c]);
        }
        pc.entryCalls = RIX_TEST_EntryCount();
    }
    ExPrintSummary(&pc, offerTime, wall);
    if (ok) {
        uint64_t merges[4] = {0, 0, 0, 0}, maxCnt[4] = {0, 0, 0, 0};
        ExPrintDiagnostics(merges, maxCnt);
        printf("\n");
        ExPrintLogSummary();
        ExCheckTotals(&pc, merges, maxCnt);
    } else {
        ExPrintLogSummary();
    }
}

/* Once the orchestrators are gone: every block returned, no error, no instance left alive.
 * Returns the number of failed checks of the whole run. */
int ExFinish(int ok)
{
    uint64_t allocs = (uint64_t)atomic_load(&g_run.cnt.allocs), frees = (uint64_t)atomic_load(&g_run.cnt.frees);
    printf("module allocator      : %" PRIu64 " blocks allocated, %" PRIu64 " released, %" PRIdFAST64 " bytes left\n",
           allocs, frees, atomic_load(&g_run.cnt.liveBytes));
    ExCheck(ok, "the orchestrators could not be set up");
    ExCheck(allocs == frees && atomic_load(&g_run.cnt.liveBytes) == 0, "the module allocator does not balance");
    ExCheck(atomic_load(&g_run.cnt.errors) == 0u, "%" PRIuFAST64 " processing errors (first ones on stderr)",
            atomic_load(&g_run.cnt.errors));
    ExCheck(RIX_TEST_EalLiveCount() == 0u, "abstraction-layer instances left alive");
    return g_exFailures;
}
