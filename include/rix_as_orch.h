/* The orchestrator: handle, lifecycle, accessors and base registration. */
#ifndef RIX_AS_ORCH_H
#define RIX_AS_ORCH_H

#include "rix_as_common.h"
#include "rix_as_chan.h"
#include "rix_as_tblmsg.h"
#include "rix_as_merge.h"
#include "rix_as_syncgrp.h"

ASORCH_EXTERN_C_BEGIN

#define ASORCH_NAME_SIZE 16u /* module names have at most 15 characters */

/* Create parameters: five words. ealPara1, ealPara2 and memPtNo are the platform's and pass
 * unchanged to the abstraction layer and to the merge queues' hash service; memAlloc and
 * memFree are required and kept for the orchestrator's whole life. */
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

/* The module's overrides of one logical sync group, set with the ASOrchAdvSetSynGrp* setters
 * before ASOrchRegBase (step "SyncGroup" reads them once). */
typedef struct ASOrchSynGrpAdvPara {
    uint32_t verifyInterVal;            /* 0: keep the default */
    ASOrchSyncGrpNotifyFunc notifyFunc; /* null: keep the default */
    uint32_t flowCtrlValid;
    ASOrchSynGrpFlowCtrl flowCtrl;
} ASOrchSynGrpAdvPara;

struct ASOrchMergeHandle;

struct ASOrchHandle {
    char name[ASORCH_NAME_SIZE]; /* first: the handle stands for its name */
    uint32_t ealPara1;
    uint32_t memPtNo;
    uint32_t ealPara2;
    ASOrchMemAllocFunc memAlloc;
    ASOrchMemFreeFunc memFree;
    void *ealHdl;
    ASOrchSyncGrpRes *syncGrpRes;
    struct ASOrchMergeHandle *mergeHandle; /* two entries: DAM, FES */
    uint32_t threadMask;
    void *tblMsgRecvHash;
    void *tblMsgTransHash;
    ASOrchSynGrpAdvPara synGrpAdv[ASORCH_SYNCGRP_NUM];
    ASOrchOndemandPara ondemandParam;
};

/* Base parameters: everything the orchestrator serves, registered by ASOrchRegBase, which
 * copies what it keeps. Required: bit ASORCH_THREAD_DATA in threadMask, syncGrpMsgSet[0]
 * non-zero, and a non-zero realServerPort in at least one of chanPort[0..3] (0 leaves that
 * one channel out, but a record without any channel fails step "channel"). Everything else
 * may stay 0.
 *   recvTblMsg[0], [1]: two lists of ASOrchTblMsgRecvReg feeding one registry keyed by
 *       msgId (a msgId may appear once across both); split them as is convenient.
 *   transTblMsg[i]: lists of ASOrchTblMsgTransReg; the index is the table layout in the
 *       transfer message: [0] DAM layout (entries right behind the TLV header), [1] FES
 *       layout (an 8-byte FES header before the entries), see ASOrchFesTblParsePack.
 *   mergeMque[0] DAM, [1] FES: the merge queues; a registration without messages or
 *       without hashFunc leaves that channel out, silently. */
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

/* ---- Lifecycle and accessors ---- */

/* One orchestrator per module. The name (at most 15 characters) must be unused in the process;
 * it is copied into the handle, which is allocated through para->memAlloc, and names the
 * channels, threads and merge queues. Creates the abstraction-layer instance with the id of
 * the platform's "orchpub" table. Null on any failure (logged); a failure leaves nothing
 * allocated and the name free. */
ASORCH_API ASOrchHandle *ASOrchCreate(const char *name, const ASOrchCreatePara *para);
/* Releases everything the orchestrator holds, pending merged records included (they are not
 * processed; each queue that still held records logs "... reader list is not empty!"), removes
 * the name and destroys the abstraction-layer instance; safe after a failed or missing
 * ASOrchRegBase; a null handle is logged and ignored. It first brings the DATA thread's drains
 * to rest (both merge-queue readers taken out, a drain already running waited for, water-mark
 * reactions silenced), so a running msgProc may still send; no module callback runs after the
 * release. Called from inside a callback that the orchestrator runs (a drain's msgProc, a
 * processing function of ASOrchMsgProc), it is detected on that thread and deferred: it logs
 * "%s, Orch auto sync free deferred until the running callback returns." and returns at once,
 * the rest of that drain's batch is released unprocessed, the rest of that message skipped, and
 * the release runs when the callback's walk returns. Either way the handle must not be used
 * after the call. Before calling it the module stops calling ASOrchMsgProc, ASOrchSync*,
 * ASOrchMergeSyncGrpDatas and the back-press functions from its own threads, and calls it once. */
ASORCH_API void ASOrchDestroy(ASOrchHandle *handle);
/* Handed on to RIX_EAL_Init / RIX_EAL_Start; 1 for a null handle, no instance or a refusal.
 * After ASOrchStart the layer's threads run their loops: channels deliver and merge queues
 * drain on their own. */
