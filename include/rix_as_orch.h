/* The orchestrator: handle, lifecycle, accessors and base registration. */
#ifndef RIX_AS_ORCH_H
#define RIX_AS_ORCH_H

#include "rix_as_common.h"
#include "rix_as_chan.h"
#include "rix_as_tblmsg.h"
#include "rix_as_merge.h"
#include "rix_as_syncgrp.h"

ASORCH_EXTERN_C_BEGIN

#define ASORCH_NAME_SIZE 16u  /* module names have at most 15 characters */

/* Create parameters: five words. */
typedef struct ASOrchCreatePara {
    uint32_t ealPara1;
    uint32_t memPtNo;
    ASOrchMemAllocFunc memAlloc;
    ASOrchMemFreeFunc memFree;
    uint32_t ealPara2;
} ASOrchCreatePara;

/* The record handed to RIX_EAL_Create (20 bytes on the target). */
typedef struct ASOrchEalCreatePara {
    uint32_t orchId;
    uint32_t ealPara1;
    uint32_t ealPara2;
    ASOrchMemAllocFunc memAlloc;
    ASOrchMemFreeFunc memFree;
} ASOrchEalCreatePara;

typedef struct ASOrchOndemandPara {
    uint32_t word[2];
} ASOrchOndemandPara;

/* The module's overrides of one logical sync group. */
typedef struct ASOrchSynGrpAdvPara {
    uint32_t verifyInterVal;          /* 0: keep the default */
    ASOrchSyncGrpNotifyFunc notifyFunc; /* null: keep the default */
    uint32_t flowCtrlValid;
    ASOrchSynGrpFlowCtrl flowCtrl;
} ASOrchSynGrpAdvPara;

struct ASOrchMergeHandle;

struct ASOrchHandle {
    char name[ASORCH_NAME_SIZE];  /* first: the handle stands for its name */
    uint32_t ealPara1;
    uint32_t memPtNo;
    uint32_t ealPara2;
    ASOrchMemAllocFunc memAlloc;
    ASOrchMemFreeFunc memFree;
    void *ealHdl;
    ASOrchSyncGrpRes *syncGrpRes;
    struct ASOrchMergeHandle *mergeHandle;  /* two entries: DAM, FES */
    uint32_t threadMask;
    void *tblMsgRecvHash;
    void *tblMsgTransHash;
    ASOrchSynGrpAdvPara synGrpAdv[ASORCH_SYNCGRP_NUM];
    ASOrchOndemandPara ondemandParam;
};

/* Base parameters: everything the orchestrator serves, registered by ASOrchRegBase. */
typedef struct ASOrchBasePara {
    uint32_t threadMask;
    uint32_t modStateRsp[2];
    uint32_t syncGrpMsgSet[ASORCH_SYNCGRP_NUM];
    uint32_t reservePort[2];
    ASOrchChanPort chanPort[ASORCH_CHAN_PORT_SLOTS];
    ASOrchTblMsgList recvTblMsg[2];
    ASOrchTblMsgList transTblMsg[2];
    ASOrchMergeReg mergeMque[2];
} ASOrchBasePara;

typedef uint32_t (*ASOrchBaseStepFunc)(ASOrchHandle *handle, ASOrchBasePara *para);

typedef struct ASOrchBaseStep {
    const char *name;
    ASOrchBaseStepFunc step;
} ASOrchBaseStep;

ASORCH_LAYOUT_ASSERT(sizeof(ASOrchCreatePara) == 20, "create parameters are five words");
ASORCH_LAYOUT_ASSERT(sizeof(ASOrchEalCreatePara) == 20, "EAL create record is 20 bytes");
ASORCH_LAYOUT_ASSERT(offsetof(ASOrchEalCreatePara, memFree) == 16, "memFree at 16");
ASORCH_LAYOUT_ASSERT(offsetof(ASOrchBasePara, chanPort) == 9 * 4, "chanPort at word 9");
ASORCH_LAYOUT_ASSERT(offsetof(ASOrchBasePara, mergeMque) == 33 * 4, "DAM merge registration at word 33");
ASORCH_LAYOUT_ASSERT(offsetof(ASOrchBasePara, mergeMque[1]) == 39 * 4, "FES merge registration at word 39");
ASORCH_LAYOUT_ASSERT(sizeof(ASOrchBasePara) == 45 * 4, "base parameters are 45 words");

/* Lifecycle and accessors. */
ASORCH_API ASOrchHandle *ASOrchCreate(const char *name, const ASOrchCreatePara *para);
ASORCH_API void ASOrchDestroy(ASOrchHandle *handle);
ASORCH_API uint32_t ASOrchInit(ASOrchHandle *handle);
ASORCH_API uint32_t ASOrchStart(ASOrchHandle *handle);
ASORCH_API uint32_t ASOrchModInitOk(ASOrchHandle *handle);
ASORCH_API void *ASOrchGetEalHdl(ASOrchHandle *handle);
ASORCH_API int32_t ASOrchGetEpollFd(ASOrchHandle *handle, uint32_t threadId);
ASORCH_API uint32_t ASOrchTimerInit(ASOrchHandle *handle, uintptr_t timerWord1, uintptr_t timerWord2,
                                    uintptr_t timerWord3, uint32_t threadId);
ASORCH_API uint32_t ASOrchSetOndemandParam(ASOrchHandle *handle, ASOrchOndemandPara para);
ASORCH_API uint32_t ASOrchAdvSetSynGrpVerifyInterVal(ASOrchHandle *handle, uint32_t grpIndex,
                                                     uint32_t verifyInterVal);
ASORCH_API uint32_t ASOrchAdvSetSynGrpNotifyFunc(ASOrchHandle *handle, uint32_t grpIndex,
                                                 ASOrchSyncGrpNotifyFunc notifyFunc);
ASORCH_API uint32_t ASOrchAdvSetSynGrpFlowCtrl(ASOrchHandle *handle, uint32_t grpIndex,
                                               const ASOrchSynGrpFlowCtrl *flowCtrl);
ASORCH_API uint32_t ASOrchGetOrchId(uint32_t *orchId);
ASORCH_API ASOrchHandle *ASOrchCreatHandle(const char *name, const ASOrchCreatePara *para);
ASORCH_API ASOrchHandle *ASOrchMallocHandle(const char *name, const ASOrchCreatePara *para);
ASORCH_API uint32_t ASOrchCreateEal(ASOrchHandle *handle);

/* Base registration. */
ASORCH_API uint32_t ASOrchRegBase(ASOrchHandle *handle, ASOrchBasePara *para);
ASORCH_API uint32_t ASOrchBaseProc(ASOrchHandle *handle, ASOrchBasePara *para);
ASORCH_API uint32_t ASOrchRegModStateRsp(ASOrchHandle *handle, ASOrchBasePara *para);

/* The seven steps in their order. */
#define ASORCH_BASE_STEP_NUM 7u
extern const ASOrchBaseStep g_ASOrchBaseStep[ASORCH_BASE_STEP_NUM];

/* Hot-patch hook and its reserved slot. */
ASORCH_API int32_t librix_autosync_orch_PAT_C2HSyncHookFunc(int32_t operCode, uint32_t unused, void *patchDesc,
                                                            uint32_t *handled);
ASORCH_API void librix_autosync_orch_ResPatchC2hActivefunc(void);
ASORCH_API void librix_autosync_orch_ResPatchC2hDeactivefunc(void);

ASORCH_EXTERN_C_END

#endif
