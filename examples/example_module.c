/* Example module: one orchestrator serving a broker's traffic on its DATA thread, with a
 * peer orchestrator in the same process receiving what it syncs.
 *
 * The program plays three roles:
 *   - the module "EXMOD": registers threads, channels, table messages, transfer tables,
 *     merge queues and sync groups, then hands every message its channels receive to
 *     ASOrchMsgProc and processes what comes out;
 *   - a broker on the main thread: writes message bodies into the stand-in's channels,
 *     pausing while a channel is back-pressed;
 *   - the peer "EXPEER": receives the records EXMOD syncs and feeds them into its own merge
 *     path.
 * It keeps its own books on both ends and fails (exit 1) when anything was lost, duplicated,
 * reordered or leaked. */
#define _POSIX_C_SOURCE 200809L

#include <errno.h>
#include <inttypes.h>
#include <pthread.h>
#include <stdarg.h>
#include <stdatomic.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include "rix_autosync_orch.h"
#include "rix_platform_test.h"

/* ------------------------------------------------------------------------------------ */
/* Wire layout shared by the broker and the module                                        */
/* ------------------------------------------------------------------------------------ */

/* Every body starts with the broker's 8-byte header: message id, record or item count. */
#define EX_HDR_SIZE 8u
#define EX_MAX_BODY 16384u

/* Table messages (receive registry). */
#define EX_MSG_ROUTE_ADD 0x00010001u  /* DAM, plain records, merged */
#define EX_MSG_ROUTE_DEL 0x00010002u  /* DAM, plain records, merged */
#define EX_MSG_ARP_PROBE 0x00010003u  /* DAM, plain records, processed at once */
#define EX_MSG_NHP_ADD 0x00010011u    /* FES, serially packed, merged */
#define EX_MSG_NHP_DEL 0x00010012u    /* FES, serially packed, merged */
#define EX_MSG_IF_STATS 0x00010021u   /* UP, plain records, user-defined processing */

/* Ids under which records travel through the merge layer. */
#define EX_MMSG_ROUTE 0x00020001u
#define EX_MMSG_ARP 0x00020003u
#define EX_MMSG_NHP 0x00020011u

/* Operation types that the serial unpack reports. */
#define EX_NHP_ADD_OPTYPE 0x11u
#define EX_NHP_DEL_OPTYPE 0x12u

/* Merge types of the registrations. */
#define EX_MT_ROUTE 0u  /* DAM queue, update keeps its place */
#define EX_MT_NHP 3u    /* FES queue, update moves to the tail */
#define EX_MT_ARP 4u    /* at once, DAM message table */
#define EX_MT_STATS 5u  /* handed to the user-defined function as procParam */

/* Transfer messages and their tables. */
#define EX_MSG_TRANS_TABLES (ASORCH_TRANS_MSGID_BASE + 1u)
#define EX_MSG_TRANS_SMOOTH (ASORCH_TRANS_MSGID_BASE + 2u)
#define EX_TBL_DAM 0x101u
#define EX_TBL_COMP 0x103u
#define EX_TBL_FES 0x201u
#define EX_TBL_SMOOTH_PLAT 0x301u  /* pre-callback, then the platform's entry points */
#define EX_TBL_SMOOTH_OWN 0x302u   /* the module's own smoothing replaces the platform's */
#define EX_DAM_ENTRY_SIZE 32u
#define EX_FES_ENTRY_SIZE 24u
#define EX_PROCPARAM_DAM 0xD0u
#define EX_PROCPARAM_FES 0xF0u
#define EX_PROCPARAM_COMP 0xC0u

/* Tables of keyed records; a key is {index, table tag}. */
enum { EX_T_DAM = 0, EX_T_FES = 1, EX_T_NUM = 2 };
static const uint32_t g_exTableTag[EX_T_NUM] = {0xDA000001u, 0xFE000001u};
#define EX_TAG_ARP 0xA0000001u
#define EX_TAG_STATS 0x5A000001u
#define EX_KEY_SIZE 8u

/* A record as the module stores it (recordSize bytes; the rest is a check pattern). */
typedef struct ExRecord {
    uint32_t key;
    uint32_t tag;
    uint32_t keyVer;  /* n-th offer of this key, from 1 */
    uint32_t seq;     /* global offer sequence */
    uint32_t op;      /* as offered: 0 add, 1 delete */
    uint32_t state;
    uint32_t check;
} ExRecord;
#define EX_REC_MIN_SIZE 32u
#define EX_REC_MAX_SIZE 4096u

/* A serially packed record: what the broker sends on FES, expanded by the unpack. */
typedef struct ExPackedRec {
    uint32_t key;
    uint32_t keyVer;
    uint32_t seq;
    uint32_t state;
} ExPackedRec;

/* What EXMOD syncs: the delivered operation type, then the record. */
#define EX_SYNC_HDR 8u

/* ------------------------------------------------------------------------------------ */
/* Options                                                                                */
/* ------------------------------------------------------------------------------------ */

typedef struct ExOptions {
    uint64_t records;
    uint32_t keys;
    double skew;
    uint32_t recordSize;
    double duration;
    uint64_t seed;
    uint32_t syncEvery;
    uint32_t maxBurst;
} ExOptions;

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

/* ------------------------------------------------------------------------------------ */
/* The module's allocator: counts every block so that a leak shows                        */
/* ------------------------------------------------------------------------------------ */

typedef union ExAllocHdr {
    uint32_t size;
    max_align_t align;
} ExAllocHdr;

static atomic_uint_fast64_t g_exAllocs;
static atomic_uint_fast64_t g_exFrees;
static atomic_int_fast64_t g_exLiveBytes;
static atomic_int_fast64_t g_exPeakBytes;

static void *ExAlloc(uint32_t size)
{
    ExAllocHdr *h = malloc(sizeof(ExAllocHdr) + (size_t)size);
    if (h == NULL) {
        return NULL;
    }
    h->size = size;
    atomic_fetch_add_explicit(&g_exAllocs, 1u, memory_order_relaxed);
    int_fast64_t live = atomic_fetch_add_explicit(&g_exLiveBytes, size, memory_order_relaxed) + size;
    int_fast64_t peak = atomic_load_explicit(&g_exPeakBytes, memory_order_relaxed);
    while (live > peak &&
           !atomic_compare_exchange_weak_explicit(&g_exPeakBytes, &peak, live, memory_order_relaxed,
                                                  memory_order_relaxed)) {
    }
    return h + 1;
}

static void ExFree(void *ptr)
{
    if (ptr == NULL) {
        return;
    }
    ExAllocHdr *h = (ExAllocHdr *)ptr - 1;
    atomic_fetch_add_explicit(&g_exFrees, 1u, memory_order_relaxed);
    atomic_fetch_sub_explicit(&g_exLiveBytes, h->size, memory_order_relaxed);
    free(h);
}

/* ------------------------------------------------------------------------------------ */
/* Shared state                                                                           */
/* ------------------------------------------------------------------------------------ */

/* Books of one keyed table, indexed by key. Broker side: main thread. Module side: DATA
 * thread. Peer side: whoever holds the peer lock. Read together only once all is idle. */
typedef struct ExTableBooks {
    uint32_t *offerVer;
    uint32_t *lastOfferedOp;
    uint32_t *lastOfferedState;
    uint32_t *deliveredVer;
    uint32_t *modelState;
    uint8_t *modelExists;
    uint8_t *pending;
    uint8_t *peerExists;
    uint32_t *peerState;
    uint64_t pendingEntries;  /* DATA thread */
    uint64_t peakPending;     /* DATA thread */
} ExTableBooks;

typedef struct ExCounters {
    atomic_uint_fast64_t delivered[EX_T_NUM];
    atomic_uint_fast64_t coalesced[EX_T_NUM];
    atomic_uint_fast64_t deliveredByOp[4];
    atomic_uint_fast64_t immediate;
    atomic_uint_fast64_t userDefRecords;
    atomic_uint_fast64_t userDefCalls;
    atomic_uint_fast64_t damEntries;
    atomic_uint_fast64_t fesEntries;
    atomic_uint_fast64_t compTables;
    atomic_uint_fast64_t smoothPre;
    atomic_uint_fast64_t smoothOwn;
    atomic_uint_fast64_t synced[EX_T_NUM];
    atomic_uint_fast64_t syncFailed;
    atomic_uint_fast64_t peerReceived;
    atomic_uint_fast64_t peerDelivered;
    atomic_uint_fast64_t peerCoalesced;
    atomic_uint_fast64_t peerMergeFailed;
    atomic_uint_fast64_t msgProcFailed;
    atomic_uint_fast64_t unpackCalls;
    atomic_uint_fast64_t unpackFrees;
    atomic_uint_fast64_t notifyCalls;
    atomic_uint_fast64_t errors;
} ExCounters;

typedef struct ExBrokerStats {
    uint64_t offered[EX_T_NUM];
    uint64_t offeredImmediate;
    uint64_t offeredUserDef;
    uint64_t messages[ASORCH_CHAN_NUM];
    uint64_t damEntries;
    uint64_t fesEntries;
    uint64_t compTables;
    uint64_t smoothPre;
    uint64_t smoothOwn;
    uint64_t platformEntries;
    uint64_t backPressWaits;
    uint64_t deliverRetries;
    uint64_t seq;
} ExBrokerStats;

typedef struct ExRun {
    ExOptions opt;
    ASOrchHandle *mod;
    ASOrchHandle *peer;
    void *modEal;
    void *peerEal;
    pthread_mutex_t peerLock;
    ExTableBooks books[EX_T_NUM];
    ExCounters cnt;
    ExBrokerStats broker;
    double *zipfCdf;
    uint64_t rng;
} ExRun;

