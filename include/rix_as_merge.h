/* Merge orchestration: rules, merge handles, write path and receive dispatch. */
#ifndef RIX_AS_MERGE_H
#define RIX_AS_MERGE_H

#include "rix_as_common.h"
#include "rix_as_names.h"
#include "rix_as_tblmsg.h"
#include "rix_as_syncgrp.h"
#include "rix_mergeque.h"

ASORCH_EXTERN_C_BEGIN

/* ---- Rules, keys and hashing ---- */

/* Operation types of a message vector. By the rule table, 0 behaves as an add or set, 1 as a
 * delete, and 2 (only ever the result of a merge) as a delete followed by a set; 3 is age
 * information and is never combined. */
#define ASORCH_OPTYPE_NUM 4u
#define ASORCH_OPTYPE_AGEINFO 3u

typedef struct ASOrchMergeRule {
    uint32_t oldOpType;    /* the pending vector's */
    uint32_t newOpType;    /* the arriving vector's */
    uint32_t mergedOpType; /* what the arriving vector takes */
} ASOrchMergeRule;

/* Row i stands at index oldOpType * 2 + newOpType. What the surviving vector carries:
 *   pending 0 (set),  arriving 0 -> 0       pending 0, arriving 1 (delete) -> 1
 *   pending 1,        arriving 0 -> 2       pending 1, arriving 1 -> 1
 *   pending 2,        arriving 0 -> 2       pending 2, arriving 1 -> 1
 * Any other pair has no rule: the arriving vector keeps its opType (logged). */
#define ASORCH_MERGE_RULES_NUM 6u
ASORCH_API extern const ASOrchMergeRule g_ASOrchMergeRules[ASORCH_MERGE_RULES_NUM];
ASORCH_API extern const uint32_t g_ASOrchMergeRulesNum;

/* 0 and *mergedOpType set when the pair has a rule; 1 otherwise (*mergedOpType untouched). */
ASORCH_API uint32_t ASOrchGetMergeRule(uint32_t oldOpType, uint32_t newOpType, uint32_t *mergedOpType);
/* Bucket of vec in [0, hashSize) of the merge channel's queue (0 DAM, 1 FES), from msgId,
 * version and the key's whole 4-byte words. For a module's hashFunc once step "MergeMQue"
 * has built the channel; the library never calls it itself. */
ASORCH_API uint32_t ASOrchMergeHashFunc(ASOrchHandle *handle, uint32_t chan, const ASOrchMsgVec *vec);
/* 1 when msgId, version, keyLen and the key bytes are equal. */
ASORCH_API uint32_t ASOrchPubCmpFunc(const ASOrchMsgVec *a, const ASOrchMsgVec *b);
ASORCH_API void *ASOrchPubGetKeyPtr(void *vec);
/* Writes the combined opType into arriving. */
ASORCH_API void ASOrchPubMergeRule(ASOrchMsgVec *pending, ASOrchMsgVec *arriving);
/* Combines the opTypes and releases the pending vector's block. */
ASORCH_API void ASOrchPubMergeNotify(ASOrchMsgVec *arriving, ASOrchMsgVec *pending);

/* ---- Merge handles ---- */

/* msgProc: one record; vec->key is its first keyLen bytes, vec->data the whole record. For
 * a queued record it runs on the DATA thread and the vector and its block are valid only
 * during the call (released after it, whatever it returns); for merge type 4 and up it runs
 * on the ASOrchMsgProc thread with the caller's vector. Non-zero is logged and the record
 * dropped. It may call the ASOrchSync* senders. */
typedef uint32_t (*ASOrchMergeMsgProc)(ASOrchHandle *handle, ASOrchMsgVec *vec);

typedef struct ASOrchMergeMsg {
    uint32_t msgId;                                /* the vectors' msgId: a receive registration's mergeMsgId */
    ASOrchMergeMsgProc msgProc[ASORCH_OPTYPE_NUM]; /* by opType; null: that opType fails */
} ASOrchMergeMsg;

/* Merge-queue registration of one channel (DAM, FES). The channel is built only when
 * mergeMsg, mergeMsgNum and hashFunc are all set; otherwise it is left out without a log,
 * and records of a merge type for it are later dropped without one.
 * hashFunc(key) receives a const ASOrchMsgVec * -- a message vector, not the raw key bytes:
 * the vector being written (its usrData is the orchestrator handle) and, when an entry is
 * taken out, the stored vector. Vectors with the same key (msgId, version, keyLen, key bytes)
 * must hash alike; the queue takes the result modulo hashSize. It runs on the writer's
 * thread (the DATA thread). The usual body:
 *     const ASOrchMsgVec *v = key;
 *     return ASOrchMergeHashFunc(v->usrData, ASORCH_MERGE_CHAN_DAM, v);
 * highWater must exceed lowWater (defaults included: a highWater of 8192 or less needs an
 * explicit lowWater), else step "MergeMQue" fails. */
