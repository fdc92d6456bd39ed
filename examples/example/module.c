/* The module "EXMOD": the part of the example that a module author copies.
 *
 * Read top to bottom: the functions the orchestrator calls back (what each receives and what
 * it may rely on), the registration record that names them, and bringing the orchestrator up.
 * Everything is processed on the DATA thread, where the DAM, FES and UP channels deliver; the
 * EVT channel delivers on the EVENT thread.
 *
 * What the module does with a record here is the example's own bookkeeping (report.c) and a
 * copy to the peer for some keys; a real module programs its tables instead. The broker
 * (broker.c) feeds the channels and the peer (peer.c) receives the syncs. */
#include "record.h"

#include <stdatomic.h>
#include <stdint.h>
#include <string.h>

/* Merge types: 0 to 3 go through a queue, bit 0 choosing it (0 DAM, 1 FES) and 2 or 3 moving
 * an updated entry to the tail; 4 is processed at once from the DAM message table, 5 and up
 * from the FES one. With a user-defined function it is only that function's procParam. */
#define EX_MT_ROUTE 0u /* DAM queue, an update keeps its place */
#define EX_MT_NHP 3u   /* FES queue, an update moves to the tail */
#define EX_MT_ARP 4u   /* at once, DAM message table */
#define EX_MT_STATS 5u /* handed to the user-defined function as procParam */

/* procParam of the transfer tables: comes back to the table function in its info. */
#define EX_PROCPARAM_DAM 0xD0u
#define EX_PROCPARAM_FES 0xF0u
#define EX_PROCPARAM_COMP 0xC0u

static void ExRelaxedAdd(atomic_uint_fast64_t *counter, uint64_t n)
{
    atomic_fetch_add_explicit(counter, n, memory_order_relaxed);
}

/* ---- Sync: a copy of delivered data for the peer ---- */

/* The layer copies the item, so a buffer on the stack will do. */
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
        ExRelaxedAdd(&g_run.cnt.syncFailed, 1u);
        ExError("ASOrchSyncMsg to group %u failed with %u", grp, r);
        return;
    }
    ExRelaxedAdd(&g_run.cnt.synced[table], 1u);
}

/* ---- Records out of the merge layer ---- */

/* A record comes out of the DAM or FES queue. One function per opType slot; after merging, a
 * key's record arrives once, with the opType that the merge rules left (0 add or set, 1
 * delete, 2 delete then set). key points at the record's first keySize bytes and data at the
 * whole record; both are released after the call returns. */
static uint32_t ExMergedProc(ASOrchHandle *handle, ASOrchMsgVec *vec, uint32_t slotOp)
{
    ExRecord rec;
    if (handle != g_run.mod || vec->opType != slotOp || vec->keyLen != EX_KEY_SIZE || vec->key == NULL ||
        vec->data == NULL || ExRecordVerify(vec->data, vec->dataLen, &rec) != 0 ||
        memcmp(vec->key, vec->data, EX_KEY_SIZE) != 0) {
        ExError("corrupt vector: msgId 0x%x opType %u (slot %u) keyLen %u dataLen %u", vec->msgId, vec->opType, slotOp,
                vec->keyLen, vec->dataLen);
        return 1u;
    }
    int t = ExTableOfTag(rec.tag);
    uint32_t expectMsg = t == EX_T_DAM ? EX_MMSG_ROUTE : EX_MMSG_NHP;
    if (t < 0 || rec.key >= g_run.opt.keys || vec->msgId != expectMsg) {
        ExError("record of unknown table: tag 0x%x key %u msgId 0x%x", rec.tag, rec.key, vec->msgId);
        return 1u;
    }
    if (ExBookDelivered(t, &rec, vec->opType) != 0) {
        return 1u;
    }
    if (rec.key % g_run.opt.syncEvery == 0u) {
        ExSyncToPeer(t, vec->opType, vec->data);
    }
    return 0u;
}

static uint32_t ExMergedOp0(ASOrchHandle *h, ASOrchMsgVec *v)
{
    return ExMergedProc(h, v, 0u);
}
static uint32_t ExMergedOp1(ASOrchHandle *h, ASOrchMsgVec *v)
{
    return ExMergedProc(h, v, 1u);
}
static uint32_t ExMergedOp2(ASOrchHandle *h, ASOrchMsgVec *v)
{
    return ExMergedProc(h, v, 2u);
}