static ExRun g_run;

/* The first twenty failures are reported; every one is counted. */
static void ExError(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
static void ExError(const char *fmt, ...)
{
    uint_fast64_t n = atomic_fetch_add_explicit(&g_run.cnt.errors, 1u, memory_order_relaxed);
    if (n >= 20u) {
        return;
    }
    va_list ap;
    va_start(ap, fmt);
    fputs("example_module: error: ", stderr);
    vfprintf(stderr, fmt, ap);
    fputc('\n', stderr);
    va_end(ap);
}

static uint32_t ExRd32(const void *p)
{
    uint32_t v;
    memcpy(&v, p, sizeof(v));
    return v;
}

static void ExWr32(void *p, uint32_t v)
{
    memcpy(p, &v, sizeof(v));
}

static uint32_t ExMix(uint32_t a, uint32_t b)
{
    uint32_t h = a * 0x9E3779B1u ^ (b + 0x7F4A7C15u + (a << 6) + (a >> 2));
    h ^= h >> 15;
    h *= 0x2C1B3C6Du;
    h ^= h >> 12;
    return h;
}

static uint32_t ExRecordCheck(const ExRecord *r)
{
    uint32_t h = ExMix(r->key, r->tag);
    h = ExMix(h, r->keyVer);
    h = ExMix(h, r->seq);
    h = ExMix(h, r->op);
    return ExMix(h, r->state);
}

/* Fills a whole record: the fields, their check and the pattern of the remaining bytes. */
static void ExRecordFill(uint8_t *out, uint32_t size, const ExRecord *r)
{
    ExRecord tmp = *r;
    tmp.check = ExRecordCheck(&tmp);
    memcpy(out, &tmp, sizeof(tmp));
    for (uint32_t i = (uint32_t)sizeof(tmp); i < size; i++) {
        out[i] = (uint8_t)(tmp.check + i);
    }
}

/* 0 when the record is intact. */
static int ExRecordVerify(const void *data, uint32_t size, ExRecord *out)
{
    if (size != g_run.opt.recordSize) {
        return -1;
    }
    memcpy(out, data, sizeof(*out));
    if (out->check != ExRecordCheck(out)) {
        return -1;
    }
    const uint8_t *b = data;
    for (uint32_t i = (uint32_t)sizeof(*out); i < size; i++) {
        if (b[i] != (uint8_t)(out->check + i)) {
            return -1;
        }
    }
    return 0;
}

/* ------------------------------------------------------------------------------------ */
/* EXMOD: processing functions                                                            */
/* ------------------------------------------------------------------------------------ */

static int ExTableOfTag(uint32_t tag)
{
    for (int t = 0; t < EX_T_NUM; t++) {
        if (g_exTableTag[t] == tag) {
            return t;
        }
    }
    return -1;
}

/* Copies a delivered record to the peer: its delivered opType, then the record. */
static void ExSyncToPeer(int table, uint32_t opType, const void *record)
{
    uint8_t buf[EX_SYNC_HDR + EX_REC_MAX_SIZE];
    ExWr32(buf, opType);
    ExWr32(buf + 4, 0u);
    memcpy(buf + EX_SYNC_HDR, record, g_run.opt.recordSize);
    RIX_EAL_SyncItem item = {buf, EX_SYNC_HDR + g_run.opt.recordSize};
    /* Logical group 0 carries DAM data, group 2 FES data. */
    uint32_t grp = table == EX_T_DAM ? 0u : 2u;
    uint32_t r = ASOrchSyncMsg(g_run.mod, grp, &item);
    if (r != 0u) {
        atomic_fetch_add_explicit(&g_run.cnt.syncFailed, 1u, memory_order_relaxed);
        ExError("ASOrchSyncMsg to group %u failed with %u", grp, r);
        return;
    }
    atomic_fetch_add_explicit(&g_run.cnt.synced[table], 1u, memory_order_relaxed);
}

/* A record comes out of the DAM or FES queue: checked, booked, and synced for selected keys. */
static uint32_t ExMergedProc(ASOrchHandle *handle, ASOrchMsgVec *vec, uint32_t slotOp)
{
    ExRecord rec;
    if (handle != g_run.mod || vec->opType != slotOp || vec->keyLen != EX_KEY_SIZE || vec->key == NULL ||
        vec->data == NULL || ExRecordVerify(vec->data, vec->dataLen, &rec) != 0 ||
        memcmp(vec->key, vec->data, EX_KEY_SIZE) != 0) {
        ExError("corrupt vector: msgId 0x%x opType %u (slot %u) keyLen %u dataLen %u", vec->msgId, vec->opType,
                slotOp, vec->keyLen, vec->dataLen);
        return 1u;
    }
    int t = ExTableOfTag(rec.tag);
    uint32_t expectMsg = t == EX_T_DAM ? EX_MMSG_ROUTE : EX_MMSG_NHP;
    if (t < 0 || rec.key >= g_run.opt.keys || vec->msgId != expectMsg) {
        ExError("record of unknown table: tag 0x%x key %u msgId 0x%x", rec.tag, rec.key, vec->msgId);
        return 1u;
    }
    ExTableBooks *b = &g_run.books[t];
    uint32_t prev = b->deliveredVer[rec.key];
    if (rec.keyVer <= prev) {
        ExError("key %u of table %d delivered out of order or twice: version %u after %u", rec.key, t, rec.keyVer,
                prev);
        return 1u;
    }
    /* The arriving record survives a merge; a delete always stays a delete. */
    if ((rec.op == 1u) != (vec->opType == 1u)) {
        ExError("key %u: offered op %u delivered as opType %u", rec.key, rec.op, vec->opType);
    }
    atomic_fetch_add_explicit(&g_run.cnt.coalesced[t], rec.keyVer - prev - 1u, memory_order_relaxed);
    atomic_fetch_add_explicit(&g_run.cnt.delivered[t], 1u, memory_order_relaxed);
    atomic_fetch_add_explicit(&g_run.cnt.deliveredByOp[vec->opType & 3u], 1u, memory_order_relaxed);
    b->deliveredVer[rec.key] = rec.keyVer;
    b->modelExists[rec.key] = vec->opType != 1u;
    b->modelState[rec.key] = vec->opType != 1u ? rec.state : 0u;
    if (b->pending[rec.key] != 0u) {
        b->pending[rec.key] = 0u;
        b->pendingEntries--;
    } else {
        ExError("key %u of table %d delivered while not pending", rec.key, t);
    }
    if (rec.key % g_run.opt.syncEvery == 0u) {
        ExSyncToPeer(t, vec->opType, vec->data);
    }
    return 0u;
}

static uint32_t ExMergedOp0(ASOrchHandle *h, ASOrchMsgVec *v) { return ExMergedProc(h, v, 0u); }
static uint32_t ExMergedOp1(ASOrchHandle *h, ASOrchMsgVec *v) { return ExMergedProc(h, v, 1u); }
static uint32_t ExMergedOp2(ASOrchHandle *h, ASOrchMsgVec *v) { return ExMergedProc(h, v, 2u); }

/* ARP probes are processed at once, in the message body. */
static uint32_t ExArpProc(ASOrchHandle *handle, ASOrchMsgVec *vec)
{
    ExRecord rec;
    if (handle != g_run.mod || vec->opType != 0u || vec->msgId != EX_MMSG_ARP || vec->key != vec->data ||
        ExRecordVerify(vec->data, vec->dataLen, &rec) != 0 || rec.tag != EX_TAG_ARP) {
        ExError("corrupt ARP probe: msgId 0x%x opType %u dataLen %u", vec->msgId, vec->opType, vec->dataLen);
        return 1u;
    }
    atomic_fetch_add_explicit(&g_run.cnt.immediate, 1u, memory_order_relaxed);
    return 0u;
}

/* Interface statistics: the whole run of records in one call. */
static uint32_t ExIfStatsProc(ASOrchHandle *handle, void *records, uint32_t num, ASOrchTblProcInfo *info)
{
    if (handle != g_run.mod || info == NULL || info->procParam != EX_MT_STATS || info->tlvType != 0u) {
        ExError("user-defined processing called with a wrong handle or info");
        return 1u;
    }
    const uint8_t *p = records;
    for (uint32_t i = 0; i < num; i++) {
        ExRecord rec;
        if (ExRecordVerify(p + (size_t)i * g_run.opt.recordSize, g_run.opt.recordSize, &rec) != 0 ||
            rec.tag != EX_TAG_STATS) {
            ExError("corrupt interface statistics record %u of %u", i, num);
            return 1u;
        }
    }
    atomic_fetch_add_explicit(&g_run.cnt.userDefCalls, 1u, memory_order_relaxed);
    atomic_fetch_add_explicit(&g_run.cnt.userDefRecords, num, memory_order_relaxed);
    return 0u;
}

/* Serial form of the FES next hops: {msgId, count} {opType, 0} then packed records. */
static void ExNhpUnpack(void *data, uint32_t len, ASOrchUnpackResult *result, ASOrchMsg *msg)
{
    atomic_fetch_add_explicit(&g_run.cnt.unpackCalls, 1u, memory_order_relaxed);
    const uint8_t *b = data;
    if (len < 16u || msg == NULL || msg->data != data) {
        ExError("unpack got a body of %u bytes", len);
        return;
    }
    uint32_t count = ExRd32(b + 4);
    uint32_t opType = ExRd32(b + 8);
    if ((uint64_t)count * sizeof(ExPackedRec) != (uint64_t)len - 16u) {
        ExError("packed body of %u bytes does not hold %u records", len, count);
        return;
    }
    result->opType = opType;
    if (count == 0u) {
        return;
    }
    uint32_t size = g_run.opt.recordSize;
    uint8_t *out = ExAlloc(count * size);
    if (out == NULL) {
        ExError("unpack: out of memory for %u records", count);
        return;
    }
    for (uint32_t i = 0; i < count; i++) {
        ExPackedRec pr;
        memcpy(&pr, b + 16 + (size_t)i * sizeof(pr), sizeof(pr));
        ExRecord rec = {pr.key, g_exTableTag[EX_T_FES], pr.keyVer, pr.seq,
                        opType == EX_NHP_DEL_OPTYPE ? 1u : 0u, pr.state, 0u};
        ExRecordFill(out + (size_t)i * size, size, &rec);
    }
    result->ipcNum = count;
    result->ipcBuf = out;
}

static void ExNhpUnpackFree(ASOrchUnpackResult *result)
{
    atomic_fetch_add_explicit(&g_run.cnt.unpackFrees, 1u, memory_order_relaxed);
    ExFree(result->ipcBuf);
    result->ipcBuf = NULL;
    result->ipcNum = 0u;
}

/* Transfer tables: every word of an entry is derived from {table, entry index, salt}. */
static uint32_t ExEntryWord(uint32_t tableId, uint32_t salt, uint32_t entry, uint32_t word)
{
    return ExMix(ExMix(tableId, salt), entry * 64u + word);
}

static void ExFillEntries(uint8_t *out, uint32_t tableId, uint32_t salt, uint32_t num, uint32_t size)
{
    for (uint32_t e = 0; e < num; e++) {
        uint8_t *p = out + (size_t)e * size;
        ExWr32(p, salt);
        ExWr32(p + 4, e);
        for (uint32_t w = 2; w < size / 4u; w++) {
            ExWr32(p + 4 * w, ExEntryWord(tableId, salt, e, w));
        }
    }
}

static int ExVerifyEntries(const uint8_t *tables, uint32_t tableId, uint32_t num, uint32_t size)
{
    for (uint32_t e = 0; e < num; e++) {
        const uint8_t *p = tables + (size_t)e * size;
        uint32_t salt = ExRd32(p);
        if (ExRd32(p + 4) != e) {
            return -1;
        }
        for (uint32_t w = 2; w < size / 4u; w++) {
            if (ExRd32(p + 4 * w) != ExEntryWord(tableId, salt, e, w)) {
                return -1;
            }
        }
    }
    return 0;
}

static uint32_t ExDamTblProc(ASOrchHandle *handle, void *tables, uint32_t nums, uint32_t tblSize,
                             ASOrchTblProcInfo *info)
{
    if (handle != g_run.mod || tblSize != EX_DAM_ENTRY_SIZE || info->procParam != EX_PROCPARAM_DAM ||
        info->tlvType != 1u || ExVerifyEntries(tables, EX_TBL_DAM, nums, tblSize) != 0) {
        ExError("DAM table: %u entries of %u bytes, type %u, corrupt", nums, tblSize, info->tlvType);
        return 1u;
    }
    atomic_fetch_add_explicit(&g_run.cnt.damEntries, nums, memory_order_relaxed);
    return 0u;
}

static uint32_t ExFesTblProc(ASOrchHandle *handle, void *tables, uint32_t nums, uint32_t tblSize,
                             ASOrchTblProcInfo *info)
{
    if (handle != g_run.mod || tblSize != EX_FES_ENTRY_SIZE || info->procParam != EX_PROCPARAM_FES ||
        info->tlvType != 1u || ExVerifyEntries(tables, EX_TBL_FES, nums, tblSize) != 0) {
        ExError("FES table: %u entries of %u bytes, type %u, corrupt", nums, tblSize, info->tlvType);
        return 1u;
    }
    atomic_fetch_add_explicit(&g_run.cnt.fesEntries, nums, memory_order_relaxed);
    return 0u;
}

/* A composite table arrives whole, its TLV header included. */
static uint32_t ExCompTblProc(ASOrchHandle *handle, void *tables, uint32_t nums, uint32_t tblSize,
                              ASOrchTblProcInfo *info)
{
    const uint8_t *tlv = tables;
    if (handle != g_run.mod || nums != 1u || tblSize < 12u || info->procParam != EX_PROCPARAM_COMP ||
        (info->tlvType != 18u && info->tlvType != 19u) || ExRd32(tlv) != EX_TBL_COMP ||
        ExRd32(tlv + 4) != info->tlvType || ExRd32(tlv + 8) + 12u != tblSize ||
        ExVerifyEntries(tlv + 12, EX_TBL_COMP, (tblSize - 12u) / 16u, 16u) != 0) {
        ExError("composite table: %u of %u bytes, type %u, corrupt", nums, tblSize, info->tlvType);
        return 1u;
    }
    atomic_fetch_add_explicit(&g_run.cnt.compTables, 1u, memory_order_relaxed);
    return 0u;
}

static uint32_t ExSmoothPre(uint32_t tableId, uint32_t optType, void *record, uint32_t size)
{
    int damClass = optType == ASORCH_SMOOTH_DAM_CLASS || optType == ASORCH_SMOOTH_DAM_CLASS2;
    if (tableId != EX_TBL_SMOOTH_PLAT || (damClass ? record != NULL || size != 0u : record == NULL || size == 0u)) {
        ExError("smoothing pre-callback: table 0x%x type %u size %u", tableId, optType, size);
    }
    atomic_fetch_add_explicit(&g_run.cnt.smoothPre, 1u, memory_order_relaxed);
    return 0u;
}

static uint32_t ExSmoothOwn(uint32_t tableId, uint32_t optType, void *record, uint32_t size)
{
    int damClass = optType == ASORCH_SMOOTH_DAM_CLASS || optType == ASORCH_SMOOTH_DAM_CLASS2;
    if (tableId != EX_TBL_SMOOTH_OWN || (damClass ? record != NULL || size != 0u : record == NULL || size == 0u) ||
        (record != NULL && ExRd32(record) != tableId)) {
        ExError("smoothing callback: table 0x%x type %u size %u", tableId, optType, size);
    }
    atomic_fetch_add_explicit(&g_run.cnt.smoothOwn, 1u, memory_order_relaxed);
    return 0u;
}

static void ExSyncGrpNotify(void)
{
    atomic_fetch_add_explicit(&g_run.cnt.notifyCalls, 1u, memory_order_relaxed);
}

/* The container's bucket hash: the vector is the key. */
static uint32_t ExModDamHash(const void *key)
{
    return ASOrchMergeHashFunc(g_run.mod, ASORCH_CHAN_DAM, key);
}

static uint32_t ExModFesHash(const void *key)
{
    return ASOrchMergeHashFunc(g_run.mod, ASORCH_CHAN_FES, key);
}

/* Accounts the records of a merged message as pending entries before they are written:
 * an entry exists per key from its first write until its delivery. */
static void ExNotePending(int table, uint32_t key)
{
    ExTableBooks *b = &g_run.books[table];
    if (key >= g_run.opt.keys || b->pending[key] != 0u) {
        return;
    }
    b->pending[key] = 1u;
    if (++b->pendingEntries > b->peakPending) {
        b->peakPending = b->pendingEntries;
    }
}

static void ExPreAccount(uint32_t msgId, const uint8_t *body, uint32_t len)
{
    if (msgId == EX_MSG_ROUTE_ADD || msgId == EX_MSG_ROUTE_DEL) {
        for (uint32_t off = EX_HDR_SIZE; off + g_run.opt.recordSize <= len; off += g_run.opt.recordSize) {
            ExNotePending(EX_T_DAM, ExRd32(body + off));
        }
    } else if (msgId == EX_MSG_NHP_ADD || msgId == EX_MSG_NHP_DEL) {
        for (uint32_t off = 16u; off + sizeof(ExPackedRec) <= len; off += (uint32_t)sizeof(ExPackedRec)) {
            ExNotePending(EX_T_FES, ExRd32(body + off));
        }
    }
}

/* What the module's channels receive: every message goes to the orchestrator. */
static void ExChanRecv(void *ctx, uint32_t chanNo, const void *msg, uint32_t len)
{
    ASOrchHandle *handle = ctx;
    if (msg == NULL || len < EX_HDR_SIZE) {
        ExError("channel %u delivered a message of %u bytes", chanNo, len);
        return;
    }
    uint32_t msgId = ExRd32(msg);
    if (chanNo == ASORCH_CHAN_DAM || chanNo == ASORCH_CHAN_FES) {
        ExPreAccount(msgId, msg, len);
    }
    ASOrchMsg m = {(void *)(uintptr_t)msg, msgId, len};
    uint32_t r = ASOrchMsgProc(handle, &m);
    if (r != 0u) {
        atomic_fetch_add_explicit(&g_run.cnt.msgProcFailed, 1u, memory_order_relaxed);
        ExError("ASOrchMsgProc refused message 0x%x of %u bytes on channel %u", msgId, len, chanNo);
    }
}

/* ------------------------------------------------------------------------------------ */
/* EXPEER: the other end of the sync groups                                               */
/* ------------------------------------------------------------------------------------ */

static uint32_t ExPeerProc(ASOrchHandle *handle, ASOrchMsgVec *vec, uint32_t slotOp)
{
    ExRecord rec;
    int t = vec->msgId == EX_MMSG_ROUTE ? EX_T_DAM : vec->msgId == EX_MMSG_NHP ? EX_T_FES : -1;
    if (handle != g_run.peer || t < 0 || vec->opType != slotOp || vec->keyLen != EX_KEY_SIZE ||
        ExRecordVerify(vec->data, vec->dataLen, &rec) != 0 || rec.tag != g_exTableTag[t] ||
        rec.key >= g_run.opt.keys || memcmp(vec->key, vec->data, EX_KEY_SIZE) != 0) {
        ExError("peer: corrupt vector msgId 0x%x opType %u", vec->msgId, vec->opType);
        return 1u;
    }
    ExTableBooks *b = &g_run.books[t];
    b->peerExists[rec.key] = slotOp != 1u;
    b->peerState[rec.key] = slotOp != 1u ? rec.state : 0u;
    atomic_fetch_add_explicit(&g_run.cnt.peerDelivered, 1u, memory_order_relaxed);
    return 0u;
}

static uint32_t ExPeerOp0(ASOrchHandle *h, ASOrchMsgVec *v) { return ExPeerProc(h, v, 0u); }
static uint32_t ExPeerOp1(ASOrchHandle *h, ASOrchMsgVec *v) { return ExPeerProc(h, v, 1u); }
static uint32_t ExPeerOp2(ASOrchHandle *h, ASOrchMsgVec *v) { return ExPeerProc(h, v, 2u); }

static uint32_t ExPeerDamHash(const void *key)
{
    return ASOrchMergeHashFunc(g_run.peer, ASORCH_CHAN_DAM, key);
}

static uint32_t ExPeerFesHash(const void *key)
{
    return ASOrchMergeHashFunc(g_run.peer, ASORCH_CHAN_FES, key);
}

/* Feeds one run of equal operation types into the peer's merge path. */
static void ExPeerFeed(ASOrchSyncGrpData *items, uint32_t n, uint32_t opType, int table)
{
    ASOrchMsgVec vec;
    memset(&vec, 0, sizeof(vec));
    vec.msgId = table == EX_T_DAM ? EX_MMSG_ROUTE : EX_MMSG_NHP;
    vec.opType = opType;
    vec.keyLen = EX_KEY_SIZE;
    vec.dataLen = g_run.opt.recordSize;
    ASOrchMergeSyncGrpDatas(n, items, &vec, table == EX_T_DAM ? 0u : 1u, g_run.peer);
    for (uint32_t i = 0; i < n; i++) {
        if (items[i].result != 0u) {
            atomic_fetch_add_explicit(&g_run.cnt.peerMergeFailed, 1u, memory_order_relaxed);
            ExError("peer refused synced record %u of a run of %u (result 0x%x)", i, n, items[i].result);
        }
    }
}

/* Called by the layer, on the sending thread, with a copy of what EXMOD synced. */
static void ExPeerRecv(void *ctx, uint32_t grpId, const RIX_EAL_SyncItem *items, uint32_t count)
{
    (void)ctx;
    /* Layer ids: logical group 0 became 0, logical group 2 became 1. */
    int table = grpId == 0u ? EX_T_DAM : grpId == 1u ? EX_T_FES : -1;
    if (table < 0) {
        ExError("peer: sync on unexpected group %u", grpId);
        return;
    }
    enum { RUN_MAX = 64 };
    ASOrchSyncGrpData run[RUN_MAX];
    uint32_t n = 0;
    uint32_t runOp = 0;
    pthread_mutex_lock(&g_run.peerLock);
    for (uint32_t i = 0; i < count; i++) {
        if (items[i].data == NULL || items[i].len != EX_SYNC_HDR + g_run.opt.recordSize) {
            ExError("peer: synced item of %u bytes", items[i].len);
            continue;
        }
        atomic_fetch_add_explicit(&g_run.cnt.peerReceived, 1u, memory_order_relaxed);
        uint32_t op = ExRd32(items[i].data);
        if (n > 0u && (op != runOp || n == RUN_MAX)) {
            ExPeerFeed(run, n, runOp, table);
            n = 0;
        }
        runOp = op;
        run[n].data = (uint8_t *)(uintptr_t)items[i].data + EX_SYNC_HDR;
        run[n].info = i;
        run[n].result = 0u;
        n++;
    }
    if (n > 0u) {
        ExPeerFeed(run, n, runOp, table);
    }
    /* The peer is not started: its DATA loop runs here, under the same lock. */
    RIX_TEST_EalRunUntilIdle(g_run.peerEal, ASORCH_THREAD_DATA);
    pthread_mutex_unlock(&g_run.peerLock);
}

/* ------------------------------------------------------------------------------------ */
/* Registration                                                                           */
/* ------------------------------------------------------------------------------------ */

typedef struct ExRegTables {
    ASOrchTblMsgRecvReg recv0[5];
    ASOrchTblMsgRecvReg recv1[1];
    ASOrchTblMsgTransReg trans0[3];
    ASOrchTblMsgTransReg trans1[2];
    ASOrchMergeMsg damMsgs[2];
    ASOrchMergeMsg fesMsgs[1];
} ExRegTables;

static ASOrchTblMsgRecvReg ExRecvCtrl(uint32_t mergeMsgId, uint32_t msgId, uint32_t opType,
                                       ASOrchUnpackFunc unpack, ASOrchUnpackFreeFunc unpackFree,
                                       uint32_t mergeType, ASOrchRecvProcFunc userDef, uint32_t mergeOpType)
{
    ASOrchTblMsgRecvReg c;
    memset(&c, 0, sizeof(c));
    c.mergeMsgId = mergeMsgId;
    c.msgId = msgId;
    c.opType = opType;
    c.unpackFunc = unpack;
    c.unpackFreeFunc = unpackFree;
    c.ipcSize = g_run.opt.recordSize;
    c.mergeType = mergeType;
    c.userDefProc = userDef;
    c.mergeOpType = mergeOpType;
    c.keySize = EX_KEY_SIZE;
    return c;
}

static ASOrchTblMsgTransReg ExTransCtrl(uint32_t tableId, uint32_t tblSize, ASOrchSmoothCbFunc pre,
                                         ASOrchSmoothCbFunc own, uint32_t procParam, ASOrchTblMsgProcFunc proc)
{
    ASOrchTblMsgTransReg c;
    memset(&c, 0, sizeof(c));
    c.tableId = tableId;
    c.tblSize = tblSize;
    c.smoothPreProc = pre;
    c.smoothProc = own;
    c.procParam = procParam;
    c.tblMsgProc = proc;
    return c;
}

/* Water marks of EXMOD's queues: low enough that a default run back-presses its channels. */
#define EX_DAM_HIGH_WATER 1024u
#define EX_DAM_LOW_WATER 256u
#define EX_FES_HIGH_WATER 512u
#define EX_FES_LOW_WATER 128u

static int ExRegisterModule(ASOrchHandle *h, ExRegTables *t)
{
    /* Advanced sync-group options go in before the base registration reads them. */
    ASOrchSynGrpFlowCtrl fc;
    memset(&fc, 0, sizeof(fc));
    fc.word[6] = 0x8000u;
    fc.word[7] = 0x6000u;
    fc.word[8] = 0x3000u;
    if (ASOrchAdvSetSynGrpVerifyInterVal(h, 2u, 500u) != 0u || ASOrchAdvSetSynGrpNotifyFunc(h, 0u, ExSyncGrpNotify) != 0u ||
        ASOrchAdvSetSynGrpFlowCtrl(h, 2u, &fc) != 0u) {
        ExError("advanced sync-group options refused");
        return -1;
    }

    ASOrchBasePara bp;
    memset(&bp, 0, sizeof(bp));
    if (ASOrchThreadSet(&bp.threadMask, 3u, ASORCH_THREAD_DATA, ASORCH_THREAD_SYNC, ASORCH_THREAD_EVENT) != 0u) {
        ExError("ASOrchThreadSet refused DATA, SYNC and EVENT");
        return -1;
    }
    bp.modStateRsp[0] = 1u;
    bp.modStateRsp[1] = 0u;
    bp.syncGrpMsgSet[0] = 0x0101u;  /* group 0: DAM data */
    bp.syncGrpMsgSet[2] = 0x0202u;  /* group 2: FES data */
    bp.reservePort[0] = 0x2F00u;
    bp.reservePort[1] = 1u;
    for (uint32_t c = 0; c < ASORCH_CHAN_NUM; c++) {
        bp.chanPort[c].realServerPort = 0x1F90u + c;
        bp.chanPort[c].chanArg = c;
    }

    t->recv0[0] = ExRecvCtrl(EX_MMSG_ROUTE, EX_MSG_ROUTE_ADD, 0u, NULL, NULL, EX_MT_ROUTE, NULL, 0u);
    t->recv0[1] = ExRecvCtrl(EX_MMSG_ROUTE, EX_MSG_ROUTE_DEL, 0u, NULL, NULL, EX_MT_ROUTE, NULL, 1u);
    t->recv0[2] = ExRecvCtrl(EX_MMSG_ARP, EX_MSG_ARP_PROBE, 0u, NULL, NULL, EX_MT_ARP, NULL, 0u);
    t->recv0[3] = ExRecvCtrl(EX_MMSG_NHP, EX_MSG_NHP_ADD, EX_NHP_ADD_OPTYPE, ExNhpUnpack, ExNhpUnpackFree,
                             EX_MT_NHP, NULL, 0u);
    t->recv0[4] = ExRecvCtrl(EX_MMSG_NHP, EX_MSG_NHP_DEL, EX_NHP_DEL_OPTYPE, ExNhpUnpack, ExNhpUnpackFree,
                             EX_MT_NHP, NULL, 1u);
    t->recv1[0] = ExRecvCtrl(0u, EX_MSG_IF_STATS, 0u, NULL, NULL, EX_MT_STATS, ExIfStatsProc, 0u);
    bp.recvTblMsg[0].entries = t->recv0;
    bp.recvTblMsg[0].count = 5u;
    bp.recvTblMsg[1].entries = t->recv1;
    bp.recvTblMsg[1].count = 1u;

    t->trans0[0] = ExTransCtrl(EX_TBL_DAM, EX_DAM_ENTRY_SIZE, NULL, NULL, EX_PROCPARAM_DAM, ExDamTblProc);
    t->trans0[1] = ExTransCtrl(EX_TBL_COMP, 0u, NULL, NULL, EX_PROCPARAM_COMP, ExCompTblProc);
    t->trans0[2] = ExTransCtrl(EX_TBL_SMOOTH_PLAT, 0u, ExSmoothPre, NULL, 0u, NULL);
    t->trans1[0] = ExTransCtrl(EX_TBL_FES, EX_FES_ENTRY_SIZE, NULL, NULL, EX_PROCPARAM_FES, ExFesTblProc);
    t->trans1[1] = ExTransCtrl(EX_TBL_SMOOTH_OWN, 0u, ExSmoothPre, ExSmoothOwn, 0u, NULL);
    bp.transTblMsg[0].entries = t->trans0;
    bp.transTblMsg[0].count = 3u;
    bp.transTblMsg[1].entries = t->trans1;
    bp.transTblMsg[1].count = 2u;

    memset(t->damMsgs, 0, sizeof(t->damMsgs));
    memset(t->fesMsgs, 0, sizeof(t->fesMsgs));
    t->damMsgs[0].msgId = EX_MMSG_ROUTE;
    t->damMsgs[0].msgProc[0] = ExMergedOp0;
    t->damMsgs[0].msgProc[1] = ExMergedOp1;
    t->damMsgs[0].msgProc[2] = ExMergedOp2;
    t->damMsgs[1].msgId = EX_MMSG_ARP;
    t->damMsgs[1].msgProc[0] = ExArpProc;
    t->fesMsgs[0].msgId = EX_MMSG_NHP;
    t->fesMsgs[0].msgProc[0] = ExMergedOp0;
    t->fesMsgs[0].msgProc[1] = ExMergedOp1;
    t->fesMsgs[0].msgProc[2] = ExMergedOp2;
    bp.mergeMque[0] = (ASOrchMergeReg){t->damMsgs, 2u, 4096u, ExModDamHash, EX_DAM_HIGH_WATER, EX_DAM_LOW_WATER};
    bp.mergeMque[1] = (ASOrchMergeReg){t->fesMsgs, 1u, 2048u, ExModFesHash, EX_FES_HIGH_WATER, EX_FES_LOW_WATER};

    if (ASOrchRegBase(h, &bp) != 0u) {
        ExError("ASOrchRegBase failed for EXMOD");
        return -1;
    }
    return 0;
}

static int ExRegisterPeer(ASOrchHandle *h, ExRegTables *t)
{
    ASOrchBasePara bp;
    memset(&bp, 0, sizeof(bp));
    if (ASOrchThreadSet(&bp.threadMask, 1u, ASORCH_THREAD_DATA) != 0u) {
        ExError("ASOrchThreadSet refused DATA");
        return -1;
    }
    bp.syncGrpMsgSet[0] = 0x0101u;
    bp.chanPort[ASORCH_CHAN_UP].realServerPort = 0x1FA0u;
    memset(t->damMsgs, 0, sizeof(t->damMsgs));
    memset(t->fesMsgs, 0, sizeof(t->fesMsgs));
    t->damMsgs[0].msgId = EX_MMSG_ROUTE;
    t->damMsgs[0].msgProc[0] = ExPeerOp0;
    t->damMsgs[0].msgProc[1] = ExPeerOp1;
    t->damMsgs[0].msgProc[2] = ExPeerOp2;
    t->fesMsgs[0].msgId = EX_MMSG_NHP;
    t->fesMsgs[0].msgProc[0] = ExPeerOp0;
    t->fesMsgs[0].msgProc[1] = ExPeerOp1;
    t->fesMsgs[0].msgProc[2] = ExPeerOp2;
    /* Default water marks: the peer keeps up by construction. */
    bp.mergeMque[0] = (ASOrchMergeReg){t->damMsgs, 1u, 0u, ExPeerDamHash, 0u, 0u};
    bp.mergeMque[1] = (ASOrchMergeReg){t->fesMsgs, 1u, 0u, ExPeerFesHash, 0u, 0u};
    if (ASOrchRegBase(h, &bp) != 0u) {
        ExError("ASOrchRegBase failed for EXPEER");
        return -1;
    }
    return 0;
}

/* ------------------------------------------------------------------------------------ */
/* Broker                                                                                 */
/* ------------------------------------------------------------------------------------ */

static double ExNow(void)
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (double)ts.tv_sec + (double)ts.tv_nsec * 1e-9;
}

