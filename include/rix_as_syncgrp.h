/* Sync groups: parameters, registration, flow control and sending. */
#ifndef RIX_AS_SYNCGRP_H
#define RIX_AS_SYNCGRP_H

#include "rix_as_common.h"
#include "rix_as_tblmsg.h"

ASORCH_EXTERN_C_BEGIN

#define ASORCH_SYNCGRP_NUM 4u

/* The layer's notify function of a group; its signature is the layer's. */
typedef void (*ASOrchSyncGrpNotifyFunc)(void);

/* Flow-control record: twelve words whose meaning the layer defines. */
typedef struct ASOrchSynGrpFlowCtrl {
    uint32_t word[12];
} ASOrchSynGrpFlowCtrl;

/* Parameter row handed to the layer (56 bytes on the target). */
typedef struct ASOrchSyncGrpPara {
    uint32_t grpId;
    uint32_t attr1;
    uint32_t attr2;
    uint32_t logicThreadId;
    uint32_t commThreadId;
    uint32_t attr5;
    uint32_t attr6;
    uint32_t attr7;
    uint32_t attr8;
    uint32_t attr9;
    uint32_t verifyInterVal;
    uint32_t attr11;
    uint32_t attr12;
    ASOrchSyncGrpNotifyFunc notifyFunc;
} ASOrchSyncGrpPara;

typedef struct ASOrchSyncGrpRes {
    uint32_t grpBitmap;
    uint32_t grpNum;
    int32_t grpId[ASORCH_SYNCGRP_NUM];
} ASOrchSyncGrpRes;

/* An element of ASOrchMergeSyncGrpDatas. */
typedef struct ASOrchSyncGrpData {
    void *data;      /* the record: key (its first keyLen bytes) and data of the vector */
    uint32_t info;   /* the caller's; not read or written */
    uint32_t result; /* set by the call: 0, or 0x10004 when the record failed */
} ASOrchSyncGrpData;

ASORCH_LAYOUT_ASSERT(sizeof(ASOrchSynGrpFlowCtrl) == 48, "flow control is twelve words");
ASORCH_LAYOUT_ASSERT(sizeof(ASOrchSyncGrpPara) == 56, "sync-group row is 56 bytes");
ASORCH_LAYOUT_ASSERT(offsetof(ASOrchSyncGrpPara, verifyInterVal) == 40, "verifyInterVal at 40");
ASORCH_LAYOUT_ASSERT(offsetof(ASOrchSyncGrpPara, notifyFunc) == 52, "notifyFunc at 52");
ASORCH_LAYOUT_ASSERT(sizeof(ASOrchSyncGrpRes) == 24, "resources are six words");

struct ASOrchBasePara;

/* Default parameter rows of the four logical groups (224 bytes on the target). */
ASORCH_API extern const ASOrchSyncGrpPara g_rixOrchAutoSyncGrpParam[ASORCH_SYNCGRP_NUM];

/* Base step "SyncGroup" and its parts. Selects logical group i when syncGrpMsgSet[i] is
 * non-zero (group 0 required), numbers the selected groups 0, 1, ... for the layer, registers
 * their rows (defaults, the ASOrchAdvSet* overrides, thread ids adjusted to the threads
 * registered) and message sets, then flow control. If the layer refuses the rows
 * (RIX_EAL_RegSyncGroup) that is logged ("RIX_EAL reg SyncGroup Fail.", "%s, Sync group set
 * base group fail.") and the step still succeeds: ASOrchRegBase returns 0 without those
 * groups at the layer. A refused message set fails the step. */
ASORCH_API uint32_t ASOrchRegSyncGrpBase(ASOrchHandle *handle, struct ASOrchBasePara *para);
ASORCH_API uint32_t ASOrchMallocGrpRes(ASOrchHandle *handle);
ASORCH_API void ASOrchFreeGrpRes(ASOrchHandle *handle);
ASORCH_API uint32_t ASOrchSyncGrpSetBase(ASOrchHandle *handle, struct ASOrchBasePara *para);
ASORCH_API uint32_t ASOrchSetBaseSynGrpPara(ASOrchHandle *handle, struct ASOrchBasePara *para, ASOrchSyncGrpPara **rows,
                                            uint32_t *count);
