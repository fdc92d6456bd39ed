// The orchestrator handle: creation with its abstraction-layer instance, accessors,
// advanced sync-group settings, and destruction.
#include "core/eal_records.h"
#include "core/common.h"
#include "core/orch_internal.h"
#include "core/walk_guard.h"
#include "merge/merge_internal.h"
#include "rix_as_names.h"
#include "rix_platform.h"

namespace {

constexpr uint32_t kOndemandUnset = 0xFFFFFFFFu;

}  // namespace

namespace asorch {

void DestroyNow(ASOrchHandle *handle)
{
    RIX_AUTOSYNC_RixLog(ASORCH_LOG_INFO, "%s, Orch auto sync free begin.", handle->name);
    // Bring the DATA thread's drains to rest before anything they use is released.
    asorch::merge::Quiesce(handle);
    ASOrchFreeGrpRes(handle);
    ASOrchFreeTblMsg(handle);
    ASOrchFreeMergeHandle(handle);
    AutoSyncDelModule(handle->name, handle->memFree);
    if (handle->ealHdl != nullptr) {
        RIX_EAL_Destroy(handle->ealHdl);
        handle->ealHdl = nullptr;
    }
    ASOrchMemFreeFunc memFree = handle->memFree;
    memFree(handle);
    RIX_AUTOSYNC_RixLog(ASORCH_LOG_INFO, "Orch auto sync free ok.");
}

}  // namespace asorch

extern "C" {

uint32_t ASOrchCreateParaCheck(const char *name, const ASOrchCreatePara *para)
{
    return (name != nullptr && para != nullptr) ? 1u : 0u;
}

ASORCH_API uint32_t ASOrchGetOrchId(uint32_t *orchId)
{
    const COMP_VFunc *table = nullptr;
    const uint32_t ret = COMP_GetVTable(COMP_ID_ORCHPUB, COMP_VT_ORCHPUB, &table);
    if (ret != 0u || table == nullptr) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "failed to get orchpub vt table, ret = %u", ret);
        return ASORCH_ERR;
    }
    auto getOrchId = reinterpret_cast<ORCHPUB_GetOrchIdBySlotAndCpuFunc>(table[ORCHPUB_VT_GET_ORCHID_BY_SLOT_CPU]);
    if (getOrchId == nullptr) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "getOrchIdBySlotAndCpu is null");
        return ASORCH_ERR;
    }
    auto getSlot = reinterpret_cast<ORCHPUB_GetSlotFunc>(table[ORCHPUB_VT_GET_SLOT]);
    auto getCpu = reinterpret_cast<ORCHPUB_GetCpuFunc>(table[ORCHPUB_VT_GET_CPU]);
    if (getSlot == nullptr || getCpu == nullptr) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "failed to get orchpub vt table, ret = %u", ret);
        return ASORCH_ERR;
    }
    const uint32_t slot = getSlot();
    const uint32_t cpu = getCpu();
    return getOrchId(slot, cpu, orchId);
}

ASORCH_API ASOrchHandle *ASOrchMallocHandle(const char *name, const ASOrchCreatePara *para)
{
    if (ASOrchCreateParaCheck(name, para) == 0u || para->memAlloc == nullptr || para->memFree == nullptr) {
        return nullptr;
    }
    auto *handle = static_cast<ASOrchHandle *>(para->memAlloc(sizeof(ASOrchHandle)));
    if (handle == nullptr) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "%s, Orch autosync Memory Alloc Fail", name);
        return nullptr;
    }
    if (memset_s(handle, sizeof(*handle), 0, sizeof(*handle)) != 0 ||
        strcpy_s(handle->name, sizeof(handle->name), name) != 0) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "%s, Orch autosync Name Excceeds", name);
        para->memFree(handle);
        return nullptr;
    }
    handle->memAlloc = para->memAlloc;
    handle->memFree = para->memFree;
    handle->ealPara1 = para->ealPara1;
    handle->memPtNo = para->memPtNo;
    handle->ealPara2 = para->ealPara2;
    handle->ondemandParam.word[0] = kOndemandUnset;
    handle->ondemandParam.word[1] = kOndemandUnset;
    RIX_AUTOSYNC_RixLog(ASORCH_LOG_INFO, "%s, Create Orch autosync handle ok", handle->name);
    return handle;
}