static void ExNap(long ns)
{
    struct timespec ts = {0, ns};
    nanosleep(&ts, NULL);
}

static uint64_t ExRand(void)
{
    /* xorshift64* */
    uint64_t x = g_run.rng;
    x ^= x >> 12;
    x ^= x << 25;
    x ^= x >> 27;
    g_run.rng = x;
    return x * 0x2545F4914F6CDD1DULL;
}

static uint32_t ExRandBelow(uint32_t n)
{
    return (uint32_t)(((ExRand() >> 32) * (uint64_t)n) >> 32);
}

/* x to the power -s for x >= 1, without the maths library: exp(-s * ln x). The traffic
 * only needs a plausible skew, not the last bit. */
static double ExPowNeg(double x, double s)
{
    uint64_t bits;
    memcpy(&bits, &x, sizeof(bits));
    int e = (int)((bits >> 52) & 0x7FFu) - 1023;
    bits = (bits & 0x000FFFFFFFFFFFFFULL) | 0x3FF0000000000000ULL;
    double m;
    memcpy(&m, &bits, sizeof(m));
    double z = (m - 1.0) / (m + 1.0), z2 = z * z, term = z, lnm = 0.0;
    for (int k = 1; k < 40; k += 2) {
        lnm += term / k;
        term *= z2;
    }
    const double ln2 = 0.69314718055994530942;
    double y = -s * (2.0 * lnm + e * ln2);
    /* exp(y) = 2^k * exp(r) with |r| <= ln2 / 2 */
    int k2 = (int)(y / ln2 + (y < 0.0 ? -0.5 : 0.5));
    double r = y - k2 * ln2, sum = 1.0, t = 1.0;
    for (int i = 1; i < 24; i++) {
        t *= r / i;
        sum += t;
    }
    if (k2 < -1000) {
        return 0.0;
    }
    uint64_t scale = (uint64_t)(k2 + 1023) << 52;
    double f;
    memcpy(&f, &scale, sizeof(f));
    return sum * f;
}