/* A new block of four rows from the module's allocator; the caller releases it. */
ASORCH_API ASOrchSyncGrpPara *ASOrchGetBaseSynGrpPara(ASOrchHandle *handle, struct ASOrchBasePara *para);
ASORCH_API void ASOrchSetUserDefSyncGrpPara(ASOrchHandle *handle, ASOrchSyncGrpPara rows[ASORCH_SYNCGRP_NUM]);
ASORCH_API void ASOrchResetBaseLogicThd(ASOrchSyncGrpPara *rows, uint32_t n);
ASORCH_API void ASOrchResetBaseCommThd(ASOrchSyncGrpPara *rows, uint32_t n);
ASORCH_API uint32_t ASOrchGetSynGrpBitmap(ASOrchSyncGrpRes *res, const uint32_t msgSet[ASORCH_SYNCGRP_NUM]);
ASORCH_API void ASOrchSetSynGrpBase(ASOrchSyncGrpRes *res, const ASOrchSyncGrpPara *rows, uint32_t n,
                                    ASOrchSyncGrpPara *out, uint32_t *count);
ASORCH_API void ASOrchSetGrpItem(ASOrchSyncGrpPara *dst, const ASOrchSyncGrpPara *src, const uint32_t *id);
ASORCH_API uint32_t ASOrchSyncGroupRegister(void *ealHdl, const ASOrchSyncGrpPara *rows, uint32_t count);
ASORCH_API uint32_t ASOrchSyncGrpMsgSetBase(ASOrchHandle *handle, struct ASOrchBasePara *para);
ASORCH_API ASOrchSyncGrpRes *ASOrchGroupGetRes(ASOrchHandle *handle);
/* The layer's group id of a logical group (0 to 3); -1 when there is none (not selected, or
 * no step "SyncGroup" yet). */
ASORCH_API int32_t ASOrchGetSyncGrpId(ASOrchHandle *handle, uint32_t grpIndex);

/* Flow control of the registered groups; the default record goes to group 0. */
ASORCH_API uint32_t ASOrchSetSynGrpFlowCtrl(ASOrchHandle *handle);

/* Sending to the peer through logical group grpIndex (0 to 3). msgs and count pass unchanged
 * to RIX_EAL_SyncMsg, so their format is the layer's: an array of count RIX_EAL_SyncItem
 * {data, len} (rix_eal.h), which the layer copies; ASOrchSyncMsg sends one item (count 1).
 * 1 with a log when the group was not selected; otherwise the layer's result unchanged.
 * Any thread, msgProc on the DATA thread included. */
ASORCH_API uint32_t ASOrchSyncBatchMsg(ASOrchHandle *handle, uint32_t grpIndex, void *msgs, uint32_t count);
ASORCH_API uint32_t ASOrchSyncMsg(ASOrchHandle *handle, uint32_t grpIndex, void *msg);
/* offset 0 is the first layer group id after the base groups. */
ASORCH_API uint32_t ASOrchSyncMsgToGrp(ASOrchHandle *handle, uint32_t offset, void *msg);

/* Feeds count records (e.g. received from the peer) into the merge path: for each item,
 * vec->key = vec->data = items[i].data, the other fields of vec (msgId, opType, keyLen,
 * dataLen, version) as the caller set them, then ASOrchMsgMerge(handle, mergeType, vec).
 * Each item's result is 0, or 0x10004 with a log line; a failure does not stop the loop.
 * Writes into a merge queue: on the DATA thread, or serialised with it. */
ASORCH_API void ASOrchMergeSyncGrpDatas(uint32_t count, ASOrchSyncGrpData *items, ASOrchMsgVec *vec, uint32_t mergeType,
                                        ASOrchHandle *handle);

ASORCH_EXTERN_C_END

#endif