ASORCH_API uint32_t ASOrchInit(ASOrchHandle *handle);
ASORCH_API uint32_t ASOrchStart(ASOrchHandle *handle);
/* Tells the layer the module is ready; the layer's result unchanged. */
ASORCH_API uint32_t ASOrchModInitOk(ASOrchHandle *handle);
ASORCH_API void *ASOrchGetEalHdl(ASOrchHandle *handle);
/* The epoll descriptor of thread threadId (ASORCH_THREAD_*), the layer's result unchanged. */
ASORCH_API int32_t ASOrchGetEpollFd(ASOrchHandle *handle, uint32_t threadId);
/* Registers a platform timer (its three words pass unchanged) on the epoll set of threadId;
 * its callback runs on that thread. */
ASORCH_API uint32_t ASOrchTimerInit(ASOrchHandle *handle, uintptr_t timerWord1, uintptr_t timerWord2,
                                    uintptr_t timerWord3, uint32_t threadId);
/* Keeps both words and returns the layer's result unchanged. */
ASORCH_API uint32_t ASOrchSetOndemandParam(ASOrchHandle *handle, ASOrchOndemandPara para);
/* Per-group overrides (grpIndex 0 to 3; 1 above that or for a null handle, nothing logged).
 * They take effect only when made before ASOrchRegBase. A verifyInterVal of 0 or a null
 * notifyFunc keeps the default; a flow-control record is copied and replaces group 0's
 * default, or gives one of groups 1 to 3 (when selected) its own. */
ASORCH_API uint32_t ASOrchAdvSetSynGrpVerifyInterVal(ASOrchHandle *handle, uint32_t grpIndex, uint32_t verifyInterVal);
ASORCH_API uint32_t ASOrchAdvSetSynGrpNotifyFunc(ASOrchHandle *handle, uint32_t grpIndex,
                                                 ASOrchSyncGrpNotifyFunc notifyFunc);
ASORCH_API uint32_t ASOrchAdvSetSynGrpFlowCtrl(ASOrchHandle *handle, uint32_t grpIndex,
                                               const ASOrchSynGrpFlowCtrl *flowCtrl);
/* The parts of ASOrchCreate (orchestrator id, handle allocation, layer instance). */
ASORCH_API uint32_t ASOrchGetOrchId(uint32_t *orchId);
ASORCH_API ASOrchHandle *ASOrchCreatHandle(const char *name, const ASOrchCreatePara *para);
ASORCH_API ASOrchHandle *ASOrchMallocHandle(const char *name, const ASOrchCreatePara *para);
ASORCH_API uint32_t ASOrchCreateEal(ASOrchHandle *handle);

/* ---- Base registration ---- */

/* Runs the seven steps of g_ASOrchBaseStep in order, logging "%s, Register Orch autosync
 * base, %s ok" for each; at the first failure logs which step failed and returns 1, leaving
 * what earlier steps registered for ASOrchDestroy. Once, between ASOrchCreate and ASOrchInit.
 * A 0 result does not promise that everything is in place:
 *   - a sync group that the layer refuses (RIX_EAL_RegSyncGroup) is logged ("RIX_EAL reg
 *     SyncGroup Fail.") and registration goes on without it;
 *   - on a process without the mb role (RIX_EAL_SelfRoleIsMb 0) no table message is
 *     registered: every receive message is later dropped as unknown, every transfer TLV fails
 *     its lookup;
 *   - a merge registration without messages or hashFunc leaves its channel out unlogged;
 *   - a receive record with ipcSize 0, or one without userDefProc whose keySize exceeds
 *     ipcSize, is accepted here, and every message of that msgId then fails in
 *     ASOrchMsgProc (result 1, "msgLen is not multi of ipcSize..." or "tblmsg key exceeds
 *     record...", nothing processed). */
ASORCH_API uint32_t ASOrchRegBase(ASOrchHandle *handle, ASOrchBasePara *para);
/* ASOrchRegBase without its null test. */
ASORCH_API uint32_t ASOrchBaseProc(ASOrchHandle *handle, ASOrchBasePara *para);
/* Step "ModStateRsp": both words to RIX_EAL_RegModStateRsp; the layer's result unchanged. */
ASORCH_API uint32_t ASOrchRegModStateRsp(ASOrchHandle *handle, ASOrchBasePara *para);

/* The seven steps in their order. */
#define ASORCH_BASE_STEP_NUM 7u
extern const ASOrchBaseStep g_ASOrchBaseStep[ASORCH_BASE_STEP_NUM];

/* Hot-patch hook and its reserved slot: called by the platform's patch framework, not by a
 * module. */
ASORCH_API int32_t librix_autosync_orch_PAT_C2HSyncHookFunc(int32_t operCode, uint32_t unused, void *patchDesc,
                                                            uint32_t *handled);
ASORCH_API void librix_autosync_orch_ResPatchC2hActivefunc(void);
ASORCH_API void librix_autosync_orch_ResPatchC2hDeactivefunc(void);

ASORCH_EXTERN_C_END

#endif