static int ExBuildZipf(void)
{
    uint32_t n = g_run.opt.keys;
    g_run.zipfCdf = malloc(sizeof(double) * n);
    if (g_run.zipfCdf == NULL) {
        return -1;
    }
    double sum = 0.0;
    for (uint32_t i = 0; i < n; i++) {
        sum += ExPowNeg((double)i + 1.0, g_run.opt.skew);
        g_run.zipfCdf[i] = sum;
    }
    for (uint32_t i = 0; i < n; i++) {
        g_run.zipfCdf[i] /= sum;
    }
    return 0;
}

/* A key drawn by the Zipf law; ranks are spread over the key space so hot keys are not adjacent. */
static uint32_t ExPickKey(void)
{
    double u = (double)(ExRand() >> 11) * (1.0 / 9007199254740992.0);
    uint32_t lo = 0, hi = g_run.opt.keys - 1u;
    while (lo < hi) {
        uint32_t mid = lo + (hi - lo) / 2u;
        if (g_run.zipfCdf[mid] < u) {
            lo = mid + 1u;
        } else {
            hi = mid;
        }
    }
    return (uint32_t)(((uint64_t)lo * 2654435761u) % g_run.opt.keys);
}

/* Writes one body into a channel, waiting while the channel is back-pressed. */
static int ExBrokerSend(uint32_t chan, const void *body, uint32_t len)
{
    double giveUp = 0.0;
    for (;;) {
        if (RIX_TEST_ChanBackPressed(g_run.modEal, chan) != 0u) {
            g_run.broker.backPressWaits++;
            ExNap(20000);
            continue;
        }
        if (RIX_TEST_ChanDeliver(g_run.modEal, chan, body, len) == 0u) {
            g_run.broker.messages[chan]++;
            return 0;
        }
        /* The descriptor is full: the module is busy. */
        g_run.broker.deliverRetries++;
        double now = ExNow();
        if (giveUp == 0.0) {
            giveUp = now + 30.0;
        } else if (now > giveUp) {
            ExError("channel %u refused a message of %u bytes for 30 s", chan, len);
            return -1;
        }
        ExNap(50000);
    }
}