ASORCH_API uint32_t ASOrchCreateEal(ASOrchHandle *handle)
{
    if (handle == nullptr) {
        return ASORCH_ERR;
    }
    uint32_t orchId = 0u;
    if (ASOrchGetOrchId(&orchId) != 0u) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "%s, get orch id error", handle->name);
        return ASORCH_ERR;
    }
    const ASOrchEalCreatePara para = {orchId, handle->ealPara1, handle->ealPara2, handle->memAlloc, handle->memFree};
    handle->ealHdl = RIX_EAL_Create(handle->name, asorch::EalRecord(&para));
    if (handle->ealHdl == nullptr) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "%s, Create Orch autosync eal Fail", handle->name);
        return ASORCH_ERR;
    }
    RIX_AUTOSYNC_RixLog(ASORCH_LOG_INFO, "%s, Create Orch autosync eal ok", handle->name);
    return ASORCH_OK;
}

ASORCH_API ASOrchHandle *ASOrchCreatHandle(const char *name, const ASOrchCreatePara *para)
{
    ASOrchHandle *handle = ASOrchMallocHandle(name, para);
    if (handle == nullptr) {
        return nullptr;
    }
    if (ASOrchCreateEal(handle) != 0u) {
        para->memFree(handle);
        return nullptr;
    }
    return handle;
}

ASORCH_API ASOrchHandle *ASOrchCreate(const char *name, const ASOrchCreatePara *para)
{
    if (ASOrchCreateParaCheck(name, para) == 0u) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "Create Orch autosync Fail, Param is Null");
        return nullptr;
    }
    if (ASNameCreatCheckValid(name, para->memAlloc, para->memFree) == 0u) {
        // The name may be longer than a line can hold; the bounded formatter then drops it.
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "%s, Create Orch autosync Fail,check not valid", name);
        return nullptr;
    }
    if (AutoSyncAddModule(name, para->memAlloc) != 0u) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "%s, Create Orch autosync Fail, add module fail", name);
        return nullptr;
    }
    ASOrchHandle *handle = ASOrchCreatHandle(name, para);
    if (handle == nullptr) {
        AutoSyncDelModule(name, para->memFree);
        return nullptr;
    }
    RIX_AUTOSYNC_RixLog(ASORCH_LOG_INFO, "%s, Orch autosync create success", handle->name);
    return handle;
}

ASORCH_API void ASOrchDestroy(ASOrchHandle *handle)
{
    if (handle == nullptr || handle->memFree == nullptr) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "Destroy Orch autosync Fail, handle or free func is NULL");
        return;
    }
    // Called back from one of our own walks: waiting for it here would wait for ourselves.
    if (asorch::DeferDestroy(handle)) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_INFO, "%s, Orch auto sync free deferred until the running callback returns.",
                            handle->name);
        return;
    }
    asorch::DestroyNow(handle);
}

ASORCH_API uint32_t ASOrchInit(ASOrchHandle *handle)
{
    if (handle == nullptr) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "Init Orch autosync Fail, handle is Null");
        return ASORCH_ERR;
    }
    if (handle->ealHdl == nullptr) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "%s, Init Orch autosync Fail, ealHdl is Null", handle->name);
        return ASORCH_ERR;
    }
    if (RIX_EAL_Init(handle->ealHdl) != 0u) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "%s, Init Orch autosync Fail", handle->name);
        return ASORCH_ERR;
    }
    RIX_AUTOSYNC_RixLog(ASORCH_LOG_INFO, "%s, Init Orch autosync ok", handle->name);
    return ASORCH_OK;
}

ASORCH_API uint32_t ASOrchStart(ASOrchHandle *handle)
{
    if (handle == nullptr) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "Start Orch autosync Fail, handle is Null");
        return ASORCH_ERR;
    }
    if (handle->ealHdl == nullptr) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "%s, Start Orch autosync Fail, ealHdl is Null", handle->name);
        return ASORCH_ERR;
    }
    if (RIX_EAL_Start(handle->ealHdl) != 0u) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "%s, Start Orch autosync Fail", handle->name);
        return ASORCH_ERR;
    }
    RIX_AUTOSYNC_RixLog(ASORCH_LOG_INFO, "%s, Start Orch autosync ok", handle->name);
    return ASORCH_OK;
}

