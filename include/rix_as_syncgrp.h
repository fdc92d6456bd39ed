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
    void *data;
    uint32_t info;
    uint32_t result;  /* 0, or 0x10004 when the record failed */
} ASOrchSyncGrpData;

ASORCH_LAYOUT_ASSERT(sizeof(ASOrchSynGrpFlowCtrl) == 48, "flow control is twelve words");
ASORCH_LAYOUT_ASSERT(sizeof(ASOrchSyncGrpPara) == 56, "sync-group row is 56 bytes");
ASORCH_LAYOUT_ASSERT(offsetof(ASOrchSyncGrpPara, verifyInterVal) == 40, "verifyInterVal at 40");
ASORCH_LAYOUT_ASSERT(offsetof(ASOrchSyncGrpPara, notifyFunc) == 52, "notifyFunc at 52");

ASORCH_EXTERN_C_END

#endif