static uint32_t ExBurst(uint32_t perRecord, uint32_t fixed)
{
    uint32_t max = (EX_MAX_BODY - fixed) / perRecord;
    if (max > g_run.opt.maxBurst) {
        max = g_run.opt.maxBurst;
    }
    return 1u + ExRandBelow(max);
}

static uint64_t ExRemaining(void)
{
    uint64_t done = g_run.broker.offered[EX_T_DAM] + g_run.broker.offered[EX_T_FES] +
                    g_run.broker.offeredImmediate + g_run.broker.offeredUserDef;
    return done >= g_run.opt.records ? 0u : g_run.opt.records - done;
}

static ExRecord ExNextOffer(int table, uint32_t key, uint32_t op)
{
    ExTableBooks *b = &g_run.books[table];
    ExRecord r = {key, g_exTableTag[table], ++b->offerVer[key], (uint32_t)++g_run.broker.seq, op,
                  (uint32_t)ExRand(), 0u};
    b->lastOfferedOp[key] = op;
    b->lastOfferedState[key] = r.state;
    return r;
}

/* A burst of route updates on DAM, plain records. */
static int ExSendRoutes(uint8_t *buf)
{
    uint32_t size = g_run.opt.recordSize;
    uint32_t n = ExBurst(size, EX_HDR_SIZE);
    if (n > ExRemaining()) {
        n = (uint32_t)ExRemaining();
    }
    uint32_t op = ExRandBelow(5u) == 0u ? 1u : 0u;
    ExWr32(buf, op == 1u ? EX_MSG_ROUTE_DEL : EX_MSG_ROUTE_ADD);
    ExWr32(buf + 4, n);
    for (uint32_t i = 0; i < n; i++) {
        ExRecord r = ExNextOffer(EX_T_DAM, ExPickKey(), op);
        ExRecordFill(buf + EX_HDR_SIZE + (size_t)i * size, size, &r);
    }
    g_run.broker.offered[EX_T_DAM] += n;
    return ExBrokerSend(ASORCH_CHAN_DAM, buf, EX_HDR_SIZE + n * size);
}