/* ARP probes are processed at once: key and data point into the received body itself. */
static uint32_t ExArpProc(ASOrchHandle *handle, ASOrchMsgVec *vec)
{
    ExRecord rec;
    if (handle != g_run.mod || vec->opType != 0u || vec->msgId != EX_MMSG_ARP || vec->key != vec->data ||
        ExRecordVerify(vec->data, vec->dataLen, &rec) != 0 || rec.tag != EX_TAG_ARP) {
        ExError("corrupt ARP probe: msgId 0x%x opType %u dataLen %u", vec->msgId, vec->opType, vec->dataLen);
        return 1u;
    }
    ExRelaxedAdd(&g_run.cnt.immediate, 1u);
    return 0u;
}

/* Interface statistics bypass the merge layer: the whole run of records in one call, with
 * the registration's mergeType as procParam. */
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
    ExRelaxedAdd(&g_run.cnt.userDefCalls, 1u);
    ExRelaxedAdd(&g_run.cnt.userDefRecords, num);
    return 0u;
}

/* ---- Serially packed bodies ---- */

/* The FES next hops arrive packed: {msgId, count} {opType, 0} then ExPackedRec. The unpack
 * expands them into plain records of ipcSize bytes and reports the opType that the
 * registration expects; what it allocates goes back through the unpack-free function. */
static void ExNhpUnpack(void *data, uint32_t len, ASOrchUnpackResult *result, ASOrchMsg *msg)
{
    ExRelaxedAdd(&g_run.cnt.unpackCalls, 1u);
    const uint8_t *b = data;
    if (len < EX_PACKED_HDR_SIZE || msg == NULL || msg->data != data) {
        ExError("unpack got a body of %u bytes", len);
        return;
    }
    uint32_t count = ExRd32(b + 4);
    uint32_t opType = ExRd32(b + 8);
    if ((uint64_t)count * sizeof(ExPackedRec) != (uint64_t)len - EX_PACKED_HDR_SIZE) {
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
        memcpy(&pr, b + EX_PACKED_HDR_SIZE + (size_t)i * sizeof(pr), sizeof(pr));
        ExRecord rec = {pr.key, EX_TAG_FES, pr.keyVer, pr.seq, opType == EX_NHP_DEL_OPTYPE ? 1u : 0u, pr.state, 0u};
        ExRecordFill(out + (size_t)i * size, size, &rec);
    }
    result->ipcNum = count;
    result->ipcBuf = out;
}

static void ExNhpUnpackFree(ASOrchUnpackResult *result)
{
    ExRelaxedAdd(&g_run.cnt.unpackFrees, 1u);
    ExFree(result->ipcBuf);
    result->ipcBuf = NULL;
    result->ipcNum = 0u;
}

/* ---- Transfer tables ---- */

/* Both plain tables (TLV type 1) come here; procParam, chosen at registration, says which.
 * tables points at the first entry (past the FES layout's 8-byte prefix), nums counts whole
 * entries of tblSize bytes. */
static uint32_t ExPlainTblProc(ASOrchHandle *handle, void *tables, uint32_t nums, uint32_t tblSize,
                               ASOrchTblProcInfo *info)
{
    int fes = info->procParam == EX_PROCPARAM_FES;
    uint32_t tableId = fes ? EX_TBL_FES : EX_TBL_DAM;
    uint32_t entrySize = fes ? EX_FES_ENTRY_SIZE : EX_DAM_ENTRY_SIZE;
    if (handle != g_run.mod || tblSize != entrySize || (!fes && info->procParam != EX_PROCPARAM_DAM) ||
        info->tlvType != 1u || ExVerifyEntries(tables, tableId, nums, tblSize) != 0) {
        ExError("%s table: %u entries of %u bytes, type %u, corrupt", fes ? "FES" : "DAM", nums, tblSize,
                info->tlvType);
        return 1u;
    }
    ExRelaxedAdd(fes ? &g_run.cnt.fesEntries : &g_run.cnt.damEntries, nums);
    return 0u;
}