typedef struct ASOrchMergeReg {
    ASOrchMergeMsg *mergeMsg; /* copied at registration; msgIds unique per channel */
    uint32_t mergeMsgNum;
    uint32_t hashSize;         /* 0: 8192 */
    MergeQueHashFunc hashFunc; /* required, see above */
    uint32_t highWater;        /* 0: 65536 */
    uint32_t lowWater;         /* 0: 8192 */
} ASOrchMergeReg;

#define ASORCH_MERGE_CHAN_DAM 0u
#define ASORCH_MERGE_CHAN_FES 1u
#define ASORCH_MERGE_CHAN_NUM 2u

#define ASORCH_MERGE_DEF_HASH_SIZE 8192u
#define ASORCH_MERGE_DEF_HIGH_WATER 65536u
#define ASORCH_MERGE_DEF_LOW_WATER 8192u
#define ASORCH_MERGE_MSG_HASH_BUCKETS 32u
#define ASORCH_MERGE_READ_BATCH 32u
#define ASORCH_MERGE_QUE_NAME_SIZE 32u

/* One channel's entry of the handle's mergeHandle block (two entries: DAM, FES). */
typedef struct ASOrchMergeHandle {
    int32_t epFd;
    MergeQueCb *mqueHandle;
    uint32_t hashSize;
    ASIntHash *mergeMsgHash; /* ASOrchMergeMsg by msgId */
} ASOrchMergeHandle;

/* A node of mergeMsgHash: the hash link, then the registration (msgId is the key). */
typedef struct ASOrchMergeMsgNode {
    ASList link;
    ASOrchMergeMsg msg;
} ASOrchMergeMsgNode;

ASORCH_LAYOUT_ASSERT(sizeof(ASOrchMergeMsg) == 20, "merge message is an id and four functions");
ASORCH_LAYOUT_ASSERT(sizeof(ASOrchMergeReg) == 24, "merge registration is six words");
ASORCH_LAYOUT_ASSERT(sizeof(ASOrchMergeHandle) == 16, "merge handle entry is four words");
ASORCH_LAYOUT_ASSERT(offsetof(ASOrchMergeMsgNode, msg) == offsetof(ASIntHashNode, key), "the msgId is the hash key");

/* Base-registration step "MergeMQue" and its parts: for each valid registration (DAM, then
 * FES) a message table and a queue named "<module>_DAM" / "<module>_FES" whose reader is the
 * DATA thread's epoll set, with a water-mark monitor. On any failure both channels are
 * released and the step returns 1. */
struct ASOrchBasePara;
ASORCH_API uint32_t ASOrchRegMerge(ASOrchHandle *handle, struct ASOrchBasePara *para);
ASORCH_API uint32_t ASOrchMergeIsValid(const ASOrchMergeReg *reg);
ASORCH_API ASOrchMergeHandle *ASOrchCreatMergeHandle(ASOrchHandle *handle, const ASOrchMergeReg *reg, uint32_t chan);
ASORCH_API ASOrchMergeHandle *ASOrchAllocMergeHandle(ASOrchHandle *handle);
ASORCH_API uint32_t ASOrchInitMergeHandle(ASOrchMergeHandle *entry, const ASOrchMergeReg *reg, ASOrchHandle *handle);
ASORCH_API uint32_t ASOrchInitMergeMsg(ASOrchMergeHandle *entry, const ASOrchMergeReg *reg, ASOrchHandle *handle);
ASORCH_API uint32_t ASOrchCreatMergeMsgHashTable(ASIntHash *hash, const ASOrchMergeReg *reg, ASOrchHandle *handle);
ASORCH_API uint32_t ASOrchCreatMergeQueAndFlowCtl(ASOrchHandle *handle, ASOrchMergeHandle *entry,
                                                  const ASOrchMergeReg *reg, uint32_t chan);
ASORCH_API uint32_t ASOrchRegMQue(ASOrchHandle *handle, ASOrchMergeHandle *entry, const ASOrchMergeReg *reg,
                                  uint32_t chan);
ASORCH_API MergeQueCb *ASOrchCreatMergeQueue(ASOrchHandle *handle, const char *queName, int32_t epFd,
                                             const ASOrchMergeReg *reg, uint32_t chan);
ASORCH_API uint32_t ASOrchRegMQueFlowCtl(ASOrchHandle *handle, ASOrchMergeHandle *entry, const ASOrchMergeReg *reg,
                                         uint32_t chan);
ASORCH_API void ASOrchMQueCfgFlowCtl(MergeQueMonitorAttr *attr, const ASOrchMergeReg *reg, uint32_t chan);