/* A burst of next-hop updates on FES, serially packed. */
static int ExSendNextHops(uint8_t *buf)
{
    uint32_t n = ExBurst((uint32_t)sizeof(ExPackedRec), 16u);
    if (n > ExRemaining()) {
        n = (uint32_t)ExRemaining();
    }
    uint32_t op = ExRandBelow(4u) == 0u ? 1u : 0u;
    ExWr32(buf, op == 1u ? EX_MSG_NHP_DEL : EX_MSG_NHP_ADD);
    ExWr32(buf + 4, n);
    ExWr32(buf + 8, op == 1u ? EX_NHP_DEL_OPTYPE : EX_NHP_ADD_OPTYPE);
    ExWr32(buf + 12, 0u);
    for (uint32_t i = 0; i < n; i++) {
        ExRecord r = ExNextOffer(EX_T_FES, ExPickKey(), op);
        ExPackedRec pr = {r.key, r.keyVer, r.seq, r.state};
        memcpy(buf + 16 + (size_t)i * sizeof(pr), &pr, sizeof(pr));
    }
    g_run.broker.offered[EX_T_FES] += n;
    return ExBrokerSend(ASORCH_CHAN_FES, buf, 16u + n * (uint32_t)sizeof(ExPackedRec));
}

/* Records that are not keyed state: ARP probes (at once, DAM) or interface statistics (UP). */
static int ExSendUnmerged(uint8_t *buf, int arp)
{
    uint32_t size = g_run.opt.recordSize;
    uint32_t n = ExBurst(size, EX_HDR_SIZE);
    if (n > ExRemaining()) {
        n = (uint32_t)ExRemaining();
    }
    ExWr32(buf, arp ? EX_MSG_ARP_PROBE : EX_MSG_IF_STATS);
    ExWr32(buf + 4, n);
    for (uint32_t i = 0; i < n; i++) {
        ExRecord r = {ExRandBelow(1u << 20), arp ? EX_TAG_ARP : EX_TAG_STATS, 1u, (uint32_t)++g_run.broker.seq, 0u,
                      (uint32_t)ExRand(), 0u};
        ExRecordFill(buf + EX_HDR_SIZE + (size_t)i * size, size, &r);
    }
    if (arp) {
        g_run.broker.offeredImmediate += n;
        return ExBrokerSend(ASORCH_CHAN_DAM, buf, EX_HDR_SIZE + n * size);
    }
    g_run.broker.offeredUserDef += n;
    return ExBrokerSend(ASORCH_CHAN_UP, buf, EX_HDR_SIZE + n * size);
}

static uint8_t *ExPutTlv(uint8_t *p, uint32_t tableId, uint32_t type, uint32_t len)
{
    ExWr32(p, tableId);
    ExWr32(p + 4, type);
    ExWr32(p + 8, len);
    return p + 12;
}

/* A transfer message on UP: a DAM-layout table, a FES-layout table and a composite table. */
static int ExSendTables(uint8_t *buf)
{
    uint32_t salt = (uint32_t)ExRand();
    uint32_t damN = 1u + ExRandBelow(32u);
    uint32_t fesN = 1u + ExRandBelow(32u);
    uint32_t compN = ExRandBelow(8u);
    uint8_t *p = buf + 12;
    p = ExPutTlv(p, EX_TBL_DAM, 1u, damN * EX_DAM_ENTRY_SIZE);
    ExFillEntries(p, EX_TBL_DAM, salt, damN, EX_DAM_ENTRY_SIZE);
    p += damN * EX_DAM_ENTRY_SIZE;
    p = ExPutTlv(p, EX_TBL_FES, 1u, 8u + fesN * EX_FES_ENTRY_SIZE);
    ExWr32(p, 0u);
    ExWr32(p + 4, fesN * EX_FES_ENTRY_SIZE);
    ExFillEntries(p + 8, EX_TBL_FES, salt, fesN, EX_FES_ENTRY_SIZE);
    p += 8u + fesN * EX_FES_ENTRY_SIZE;
    p = ExPutTlv(p, EX_TBL_COMP, 18u + (salt & 1u), compN * 16u);
    ExFillEntries(p, EX_TBL_COMP, salt, compN, 16u);
    p += compN * 16u;
    uint32_t total = (uint32_t)(p - buf);
    ExWr32(buf, EX_MSG_TRANS_TABLES);
    ExWr32(buf + 4, 3u);
    ExWr32(buf + 8, total - 12u);
    g_run.broker.damEntries += damN;
    g_run.broker.fesEntries += fesN;
    g_run.broker.compTables++;
    return ExBrokerSend(ASORCH_CHAN_UP, buf, total);
}

static uint8_t *ExPutItem(uint8_t *p, uint32_t type, uint32_t len, uint32_t tableId, uint32_t salt)
{
    ExWr32(p, type);
    ExWr32(p + 4, len);
    ExWr32(p + 8, tableId);
    for (uint32_t off = 12u; off < len; off += 4u) {
        ExWr32(p + off, ExMix(salt, off));
    }
    return p + len;
}

/* A transfer message on EVT: smoothing items for the platform's entry points and for the
 * module's own smoothing. */
static int ExSendSmoothing(uint8_t *buf)
{
    uint32_t salt = (uint32_t)ExRand();
    uint8_t *p = buf + 12;
    uint8_t *tlv = p;
    p += 12;
    p = ExPutItem(p, ASORCH_SMOOTH_CLASS_BEGIN, 16u, EX_TBL_SMOOTH_PLAT, salt);
    p = ExPutItem(p, ASORCH_SMOOTH_PID_STATE, 20u, EX_TBL_SMOOTH_PLAT, salt);
    p = ExPutItem(p, ASORCH_SMOOTH_VRF_STATE, 32u, EX_TBL_SMOOTH_PLAT, salt);
    p = ExPutItem(p, ASORCH_SMOOTH_VRF_DATA_BEGIN, 28u, EX_TBL_SMOOTH_PLAT, salt);
    p = ExPutItem(p, ASORCH_SMOOTH_VRF_DATA_END, 28u, EX_TBL_SMOOTH_PLAT, salt);
    p = ExPutItem(p, ASORCH_SMOOTH_CLASS_END, 16u, EX_TBL_SMOOTH_PLAT, salt);
    p = ExPutItem(p, ASORCH_SMOOTH_DAM_CLASS, 16u, EX_TBL_SMOOTH_PLAT, salt);
    ExPutTlv(tlv, EX_TBL_SMOOTH_PLAT, 5u, (uint32_t)(p - tlv) - 12u);
    tlv = p;
    p += 12;
    p = ExPutItem(p, ASORCH_SMOOTH_CLASS_BEGIN, 16u, EX_TBL_SMOOTH_OWN, salt);
    p = ExPutItem(p, ASORCH_SMOOTH_LR_CLASS, 16u, EX_TBL_SMOOTH_OWN, salt);
    p = ExPutItem(p, ASORCH_SMOOTH_LR_CLASS2, 16u, EX_TBL_SMOOTH_OWN, salt);
    p = ExPutItem(p, ASORCH_SMOOTH_PID_STATE, 20u, EX_TBL_SMOOTH_OWN, salt);
    p = ExPutItem(p, ASORCH_SMOOTH_DAM_CLASS2, 16u, EX_TBL_SMOOTH_OWN, salt);
    p = ExPutItem(p, ASORCH_SMOOTH_CLASS_END, 16u, EX_TBL_SMOOTH_OWN, salt);
    ExPutTlv(tlv, EX_TBL_SMOOTH_OWN, 6u, (uint32_t)(p - tlv) - 12u);
    uint32_t total = (uint32_t)(p - buf);
    ExWr32(buf, EX_MSG_TRANS_SMOOTH);
    ExWr32(buf + 4, 2u);
    ExWr32(buf + 8, total - 12u);
    g_run.broker.smoothPre += 7u;      /* every item of the first table */
    g_run.broker.platformEntries += 6u; /* all but the DAM class item */
    g_run.broker.smoothOwn += 6u;      /* every item of the second table */
    return ExBrokerSend(ASORCH_CHAN_EVT, buf, total);
}