/* A composite table (TLV type 18 or 19) arrives whole, its TLV header included. */
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
    ExRelaxedAdd(&g_run.cnt.compTables, 1u);
    return 0u;
}

/* Smoothing callbacks get one item each: DAM class items without a record, all others with. */
static int ExSmoothItemOk(uint32_t optType, const void *record, uint32_t size)
{
    int damClass = optType == ASORCH_SMOOTH_DAM_CLASS || optType == ASORCH_SMOOTH_DAM_CLASS2;
    return damClass ? record == NULL && size == 0u : record != NULL && size != 0u;
}

static uint32_t ExSmoothPre(uint32_t tableId, uint32_t optType, void *record, uint32_t size)
{
    if (tableId != EX_TBL_SMOOTH_PLAT || !ExSmoothItemOk(optType, record, size)) {
        ExError("smoothing pre-callback: table 0x%x type %u size %u", tableId, optType, size);
    }
    ExRelaxedAdd(&g_run.cnt.smoothPre, 1u);
    return 0u;
}

static uint32_t ExSmoothOwn(uint32_t tableId, uint32_t optType, void *record, uint32_t size)
{
    if (tableId != EX_TBL_SMOOTH_OWN || !ExSmoothItemOk(optType, record, size) ||
        (record != NULL && ExRd32(record) != tableId)) {
        ExError("smoothing callback: table 0x%x type %u size %u", tableId, optType, size);
    }
    ExRelaxedAdd(&g_run.cnt.smoothOwn, 1u);
    return 0u;
}

static void ExSyncGrpNotify(void)
{
    ExRelaxedAdd(&g_run.cnt.notifyCalls, 1u);
}

/* The queue's bucket hash receives a message vector, not a raw key: the orchestrator's own
 * hash reads the key out of it. */
static uint32_t ExModDamHash(const void *key)
{
    return ASOrchMergeHashFunc(g_run.mod, ASORCH_CHAN_DAM, key);
}

static uint32_t ExModFesHash(const void *key)
{
    return ASOrchMergeHashFunc(g_run.mod, ASORCH_CHAN_FES, key);
}

/* ---- Receiving ---- */

/* What the module's channels receive (on the DATA thread, EVT on the EVENT thread): every
 * message goes to the orchestrator as it is. The body stays the channel's; the orchestrator
 * copies what it keeps. A 0 result does not mean every record was taken: a dropped record
 * is only logged. */
void ExChanRecv(void *ctx, uint32_t chanNo, const void *msg, uint32_t len)
{
    ASOrchHandle *handle = ctx;
    if (msg == NULL || len < EX_HDR_SIZE) {
        ExError("channel %u delivered a message of %u bytes", chanNo, len);
        return;
    }
    uint32_t msgId = ExRd32(msg);
    if (chanNo == ASORCH_CHAN_DAM || chanNo == ASORCH_CHAN_FES) {
        ExNotePending(msgId, msg, len);
    }
    ASOrchMsg m = {(void *)(uintptr_t)msg, msgId, len};
    uint32_t r = ASOrchMsgProc(handle, &m);
    if (r != 0u) {
        ExRelaxedAdd(&g_run.cnt.msgProcFailed, 1u);
        ExError("ASOrchMsgProc refused message 0x%x of %u bytes on channel %u", msgId, len, chanNo);
    }
}

/* ---- Registration ---- */

/* The receive registry: which message ids the module takes and what becomes of each record.
 * ASOrchRegBase copies these lists; ipcSize, the run's record size, is filled in just before.
 * Every record opens with its 8-byte key {index, table tag} (keySize). */
