/* The peer "EXPEER": a second orchestrator in the same process, the other end of EXMOD's sync
 * groups. It feeds what EXMOD syncs into its own merge path and books the state per key, so
 * that the report can compare it with the last state offered. */
#include "record.h"

#include <stdatomic.h>
#include <stdint.h>
#include <string.h>

#include "rix_platform_test.h"

static uint32_t ExPeerProc(ASOrchHandle *handle, ASOrchMsgVec *vec, uint32_t slotOp)
{
    ExRecord rec;
    int t = vec->msgId == EX_MMSG_ROUTE ? EX_T_DAM : vec->msgId == EX_MMSG_NHP ? EX_T_FES : -1;
    if (handle != g_run.peer || t < 0 || vec->opType != slotOp || vec->keyLen != EX_KEY_SIZE ||
        ExRecordVerify(vec->data, vec->dataLen, &rec) != 0 || rec.tag != ExTableTag(t) || rec.key >= g_run.opt.keys ||
        memcmp(vec->key, vec->data, EX_KEY_SIZE) != 0) {
        ExError("peer: corrupt vector msgId 0x%x opType %u", vec->msgId, vec->opType);
        return 1u;
    }
    ExKeyBook *k = &g_run.books[t].keys[rec.key];
    k->peerExists = slotOp != 1u;
    k->peerState = slotOp != 1u ? rec.state : 0u;
    atomic_fetch_add_explicit(&g_run.cnt.peerDelivered, 1u, memory_order_relaxed);
    return 0u;
}

static uint32_t ExPeerOp0(ASOrchHandle *h, ASOrchMsgVec *v)
{
    return ExPeerProc(h, v, 0u);
}
static uint32_t ExPeerOp1(ASOrchHandle *h, ASOrchMsgVec *v)
{
    return ExPeerProc(h, v, 1u);
}
static uint32_t ExPeerOp2(ASOrchHandle *h, ASOrchMsgVec *v)
{
    return ExPeerProc(h, v, 2u);
}

static uint32_t ExPeerDamHash(const void *key)
{
    return ASOrchMergeHashFunc(g_run.peer, ASORCH_CHAN_DAM, key);
}

static uint32_t ExPeerFesHash(const void *key)
{
    return ASOrchMergeHashFunc(g_run.peer, ASORCH_CHAN_FES, key);
}

static ASOrchMergeMsg g_peerDamMsgs[] = {{EX_MMSG_ROUTE, {ExPeerOp0, ExPeerOp1, ExPeerOp2, NULL}}};
static ASOrchMergeMsg g_peerFesMsgs[] = {{EX_MMSG_NHP, {ExPeerOp0, ExPeerOp1, ExPeerOp2, NULL}}};

/* Only the DATA thread, sync group 0 and one channel (the least the registration takes):
 * the peer never receives from a broker. */
int ExRegisterPeer(ASOrchHandle *h)
{
    ASOrchBasePara bp;
    memset(&bp, 0, sizeof(bp));
    if (ASOrchThreadSet(&bp.threadMask, 1u, ASORCH_THREAD_DATA) != 0u) {
        ExError("ASOrchThreadSet refused DATA");
        return -1;
    }
    bp.syncGrpMsgSet[0] = 0x0101u;
    bp.chanPort[ASORCH_CHAN_UP].realServerPort = 0x1FA0u;
    /* Default water marks: the peer keeps up by construction. */
    bp.mergeMque[0] = (ASOrchMergeReg){g_peerDamMsgs, 1u, 0u, ExPeerDamHash, 0u, 0u};
    bp.mergeMque[1] = (ASOrchMergeReg){g_peerFesMsgs, 1u, 0u, ExPeerFesHash, 0u, 0u};
    if (ASOrchRegBase(h, &bp) != 0u) {
        ExError("ASOrchRegBase failed for EXPEER");
        return -1;
    }
    return 0;
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

/* The peer is not started: its DATA loop runs here, under the peer lock, until its queues
 * are empty. */
void ExPeerRunIdle(void)
{
    pthread_mutex_lock(&g_run.peerLock);
    (void)RIX_TEST_EalRunUntilIdle(g_run.peerEal, ASORCH_THREAD_DATA);
    pthread_mutex_unlock(&g_run.peerLock);
}

/* Called by the layer, on the sending thread, with a copy of what EXMOD synced. */
void ExPeerRecv(void *ctx, uint32_t grpId, const RIX_EAL_SyncItem *items, uint32_t count)
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