/* ------------------------------------------------------------------------------------ */
/* Progress and results                                                                   */
/* ------------------------------------------------------------------------------------ */

static uint64_t ExLoad(atomic_uint_fast64_t *a)
{
    return (uint64_t)atomic_load_explicit(a, memory_order_relaxed);
}

static uint64_t ExOfferedKeyed(void)
{
    return g_run.broker.offered[EX_T_DAM] + g_run.broker.offered[EX_T_FES];
}

static uint64_t ExAccountedKeyed(void)
{
    return ExLoad(&g_run.cnt.delivered[EX_T_DAM]) + ExLoad(&g_run.cnt.delivered[EX_T_FES]) +
           ExLoad(&g_run.cnt.coalesced[EX_T_DAM]) + ExLoad(&g_run.cnt.coalesced[EX_T_FES]);
}

static uint64_t ExDeliveredAll(void)
{
    return ExLoad(&g_run.cnt.delivered[EX_T_DAM]) + ExLoad(&g_run.cnt.delivered[EX_T_FES]) +
           ExLoad(&g_run.cnt.immediate) + ExLoad(&g_run.cnt.userDefRecords);
}

static void ExProgress(double start)
{
    double t = ExNow() - start;
    uint64_t in = ExOfferedKeyed() + g_run.broker.offeredImmediate + g_run.broker.offeredUserDef;
    uint64_t done = ExAccountedKeyed() + ExLoad(&g_run.cnt.immediate) + ExLoad(&g_run.cnt.userDefRecords);
    uint64_t coalesced = ExLoad(&g_run.cnt.coalesced[EX_T_DAM]) + ExLoad(&g_run.cnt.coalesced[EX_T_FES]);
    printf("\r  in %10" PRIu64 "  pending %8" PRIu64 "  coalesced %10" PRIu64 "  delivered %10" PRIu64
           "  %9.0f rec/s ",
           in, in >= done ? in - done : 0u, coalesced, ExDeliveredAll(), t > 0.0 ? (double)in / t : 0.0);
    fflush(stdout);
}

/* All offered work has come out on the module's side. */
static int ExAllAccounted(void)
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

static int g_exFailures;