static ASOrchTblMsgRecvReg g_recvTables[] = {
    /* Add and delete share a merge id so that they coalesce per key; mergeOpType 1 makes a
     * delete's records opType 1. */
    {.mergeMsgId = EX_MMSG_ROUTE, .msgId = EX_MSG_ROUTE_ADD, .mergeType = EX_MT_ROUTE, .keySize = EX_KEY_SIZE},
    {.mergeMsgId = EX_MMSG_ROUTE,
     .msgId = EX_MSG_ROUTE_DEL,
     .mergeType = EX_MT_ROUTE,
     .mergeOpType = 1u,
     .keySize = EX_KEY_SIZE},
    /* Probes are events, not state: nothing to coalesce, processed at once. */
    {.mergeMsgId = EX_MMSG_ARP, .msgId = EX_MSG_ARP_PROBE, .mergeType = EX_MT_ARP, .keySize = EX_KEY_SIZE},
    /* Packed bodies: the unpack must report the registered opType, else the message drops. */
    {.mergeMsgId = EX_MMSG_NHP,
     .msgId = EX_MSG_NHP_ADD,
     .opType = EX_NHP_ADD_OPTYPE,
     .unpackFunc = ExNhpUnpack,
     .unpackFreeFunc = ExNhpUnpackFree,
     .mergeType = EX_MT_NHP,
     .keySize = EX_KEY_SIZE},
    {.mergeMsgId = EX_MMSG_NHP,
     .msgId = EX_MSG_NHP_DEL,
     .opType = EX_NHP_DEL_OPTYPE,
     .unpackFunc = ExNhpUnpack,
     .unpackFreeFunc = ExNhpUnpackFree,
     .mergeType = EX_MT_NHP,
     .mergeOpType = 1u,
     .keySize = EX_KEY_SIZE},
};
/* Both lists feed one registry; statistics sit in the second only to show that it works. */
static ASOrchTblMsgRecvReg g_recvStats[] = {
    /* userDefProc: the records bypass the merge layer, so no merge id. */
    {.msgId = EX_MSG_IF_STATS, .mergeType = EX_MT_STATS, .userDefProc = ExIfStatsProc, .keySize = EX_KEY_SIZE},
};

/* Transfer tables by layout: list 0 holds DAM-layout tables (entries right after the TLV
 * header), list 1 FES-layout tables (an 8-byte prefix first). tblSize is the entry size of
 * a plain table. */
static ASOrchTblMsgTransReg g_transDam[] = {
    {.tableId = EX_TBL_DAM, .tblSize = EX_DAM_ENTRY_SIZE, .procParam = EX_PROCPARAM_DAM, .tblMsgProc = ExPlainTblProc},
    {.tableId = EX_TBL_COMP, .procParam = EX_PROCPARAM_COMP, .tblMsgProc = ExCompTblProc},
    /* Smoothing items: the pre-callback sees each one before the platform's entry point. */
    {.tableId = EX_TBL_SMOOTH_PLAT, .smoothPreProc = ExSmoothPre},
};
static ASOrchTblMsgTransReg g_transFes[] = {
    {.tableId = EX_TBL_FES, .tblSize = EX_FES_ENTRY_SIZE, .procParam = EX_PROCPARAM_FES, .tblMsgProc = ExPlainTblProc},
    /* smoothProc replaces the platform's entry points; the pre-callback is then not called. */
    {.tableId = EX_TBL_SMOOTH_OWN, .smoothPreProc = ExSmoothPre, .smoothProc = ExSmoothOwn},
};

/* What comes out of the queues, by merge id and then by opType. */
static ASOrchMergeMsg g_damMsgs[] = {
    {EX_MMSG_ROUTE, {ExMergedOp0, ExMergedOp1, ExMergedOp2, NULL}},
    /* Processed at once (mergeType 4) but looked up in the DAM queue's table all the same. */
    {EX_MMSG_ARP, {ExArpProc, NULL, NULL, NULL}},
};
static ASOrchMergeMsg g_fesMsgs[] = {
    {EX_MMSG_NHP, {ExMergedOp0, ExMergedOp1, ExMergedOp2, NULL}},
};

#define EX_COUNT(a) ((uint32_t)(sizeof(a) / sizeof((a)[0])))

