/* A small module of another shape than the examples, written from the README and the
 * headers alone and built against an installed prefix: one receive message whose records
 * coalesce in the DAM merge queue, one transfer table, one sync group. It drives the DATA
 * thread's loop by hand (no ASOrchStart), syncs every processed record to a stand-in peer,
 * makes one platform operation fail through the host test kit and checks what the module
 * sees: ASOrchMsgProc still answers 0, only the log and the queue's counters show the loss. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "rix_autosync_orch.h"
#include "rix_platform_test.h"

#define NC_MSG_ROUTE 0x200u /* receive message: records {key, value} */
#define NC_TBL_PORT 7u      /* transfer table: entries {port, state} */

typedef struct {
    uint32_t key;
    uint32_t value;
} NcRecord;

static struct {
    unsigned long allocs, frees;
    long long liveBytes;
} g_mem;

static struct {
    ASOrchHandle *orch;
    uint32_t value[8]; /* last value processed per key */
    uint32_t processed;
    uint32_t synced; /* records the peer received */
    uint32_t syncFailed;
    uint32_t tblEntries;
    uint32_t tblType;
    int failed;
} g_nc;

typedef union {
    uint32_t size;
    max_align_t align;
} NcBlockHead;

static void *NcAlloc(uint32_t size)
{
    NcBlockHead *head = malloc(sizeof(NcBlockHead) + size);
    if (head == NULL) {
        return NULL;
    }
    head->size = size;
    g_mem.allocs++;
    g_mem.liveBytes += size;
    return head + 1;
}

static void NcFree(void *ptr)
{
    if (ptr != NULL) {
        NcBlockHead *head = (NcBlockHead *)ptr - 1;
        g_mem.frees++;
        g_mem.liveBytes -= head->size;
        free(head);
    }
}

static void NcCheck(int cond, const char *what)
{
    if (!cond) {
        fprintf(stderr, "newcomer_module: %s\n", what);
        g_nc.failed = 1;
    }
}

/* The queue's hash is given a message vector, not the key bytes. */
static uint32_t NcDamHash(const void *key)
{
    const ASOrchMsgVec *vec = key;
    return ASOrchMergeHashFunc(vec->usrData, ASORCH_MERGE_CHAN_DAM, vec);
}

/* opType 0: add or set. Runs on the DATA thread; the vector lives for this call only. */
static uint32_t NcRouteSet(ASOrchHandle *handle, ASOrchMsgVec *vec)
{
    NcRecord rec;
    RIX_EAL_SyncItem item;
    if (handle != g_nc.orch || vec->dataLen != sizeof(rec) || vec->keyLen != sizeof(rec.key)) {
        return 1u;
    }
    memcpy(&rec, vec->data, sizeof(rec));
    if (rec.key >= 8u) {
        return 1u;
    }
    g_nc.value[rec.key] = rec.value;
    g_nc.processed++;
    item.data = &rec;
    item.len = sizeof(rec);
    if (ASOrchSyncMsg(handle, 0u, &item) != ASORCH_OK) {
        g_nc.syncFailed++;
    }
    return 0u;
}

static uint32_t NcPortTable(ASOrchHandle *handle, void *tables, uint32_t nums, uint32_t tblSize,
                            ASOrchTblProcInfo *info)
{
    (void)handle;
    (void)tables;
    if (tblSize != sizeof(NcRecord)) {
        return 1u;
    }
    g_nc.tblEntries += nums;
    g_nc.tblType = info->tlvType;
    return 0u;
}

static void NcPeer(void *ctx, uint32_t grpId, const RIX_EAL_SyncItem *items, uint32_t count)
{
    (void)ctx;
    if (grpId == 0u && count == 1u && items[0].len == sizeof(NcRecord)) {
        g_nc.synced++;
    }
}

/* A receive body: 8-byte header, then the records. */
static uint32_t NcSendRecords(const NcRecord *recs, uint32_t n, uint32_t extraBytes)
{
    unsigned char body[8 + 8 * sizeof(NcRecord) + 4] = {0};
    ASOrchMsg msg;
    memcpy(body + ASORCH_RECV_HDR_LEN, recs, n * sizeof(NcRecord));
    msg.data = body;
    msg.msgId = NC_MSG_ROUTE;
    msg.len = ASORCH_RECV_HDR_LEN + n * (uint32_t)sizeof(NcRecord) + extraBytes;
    return ASOrchMsgProc(g_nc.orch, &msg);
}

/* A transfer body: 8-byte header, the TLV area length, one plain TLV (DAM layout). */
static uint32_t NcSendPortTable(void)
{
    uint32_t body[3 + 3 + 4] = {0};
    ASOrchMsg msg;
    body[2] = ASORCH_TLV_HDR_LEN + 2u * sizeof(NcRecord);
    body[3] = NC_TBL_PORT;
    body[4] = ASORCH_TLV_PLAIN;
    body[5] = 2u * sizeof(NcRecord);
    body[6] = 1u; /* port 1 up, port 2 down */
    body[7] = 1u;
    body[8] = 2u;
    body[9] = 0u;
    msg.data = body;
    msg.msgId = ASORCH_TRANS_MSGID_BASE;
    msg.len = sizeof(body);
    return ASOrchMsgProc(g_nc.orch, &msg);
}

static uint32_t NcReaderStat(uint32_t id)
{
    MergeQueCb *q = ASOrchGetReaderHdl(g_nc.orch, ASORCH_MERGE_CHAN_DAM);
    return q != NULL ? q->reader.readerStat[id].count : 0xFFFFFFFFu;
}