ASORCH_API void *ASOrchGetEalHdl(ASOrchHandle *handle)
{
    if (handle == nullptr) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "Get Orch autosync eal hdl Fail, handle is NULL");
        return nullptr;
    }
    return handle->ealHdl;
}

ASORCH_API uint32_t ASOrchModInitOk(ASOrchHandle *handle)
{
    // A null handle has no name to print; the layer then answers for a null instance.
    RIX_AUTOSYNC_RixLog(ASORCH_LOG_INFO, "%s, Orch auto sync ModInitOk.", asorch::NameOf(handle));
    return RIX_EAL_ModInitOk(ASOrchGetEalHdl(handle));
}

ASORCH_API int32_t ASOrchGetEpollFd(ASOrchHandle *handle, uint32_t threadId)
{
    return RIX_EAL_GetEpollFd(ASOrchGetEalHdl(handle), threadId);
}

ASORCH_API uint32_t ASOrchTimerInit(ASOrchHandle *handle, uintptr_t timerWord1, uintptr_t timerWord2,
                                    uintptr_t timerWord3, uint32_t threadId)
{
    void *eal = ASOrchGetEalHdl(handle);
    if (eal == nullptr) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "%s, auto sync timer init Fail, ealHdl is NULL", asorch::NameOf(handle));
        return ASORCH_ERR;
    }
    const int32_t epFd = RIX_EAL_GetEpollFd(eal, threadId);
    if (RIX_TIMER_Create(timerWord1, timerWord2, timerWord3, epFd) < 0) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "%s, auto sync timer init Fail", handle->name);
        return ASORCH_ERR;
    }
    RIX_AUTOSYNC_RixLog(ASORCH_LOG_INFO, "%s, auto sync timer init ok", handle->name);
    return ASORCH_OK;
}

ASORCH_API uint32_t ASOrchSetOndemandParam(ASOrchHandle *handle, ASOrchOndemandPara para)
{
    if (handle == nullptr) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "Start Orch autosync Fail, handle is Null");
        return ASORCH_ERR;
    }
    handle->ondemandParam = para;
    return RIX_EAL_SetOndemandParam(handle->ealHdl, para.word[0], para.word[1]);
}

// The setters take effect only before the "SyncGroup" step reads them.
ASORCH_API uint32_t ASOrchAdvSetSynGrpVerifyInterVal(ASOrchHandle *handle, uint32_t grpIndex, uint32_t verifyInterVal)
{
    if (handle == nullptr || grpIndex >= ASORCH_SYNCGRP_NUM) {
        return ASORCH_ERR;
    }
    handle->synGrpAdv[grpIndex].verifyInterVal = verifyInterVal;
    return ASORCH_OK;
}

ASORCH_API uint32_t ASOrchAdvSetSynGrpNotifyFunc(ASOrchHandle *handle, uint32_t grpIndex,
                                                 ASOrchSyncGrpNotifyFunc notifyFunc)
{
    if (handle == nullptr || grpIndex >= ASORCH_SYNCGRP_NUM) {
        return ASORCH_ERR;
    }
    handle->synGrpAdv[grpIndex].notifyFunc = notifyFunc;
    return ASORCH_OK;
}

ASORCH_API uint32_t ASOrchAdvSetSynGrpFlowCtrl(ASOrchHandle *handle, uint32_t grpIndex,
                                               const ASOrchSynGrpFlowCtrl *flowCtrl)
{
    if (handle == nullptr || flowCtrl == nullptr || grpIndex >= ASORCH_SYNCGRP_NUM) {
        return ASORCH_ERR;
    }
    ASOrchSynGrpAdvPara &adv = handle->synGrpAdv[grpIndex];
    if (memcpy_s(&adv.flowCtrl, sizeof(adv.flowCtrl), flowCtrl, sizeof(*flowCtrl)) != 0) {
        return ASORCH_ERR;
    }
    adv.flowCtrlValid = 1u;
    return ASORCH_OK;
}
}