int ExRegisterModule(ASOrchHandle *h)
{
    /* Advanced sync-group options go in before the base registration reads them: a slower
     * verify interval and flow control for group 2, a notification for group 0. */
    ASOrchSynGrpFlowCtrl fc;
    memset(&fc, 0, sizeof(fc));
    fc.word[6] = 0x8000u;
    fc.word[7] = 0x6000u;
    fc.word[8] = 0x3000u;
    if (ASOrchAdvSetSynGrpVerifyInterVal(h, 2u, 500u) != 0u ||
        ASOrchAdvSetSynGrpNotifyFunc(h, 0u, ExSyncGrpNotify) != 0u || ASOrchAdvSetSynGrpFlowCtrl(h, 2u, &fc) != 0u) {
        ExError("advanced sync-group options refused");
        return -1;
    }

    ASOrchBasePara bp;
    memset(&bp, 0, sizeof(bp));
    /* DATA is required; SYNC sends the syncs, EVENT serves the EVT channel. */
    if (ASOrchThreadSet(&bp.threadMask, 3u, ASORCH_THREAD_DATA, ASORCH_THREAD_SYNC, ASORCH_THREAD_EVENT) != 0u) {
        ExError("ASOrchThreadSet refused DATA, SYNC and EVENT");
        return -1;
    }
    /* Handed unchanged to the platform, which defines their meaning; the test kit takes any. */
    bp.modStateRsp[0] = 1u;
    bp.modStateRsp[1] = 0u;
    bp.reservePort[0] = 0x2F00u;
    bp.reservePort[1] = 1u;
    /* Group 0 is required; a non-zero word selects a group and is its message set. */
    bp.syncGrpMsgSet[0] = 0x0101u; /* group 0: DAM data */
    bp.syncGrpMsgSet[2] = 0x0202u; /* group 2: FES data */
    /* All four channels, each on its own broker port (at least one is required); chanArg goes
     * into the channel record unchanged, here the channel's number. */
    for (uint32_t c = 0; c < ASORCH_CHAN_NUM; c++) {
        bp.chanPort[c].realServerPort = 0x1F90u + c;
        bp.chanPort[c].chanArg = c;
    }

    for (uint32_t i = 0; i < EX_COUNT(g_recvTables); i++) {
        g_recvTables[i].ipcSize = g_run.opt.recordSize;
    }
    g_recvStats[0].ipcSize = g_run.opt.recordSize;
    bp.recvTblMsg[0] = (ASOrchTblMsgList){g_recvTables, EX_COUNT(g_recvTables)};
    bp.recvTblMsg[1] = (ASOrchTblMsgList){g_recvStats, EX_COUNT(g_recvStats)};
    bp.transTblMsg[0] = (ASOrchTblMsgList){g_transDam, EX_COUNT(g_transDam)};
    bp.transTblMsg[1] = (ASOrchTblMsgList){g_transFes, EX_COUNT(g_transFes)};

    /* Hash buckets: four per entry that the high water mark lets pend. Water marks low
     * enough that the broker meets back-pressure (0 takes the defaults). */
    bp.mergeMque[0] =
        (ASOrchMergeReg){g_damMsgs, EX_COUNT(g_damMsgs), 4096u, ExModDamHash, EX_DAM_HIGH_WATER, EX_DAM_LOW_WATER};
    bp.mergeMque[1] =
        (ASOrchMergeReg){g_fesMsgs, EX_COUNT(g_fesMsgs), 2048u, ExModFesHash, EX_FES_HIGH_WATER, EX_FES_LOW_WATER};

    /* Runs its steps in order and stops at the first failure. */
    if (ASOrchRegBase(h, &bp) != 0u) {
        ExError("ASOrchRegBase failed for EXMOD");
        return -1;
    }
    return 0;
}

/* ---- Bringing it up ---- */

/* Every byte an orchestrator holds comes from memAlloc and goes back through memFree; the
 * example's pair (main.c) counts blocks so that a leak shows. The peer is made the same way. */
ASOrchHandle *ExCreate(const char *name)
{
    ASOrchCreatePara cp = {.memAlloc = ExAlloc, .memFree = ExFree};
    ASOrchHandle *h = ASOrchCreate(name, &cp);
    if (h == NULL) {
        ExError("ASOrchCreate(%s) failed", name);
    }
    return h;
}

/* After registration: initialise, start the threads, then tell the platform the module is up. */
int ExStartModule(ASOrchHandle *h)
{
    if (ASOrchInit(h) != 0u || ASOrchStart(h) != 0u) {
        return -1;
    }
    (void)ASOrchModInitOk(h);
    return 0;
}