static void NcPrintLog(void)
{
    uint32_t i;
    for (i = 0; i < RIX_TEST_LogCount(); i++) {
        printf("log: %s\n", RIX_TEST_LogLine(i));
    }
}

int main(void)
{
    static ASOrchTblMsgRecvReg recv[] = {
        /* mergeMsgId, msgId, opType, unpack, unpackFree, ipcSize, mergeType (DAM queue,
         * updates keep their place), userDefProc, mergeOpType (0: set), keySize */
        {NC_MSG_ROUTE, NC_MSG_ROUTE, 0u, NULL, NULL, sizeof(NcRecord), 0u, NULL, 0u, sizeof(uint32_t)},
    };
    static ASOrchTblMsgTransReg trans[] = {
        {NC_TBL_PORT, sizeof(NcRecord), NULL, NULL, 0u, NcPortTable},
    };
    static ASOrchMergeMsg damMsgs[] = {{NC_MSG_ROUTE, {NcRouteSet, NULL, NULL, NULL}}};
    ASOrchCreatePara create = {0};
    ASOrchBasePara base = {0};
    void *eal;

    RIX_TEST_LogCapture(1);
    create.memAlloc = NcAlloc;
    create.memFree = NcFree;
    g_nc.orch = ASOrchCreate("newmod", &create);
    if (g_nc.orch == NULL) {
        NcPrintLog();
        fprintf(stderr, "newcomer_module: ASOrchCreate failed\n");
        return 1;
    }
    base.threadMask = 1u << ASORCH_THREAD_DATA;
    base.syncGrpMsgSet[0] = 1u;
    base.chanPort[ASORCH_CHAN_DAM].realServerPort = 0x1F91u;
    base.recvTblMsg[0] = (ASOrchTblMsgList){recv, 1u};
    base.transTblMsg[0] = (ASOrchTblMsgList){trans, 1u};
    base.mergeMque[0] = (ASOrchMergeReg){damMsgs, 1u, 64u, NcDamHash, 0u, 0u};
    if (ASOrchRegBase(g_nc.orch, &base) != ASORCH_OK || ASOrchInit(g_nc.orch) != ASORCH_OK) {
        NcPrintLog();
        fprintf(stderr, "newcomer_module: registration failed\n");
        ASOrchDestroy(g_nc.orch);
        return 1;
    }
    eal = ASOrchGetEalHdl(g_nc.orch);
    RIX_TEST_EalSetSyncPeer(eal, NcPeer, NULL);

    {
        /* Key 1 twice: the second record replaces the pending first; one drain, two calls. */
        const NcRecord burst[3] = {{1u, 10u}, {2u, 20u}, {1u, 30u}};
        NcCheck(NcSendRecords(burst, 3u, 0u) == ASORCH_OK, "burst refused");
        NcCheck(g_nc.processed == 0u, "records processed before the DATA thread ran");
        RIX_TEST_EalRunUntilIdle(eal, ASORCH_THREAD_DATA);
        NcCheck(g_nc.processed == 2u, "the burst did not coalesce into two records");
        NcCheck(g_nc.value[1] == 30u && g_nc.value[2] == 20u, "a key does not hold its last value");
        NcCheck(NcReaderStat(MERGEQUE_RSTAT_SUCC_MERGE) == 1u, "Success Merge is not 1");
        NcCheck(NcReaderStat(MERGEQUE_RSTAT_EMPTY_READ) == 30u, "Empty Read is not 32 - 2");
        NcCheck(g_nc.synced == 2u && g_nc.syncFailed == 0u, "the peer did not get both records");
    }

    NcCheck(NcSendPortTable() == ASORCH_OK, "transfer message refused");
    NcCheck(g_nc.tblEntries == 2u && g_nc.tblType == ASORCH_TLV_PLAIN, "the table did not arrive whole");

    {
        /* Not a whole number of records: the message is refused and nothing is queued. */
        const NcRecord one = {3u, 1u};
        NcCheck(NcSendRecords(&one, 1u, 4u) == ASORCH_ERR, "a torn body was accepted");
    }

    {
        /* The queue's hash service fails to give a block: the record is lost, yet the message
         * counts as processed. The copy made for the queue goes back to the allocator. */
        const NcRecord lost = {4u, 44u};
        const long long liveBefore = g_mem.liveBytes;
        RIX_TEST_FailNth("LITE_HASH_NewData", 1u);
        NcCheck(NcSendRecords(&lost, 1u, 0u) == ASORCH_OK, "a dropped record changed the result");
        RIX_TEST_EalRunUntilIdle(eal, ASORCH_THREAD_DATA);
        NcCheck(g_nc.value[4] == 0u && g_nc.processed == 2u, "the lost record was processed");
        NcCheck(RIX_TEST_LogFind("write mqueue fail") == 1u, "the loss was not logged");
        NcCheck(NcReaderStat(MERGEQUE_RSTAT_FAIL_WRITE) == 1u, "Fail Write is not 1");
        NcCheck(g_mem.liveBytes == liveBefore, "the failed write kept memory");
    }

    ASOrchDestroy(g_nc.orch);
    NcCheck(g_mem.allocs != 0u && g_mem.allocs == g_mem.frees && g_mem.liveBytes == 0,
            "the orchestrator did not return all its memory");
    NcCheck(RIX_TEST_EalLiveCount() == 0u, "the abstraction-layer instance outlived the orchestrator");
    if (g_nc.failed) {
        NcPrintLog();
    }
    printf("newcomer_module: %s\n", g_nc.failed ? "FAILED" : "ok");
    return g_nc.failed;
}