/* Water-mark reactions: evtType 0 high water, 1 low water; notifyPara is the handle. On a
 * process with the mb role the channel is back-pressed (with a warning when the module
 * has no SYNC thread), elsewhere sync group 0; low water releases it. They run inside a
 * queue write or read, on the DATA thread. */
ASORCH_API uint32_t ASOrchMergeDamMonitorProc(uint32_t evtType, void *notifyPara);
ASORCH_API uint32_t ASOrchMergeFesMonitorProc(uint32_t evtType, void *notifyPara);
ASORCH_API uint32_t ASOrchMergeFesDamMonitorProc(uint32_t evtType, void *notifyPara, uint32_t chan);
ASORCH_API uint32_t ASOrchMonitorHighWater(ASOrchHandle *handle, uint32_t chan);
ASORCH_API uint32_t ASOrchMonitorLowWater(ASOrchHandle *handle, uint32_t chan);
ASORCH_API void ASOrchMqueHighWaterWithoutSyncThread(ASOrchHandle *handle);

/* Releases both channels' tables and queues (pending vectors included, not processed) and
 * the block; part of ASOrchDestroy. */
ASORCH_API void ASOrchFreeMergeHandle(ASOrchHandle *handle);
ASORCH_API void ASOrchFreeMergeMsg(ASOrchHandle *handle, ASOrchMergeHandle *block);

/* ---- Write path ----
 * mergeType 0..3 merge in a queue (bit 0: FES, above 1: an update moves to the tail);
 * 4 is processed at once in the DAM table, 5 and above in the FES table. */
/* One record. Queued (0 to 3): key and data are copied into one block from memAlloc, so vec
 * is free again on return; 1 for an empty key, a failed allocation or write (logged), or a
 * channel without queue (not logged); on the DATA thread only. At once (4 and up): msgProc
 * runs before the call returns, on the calling thread; 1 when it fails or is missing. */
ASORCH_API uint32_t ASOrchMsgMerge(ASOrchHandle *handle, uint32_t mergeType, ASOrchMsgVec *vec);
ASORCH_API uint32_t ASOrchMsgMergeInner(ASOrchHandle *handle, uint32_t mergeType, ASOrchMsgVec *vec);
ASORCH_API uint32_t ASOrchWriteMsgMerge(ASOrchHandle *handle, MergeQueCb *queue, const ASOrchMsgVec *vec,
                                        int32_t moveTail);
ASORCH_API uint32_t ASOrchMsgVecCopyAlloc(ASOrchHandle *handle, const ASOrchMsgVec *vec, ASOrchMsgVec *copy);
ASORCH_API uint32_t ASOrchMsgNoMerge(ASOrchHandle *handle, uint32_t mergeType, ASOrchMsgVec *vec);
/* The channel's queue, for the RIX_MergeQue* statistics and printing; null without one. */
ASORCH_API MergeQueCb *ASOrchGetReaderHdl(ASOrchHandle *handle, uint32_t chan);
/* Takes the channel's reader out of the DATA thread's epoll set (nothing drains while writes
 * go on merging) and puts it back. 0 for a null handle, 1 for a channel without queue. On
 * the DATA thread. */
ASORCH_API uint32_t ASOrchMergeBackPress(ASOrchHandle *handle, uint32_t chan);
ASORCH_API uint32_t ASOrchMergeUnBackPress(ASOrchHandle *handle, uint32_t chan);

/* ---- Receive dispatch ----
 * The DAM and FES drains: called by the queue on the DATA thread, 32 vectors per wake-up,
 * each handed to msgProc[opType] of its msgId and then released, success or not. */
ASORCH_API uint32_t ORCH_AutoSyncRecvDamMerge(MergeQueCb *queue);
ASORCH_API uint32_t ORCH_AutoSyncRecvFesMerge(MergeQueCb *queue);
ASORCH_API uint32_t ASOrchReadMergeMsgCallBack(ASOrchMsgVec *vec, uint32_t size, const uint32_t *chan);
ASORCH_API uint32_t ASOrchRecvMergeMsgDispatch(ASOrchMsgVec *vec, uint32_t chan);
ASORCH_API uint32_t ASOrchRecvDispatch(ASOrchHandle *handle, uint32_t chan, ASOrchMsgVec *vec);
ASORCH_API uint32_t ASOrchRecvDispatchProc(const ASOrchMergeMsg *entry, ASOrchHandle *handle, ASOrchMsgVec *vec);

/* The result of an ASOrchMergeSyncGrpDatas item that was neither merged nor processed
 * (the function itself is declared with the sync groups). */
#define ASORCH_SYNCGRP_DATA_FAILED 0x10004u

ASORCH_EXTERN_C_END

#endif
