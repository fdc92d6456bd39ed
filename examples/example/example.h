/* Shared by the parts of the example program: the message layout that the broker and the
 * module agree on, the run's options and books, and what each part offers the others.
 * module.c is the module itself; the other files only drive and check it. */
#ifndef RIX_EXAMPLE_H
#define RIX_EXAMPLE_H

/* Each part includes this first: monotonic clock, nanosleep and threads are POSIX. */
#define _POSIX_C_SOURCE 200809L

#include <pthread.h>
#include <stdatomic.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <time.h>

#include "rix_autosync_orch.h"
#include "rix_eal.h"

/* ---- Wire layout shared by the broker and the module ---- */

/* Every body starts with the broker's 8-byte header: message id, record or item count. */
#define EX_HDR_SIZE 8u
#define EX_MAX_BODY 16384u

/* Table messages (receive registry). */
#define EX_MSG_ROUTE_ADD 0x00010001u /* DAM, plain records, merged */
#define EX_MSG_ROUTE_DEL 0x00010002u /* DAM, plain records, merged */
#define EX_MSG_ARP_PROBE 0x00010003u /* DAM, plain records, processed at once */
#define EX_MSG_NHP_ADD 0x00010011u   /* FES, serially packed, merged */
#define EX_MSG_NHP_DEL 0x00010012u   /* FES, serially packed, merged */
#define EX_MSG_IF_STATS 0x00010021u  /* UP, plain records, user-defined processing */

/* Ids under which records travel through the merge layer. */
#define EX_MMSG_ROUTE 0x00020001u
#define EX_MMSG_ARP 0x00020003u
#define EX_MMSG_NHP 0x00020011u

/* Operation types that the serial unpack reports. */
#define EX_NHP_ADD_OPTYPE 0x11u
#define EX_NHP_DEL_OPTYPE 0x12u

/* Transfer messages and their tables. */
#define EX_MSG_TRANS_TABLES (ASORCH_TRANS_MSGID_BASE + 1u)
#define EX_MSG_TRANS_SMOOTH (ASORCH_TRANS_MSGID_BASE + 2u)
#define EX_TBL_DAM 0x101u
#define EX_TBL_COMP 0x103u
#define EX_TBL_FES 0x201u
#define EX_TBL_SMOOTH_PLAT 0x301u /* pre-callback, then the platform's entry points */
#define EX_TBL_SMOOTH_OWN 0x302u  /* the module's own smoothing replaces the platform's */
#define EX_DAM_ENTRY_SIZE 32u
#define EX_FES_ENTRY_SIZE 24u

/* Tables of keyed records; a key is {index, table tag}. */
enum { EX_T_DAM = 0, EX_T_FES = 1, EX_T_NUM = 2 };
#define EX_TAG_DAM 0xDA000001u
#define EX_TAG_FES 0xFE000001u
#define EX_TAG_ARP 0xA0000001u
#define EX_TAG_STATS 0x5A000001u
#define EX_KEY_SIZE 8u

/* A record as the module stores it (recordSize bytes; the rest is a check pattern). */
typedef struct ExRecord {
    uint32_t key;
    uint32_t tag;
    uint32_t keyVer; /* n-th offer of this key, from 1 */
    uint32_t seq;    /* global offer sequence */
    uint32_t op;     /* as offered: 0 add, 1 delete */
    uint32_t state;
    uint32_t check;
} ExRecord;
#define EX_REC_MIN_SIZE 32u
#define EX_REC_MAX_SIZE 4096u

/* A serially packed record: what the broker sends on FES, expanded by the unpack. The body
 * is {msgId, count} {opType, 0}, then the packed records. */
#define EX_PACKED_HDR_SIZE 16u
typedef struct ExPackedRec {
    uint32_t key;
    uint32_t keyVer;
    uint32_t seq;
    uint32_t state;
} ExPackedRec;

/* What the module syncs: the delivered operation type, then the record. */
#define EX_SYNC_HDR 8u

/* Water marks of the module's queues: low enough that a default run back-presses its channels. */
#define EX_DAM_HIGH_WATER 1024u
#define EX_DAM_LOW_WATER 256u
#define EX_FES_HIGH_WATER 512u
#define EX_FES_LOW_WATER 128u

/* ---- The run ---- */

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

/* Books of one key. Broker side: main thread. Module side: DATA thread. Peer side: whoever
 * holds the peer lock. Read together only once all is idle. */
typedef struct ExKeyBook {
    uint32_t offerVer;
    uint32_t lastOfferedOp;
    uint32_t lastOfferedState;
    uint32_t deliveredVer;
    uint32_t modelState;
    uint32_t peerState;
    uint8_t modelExists;
    uint8_t pending;
    uint8_t peerExists;
} ExKeyBook;

typedef struct ExTableBooks {
    ExKeyBook *keys;         /* by key index */
    uint64_t pendingEntries; /* DATA thread */
    uint64_t peakPending;    /* DATA thread */
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
    atomic_uint_fast64_t peerMergeFailed;
    atomic_uint_fast64_t msgProcFailed;
    atomic_uint_fast64_t unpackCalls;
    atomic_uint_fast64_t unpackFrees;
    atomic_uint_fast64_t notifyCalls;
    atomic_uint_fast64_t errors;
    atomic_uint_fast64_t allocs; /* the orchestrators' allocator */
    atomic_uint_fast64_t frees;
    atomic_int_fast64_t liveBytes;
    atomic_int_fast64_t peakBytes;
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

extern ExRun g_run;

static inline uint32_t ExRd32(const void *p)
{
    uint32_t v;
    memcpy(&v, p, sizeof(v));
    return v;
}

static inline void ExWr32(void *p, uint32_t v)
{
    memcpy(p, &v, sizeof(v));
}

static inline double ExNow(void)
{
    struct timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return (double)ts.tv_sec + (double)ts.tv_nsec * 1e-9;
}

/* ---- module.c: the module "EXMOD" ---- */
ASOrchHandle *ExCreate(const char *name);
int ExRegisterModule(ASOrchHandle *h);
int ExStartModule(ASOrchHandle *h);
void ExChanRecv(void *ctx, uint32_t chanNo, const void *msg, uint32_t len);

/* ---- peer.c: the peer "EXPEER", the other end of the sync groups ---- */
int ExRegisterPeer(ASOrchHandle *h);
void ExPeerRecv(void *ctx, uint32_t grpId, const RIX_EAL_SyncItem *items, uint32_t count);
void ExPeerRunIdle(void);

/* ---- broker.c: traffic through the module's channels ---- */
int ExBrokerInit(void);
void ExBrokerFree(void);
void ExRunBroker(double start, int tty);

/* ---- main.c: the orchestrators' allocator ---- */
void *ExAlloc(uint32_t size);
void ExFree(void *ptr);

/* ---- report.c: the books, the checks and what is printed ---- */
void ExError(const char *fmt, ...) __attribute__((format(printf, 1, 2)));
void ExCheck(int ok, const char *fmt, ...) __attribute__((format(printf, 2, 3)));
int ExAllocBooks(void);
void ExFreeBooks(void);
void ExNotePending(uint32_t msgId, const uint8_t *body, uint32_t len);
int ExBookDelivered(int table, const ExRecord *rec, uint32_t opType);
uint64_t ExOfferedAll(void);
uint64_t ExAccountedAll(void);
int ExAllAccounted(void);
void ExProgress(double start);
void ExReport(int ok, double offerTime, double wall);
int ExFinish(int ok);

#endif