static void ExCheck(int ok, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
static void ExCheck(int ok, const char *fmt, ...)
{
    if (ok) {
        return;
    }
    g_exFailures++;
    va_list ap;
    va_start(ap, fmt);
    fputs("CHECK FAILED: ", stdout);
    vprintf(fmt, ap);
    fputc('\n', stdout);
    va_end(ap);
}

/* Per key: every offer came out once (delivered or absorbed), and the last state delivered
 * is the last state offered, on the module and, for synced keys, on the peer. */
static void ExCheckKeys(void)
{
    static const char *const names[EX_T_NUM] = {"DAM", "FES"};
    for (int t = 0; t < EX_T_NUM; t++) {
        ExTableBooks *b = &g_run.books[t];
        uint32_t badVer = 0, badState = 0, badPeer = 0, stillPending = 0;
        for (uint32_t k = 0; k < g_run.opt.keys; k++) {
            int exists = b->offerVer[k] != 0u && b->lastOfferedOp[k] == 0u;
            uint32_t state = exists ? b->lastOfferedState[k] : 0u;
            badVer += b->deliveredVer[k] != b->offerVer[k];
            badState += b->modelExists[k] != exists || b->modelState[k] != state;
            stillPending += b->pending[k] != 0u;
            if (k % g_run.opt.syncEvery == 0u) {
                badPeer += b->peerExists[k] != exists || b->peerState[k] != state;
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
        {
            ExCheck(ExStatFromText(buf, "Success Merge", &merges[i]) == 0 &&
                        ExStatFromText(buf, "MergeQue HistoryMaxCnt", &maxCnt[i]) == 0,
                    "statistics of %s not readable", queues[i]);
        }
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

/* ------------------------------------------------------------------------------------ */
/* Main                                                                                   */
/* ------------------------------------------------------------------------------------ */

static int ExAllocBooks(void)
{
    uint32_t n = g_run.opt.keys;
    for (int t = 0; t < EX_T_NUM; t++) {
        ExTableBooks *b = &g_run.books[t];
        b->offerVer = calloc(n, sizeof(uint32_t));
        b->lastOfferedOp = calloc(n, sizeof(uint32_t));
        b->lastOfferedState = calloc(n, sizeof(uint32_t));
        b->deliveredVer = calloc(n, sizeof(uint32_t));
        b->modelState = calloc(n, sizeof(uint32_t));
        b->modelExists = calloc(n, 1);
        b->pending = calloc(n, 1);
        b->peerExists = calloc(n, 1);
        b->peerState = calloc(n, sizeof(uint32_t));
        if (b->offerVer == NULL || b->lastOfferedOp == NULL || b->lastOfferedState == NULL ||
            b->deliveredVer == NULL || b->modelState == NULL || b->modelExists == NULL || b->pending == NULL ||
            b->peerExists == NULL || b->peerState == NULL) {
            return -1;
        }
    }
    return 0;
}

static void ExFreeBooks(void)
{
    for (int t = 0; t < EX_T_NUM; t++) {
        ExTableBooks *b = &g_run.books[t];
        free(b->offerVer);
        free(b->lastOfferedOp);
        free(b->lastOfferedState);
        free(b->deliveredVer);
        free(b->modelState);
        free(b->modelExists);
        free(b->pending);
        free(b->peerExists);
        free(b->peerState);
    }
    free(g_run.zipfCdf);
}

static ASOrchHandle *ExCreate(const char *name)
{
    ASOrchCreatePara cp = {0u, 0u, ExAlloc, ExFree, 0u};
    ASOrchHandle *h = ASOrchCreate(name, &cp);
    if (h == NULL) {
        ExError("ASOrchCreate(%s) failed", name);
    }
    return h;
}

/* Offers the traffic until the records are used up or the duration is over. */
static void ExRunBroker(double start, int tty)
{
    uint8_t *buf = malloc(EX_MAX_BODY);
    if (buf == NULL) {
        ExError("no memory for the broker");
        return;
    }
    double deadline = g_run.opt.duration > 0.0 ? start + g_run.opt.duration : 0.0;
    double nextShow = start;
    uint64_t iter = 0;
    while (ExRemaining() > 0u) {
        uint32_t pick = ExRandBelow(100u);
        int r;
        if (pick < 45u) {
            r = ExSendRoutes(buf);
        } else if (pick < 80u) {
            r = ExSendNextHops(buf);
        } else if (pick < 86u) {
            r = ExSendUnmerged(buf, 1);
        } else if (pick < 94u) {
            r = ExSendUnmerged(buf, 0);
        } else if (pick < 99u) {
            r = ExSendTables(buf);
        } else {
            r = ExSendSmoothing(buf);
        }
        if (r != 0) {
            break;
        }
        if ((++iter & 63u) == 0u) {
            double now = ExNow();
            if (deadline > 0.0 && now > deadline) {
                break;
            }
            if (tty && now >= nextShow) {
                ExProgress(start);
                nextShow = now + 0.2;
            }
        }
    }
    free(buf);
}

/* Waits until the module has handled everything offered (or nothing moves for 10 s). */
static void ExDrain(double start, int tty)
{
    uint64_t last = ~(uint64_t)0;
    double stuckSince = ExNow();
    while (!ExAllAccounted()) {
        (void)RIX_TEST_EalWaitIdle(g_run.modEal, ASORCH_THREAD_DATA, 200u);
        (void)RIX_TEST_EalWaitIdle(g_run.modEal, ASORCH_THREAD_EVENT, 200u);
        uint64_t now = ExAccountedKeyed() + ExLoad(&g_run.cnt.immediate) + ExLoad(&g_run.cnt.userDefRecords);
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
    g_run.rng = g_run.opt.seed * 0x9E3779B97F4A7C15ULL + 0x632BE59BD9B4E019ULL;
    if (pthread_mutex_init(&g_run.peerLock, NULL) != 0 || ExAllocBooks() != 0 || ExBuildZipf() != 0) {
        fprintf(stderr, "example_module: out of memory for %u keys\n", g_run.opt.keys);
        ExFreeBooks();
        return 1;
    }
    int tty = isatty(STDOUT_FILENO);
    /* The platform's diagnostic lines are kept and summarised, not printed. */
    RIX_TEST_LogCapture(1);

    static ExRegTables modTables;
    static ExRegTables peerTables;
    int ok = 0;
    g_run.mod = ExCreate("EXMOD");
    g_run.peer = ExCreate("EXPEER");
    if (g_run.mod != NULL && g_run.peer != NULL && ExRegisterModule(g_run.mod, &modTables) == 0 &&
        ExRegisterPeer(g_run.peer, &peerTables) == 0) {
        g_run.modEal = ASOrchGetEalHdl(g_run.mod);
        g_run.peerEal = ASOrchGetEalHdl(g_run.peer);
        for (uint32_t c = 0; c < ASORCH_CHAN_NUM; c++) {
            RIX_TEST_ChanSetRecv(g_run.modEal, c, ExChanRecv, g_run.mod);
        }
        RIX_TEST_EalSetSyncPeer(g_run.modEal, ExPeerRecv, NULL);
        /* The peer is initialised but never started: its loop runs when data arrives. */
        ok = ASOrchInit(g_run.peer) == 0u && ASOrchInit(g_run.mod) == 0u && ASOrchStart(g_run.mod) == 0u;
        if (!ok) {
            ExError("initialising or starting the orchestrators failed");
        } else {
            (void)ASOrchModInitOk(g_run.mod);
        }
    }

    printf("example_module: %" PRIu64 " records over %u keys per table (skew %.2f), %u-byte records, "
           "bursts of up to %u\n",
           g_run.opt.records, g_run.opt.keys, g_run.opt.skew, g_run.opt.recordSize, g_run.opt.maxBurst);
    double start = ExNow();
    double offerTime = 0.0, wall = 0.0;
    uint64_t merges[4] = {0, 0, 0, 0}, maxCnt[4] = {0, 0, 0, 0};
    uint32_t presses[2] = {0, 0}, releases[2] = {0, 0};
    uint32_t entryCalls = 0;
    if (ok) {
        ExRunBroker(start, tty);
        offerTime = ExNow() - start;
        ExDrain(start, tty);
        wall = ExNow() - start;
        pthread_mutex_lock(&g_run.peerLock);
        (void)RIX_TEST_EalRunUntilIdle(g_run.peerEal, ASORCH_THREAD_DATA);
        pthread_mutex_unlock(&g_run.peerLock);
        if (tty) {
            ExProgress(start);
            printf("\n");
        }
        for (uint32_t c = 0; c < 2u; c++) {
            presses[c] = RIX_TEST_ChanBackPressCount(g_run.modEal, c, &releases[c]);
        }
        entryCalls = RIX_TEST_EntryCount();
    }

    uint64_t offered = ExOfferedKeyed() + g_run.broker.offeredImmediate + g_run.broker.offeredUserDef;
    uint64_t coalesced = ExLoad(&g_run.cnt.coalesced[EX_T_DAM]) + ExLoad(&g_run.cnt.coalesced[EX_T_FES]);
    uint64_t delivered = ExDeliveredAll();
    uint64_t synced = ExLoad(&g_run.cnt.synced[EX_T_DAM]) + ExLoad(&g_run.cnt.synced[EX_T_FES]);
    printf("\n== summary ==\n");
    printf("records offered       : %" PRIu64 " (DAM routes %" PRIu64 ", FES next hops %" PRIu64
           ", ARP probes %" PRIu64 ", interface statistics %" PRIu64 ")\n",
           offered, g_run.broker.offered[EX_T_DAM], g_run.broker.offered[EX_T_FES], g_run.broker.offeredImmediate,
           g_run.broker.offeredUserDef);
    printf("messages sent         : DAM %" PRIu64 ", FES %" PRIu64 ", UP %" PRIu64 ", EVT %" PRIu64 "\n",
           g_run.broker.messages[0], g_run.broker.messages[1], g_run.broker.messages[2], g_run.broker.messages[3]);
    printf("records coalesced     : %" PRIu64 " (DAM %" PRIu64 ", FES %" PRIu64 ")\n", coalesced,
           ExLoad(&g_run.cnt.coalesced[EX_T_DAM]), ExLoad(&g_run.cnt.coalesced[EX_T_FES]));
    printf("records delivered     : %" PRIu64 " (opType 0: %" PRIu64 ", 1: %" PRIu64 ", 2: %" PRIu64 ", 3: %" PRIu64
           "; at once %" PRIu64 "; user-defined %" PRIu64 " in %" PRIu64 " calls)\n",
           delivered, ExLoad(&g_run.cnt.deliveredByOp[0]), ExLoad(&g_run.cnt.deliveredByOp[1]),
           ExLoad(&g_run.cnt.deliveredByOp[2]), ExLoad(&g_run.cnt.deliveredByOp[3]), ExLoad(&g_run.cnt.immediate),
           ExLoad(&g_run.cnt.userDefRecords), ExLoad(&g_run.cnt.userDefCalls));
    printf("back-pressure         : DAM %u presses / %u releases, FES %u / %u; broker paused %" PRIu64
           " times, retried %" PRIu64 " writes\n",
           presses[0], releases[0], presses[1], releases[1], g_run.broker.backPressWaits, g_run.broker.deliverRetries);
    printf("peak pending entries  : DAM %" PRIu64 ", FES %" PRIu64 " (water marks %u/%u and %u/%u)\n",
           g_run.books[EX_T_DAM].peakPending, g_run.books[EX_T_FES].peakPending, EX_DAM_HIGH_WATER, EX_DAM_LOW_WATER,
           EX_FES_HIGH_WATER, EX_FES_LOW_WATER);
    printf("synced to peer        : %" PRIu64 " records (group 0 %" PRIu64 ", group 2 %" PRIu64
           "); peer received %" PRIu64 ", delivered %" PRIu64 "\n",
           synced, ExLoad(&g_run.cnt.synced[EX_T_DAM]), ExLoad(&g_run.cnt.synced[EX_T_FES]),
           ExLoad(&g_run.cnt.peerReceived), ExLoad(&g_run.cnt.peerDelivered));
    printf("transfer tables       : DAM entries %" PRIu64 ", FES entries %" PRIu64 ", composite %" PRIu64
           "; smoothing: pre %" PRIu64 ", own %" PRIu64 ", platform entries %u\n",
           ExLoad(&g_run.cnt.damEntries), ExLoad(&g_run.cnt.fesEntries), ExLoad(&g_run.cnt.compTables),
           ExLoad(&g_run.cnt.smoothPre), ExLoad(&g_run.cnt.smoothOwn), entryCalls);
    printf("wall time             : %.3f s (offering %.3f s); %.0f records/s offered, %.0f delivered/s\n", wall,
           offerTime, offerTime > 0.0 ? (double)offered / offerTime : 0.0,
           wall > 0.0 ? (double)delivered / wall : 0.0);
    printf("module memory         : peak %" PRIdFAST64 " bytes in use\n",
           atomic_load_explicit(&g_exPeakBytes, memory_order_relaxed));

    if (ok) {
        ExPrintDiagnostics(merges, maxCnt);
        printf("\n");
        ExPrintLogSummary();
        ExCheck(ExAllAccounted(), "not everything offered came out");
        ExCheck(ExAccountedKeyed() == ExOfferedKeyed(),
                "keyed records: %" PRIu64 " offered, %" PRIu64 " delivered or coalesced", ExOfferedKeyed(),
                ExAccountedKeyed());
        ExCheckKeys();
        for (int t = 0; t < EX_T_NUM; t++) {
            ExCheck(merges[t] == ExLoad(&g_run.cnt.coalesced[t]),
                    "queue %d counted %" PRIu64 " merges, the module %" PRIu64 " coalesced records", t, merges[t],
                    ExLoad(&g_run.cnt.coalesced[t]));
            ExCheck(maxCnt[t] == g_run.books[t].peakPending,
                    "queue %d peaked at %" PRIu64 " entries, the module counted %" PRIu64, t, maxCnt[t],
                    g_run.books[t].peakPending);
        }
        ExCheck(ExLoad(&g_run.cnt.peerDelivered) + merges[2] + merges[3] == ExLoad(&g_run.cnt.peerReceived),
                "peer: %" PRIu64 " received, %" PRIu64 " delivered, %" PRIu64 " merged", ExLoad(&g_run.cnt.peerReceived),
                ExLoad(&g_run.cnt.peerDelivered), merges[2] + merges[3]);
        ExCheck(ExLoad(&g_run.cnt.unpackCalls) == ExLoad(&g_run.cnt.unpackFrees),
                "unpack called %" PRIu64 " times, released %" PRIu64, ExLoad(&g_run.cnt.unpackCalls),
                ExLoad(&g_run.cnt.unpackFrees));
        ExCheck(entryCalls == g_run.broker.platformEntries, "platform smoothing entries: %u, expected %" PRIu64,
                entryCalls, g_run.broker.platformEntries);
        ExCheck(synced == ExLoad(&g_run.cnt.peerReceived) && ExLoad(&g_run.cnt.syncFailed) == 0u,
                "synced %" PRIu64 ", peer received %" PRIu64 ", %" PRIu64 " sends failed", synced,
                ExLoad(&g_run.cnt.peerReceived), ExLoad(&g_run.cnt.syncFailed));
        if (presses[0] + presses[1] == 0u) {
            printf("note: no back-pressure in this run (too few records or keys to pass a high water mark)\n");
        }
        ExCheck(presses[0] == releases[0] && presses[1] == releases[1], "a channel is still back-pressed");
    }

    if (!ok) {
        ExPrintLogSummary();
    }
    if (g_run.mod != NULL) {
        ASOrchDestroy(g_run.mod);
    }
    if (g_run.peer != NULL) {
        ASOrchDestroy(g_run.peer);
    }
    uint64_t allocs = (uint64_t)atomic_load(&g_exAllocs), frees = (uint64_t)atomic_load(&g_exFrees);
    printf("module allocator      : %" PRIu64 " blocks allocated, %" PRIu64 " released, %" PRIdFAST64
           " bytes left\n",
           allocs, frees, atomic_load(&g_exLiveBytes));
    ExCheck(ok, "the orchestrators could not be set up");
    ExCheck(allocs == frees && atomic_load(&g_exLiveBytes) == 0, "the module allocator does not balance");
    ExCheck(atomic_load(&g_run.cnt.errors) == 0u, "%" PRIuFAST64 " processing errors (first ones on stderr)",
            atomic_load(&g_run.cnt.errors));
    ExCheck(RIX_TEST_EalLiveCount() == 0u, "abstraction-layer instances left alive");
    ExFreeBooks();
    pthread_mutex_destroy(&g_run.peerLock);
    printf("RESULT: %s\n", g_exFailures == 0 ? "OK" : "FAILED");
    return g_exFailures == 0 ? 0 : 1;
}
