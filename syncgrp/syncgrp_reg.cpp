// Sync groups: the default rows, their adjustment to the module's settings and threads,
// the selection and numbering of groups, and their registration with the layer.
#include "core/common.h"
#include "core/eal_records.h"
#include "rix_platform.h"
#include "syncgrp/syncgrp_bit.h"

namespace {

constexpr uint32_t kAttr6 = 0x3FFFFFFFu;  // the same in every row
constexpr uint32_t kVerifyIntervalMs = 2000u;
constexpr uint32_t kRowsBytes = static_cast<uint32_t>(sizeof(ASOrchSyncGrpPara) * ASORCH_SYNCGRP_NUM);

ASOrchSyncGrpPara *AllocRows(const ASOrchHandle *handle)
{
    return handle->memAlloc != nullptr ? static_cast<ASOrchSyncGrpPara *>(handle->memAlloc(kRowsBytes)) : nullptr;
}

void FreeRows(const ASOrchHandle *handle, ASOrchSyncGrpPara *rows)
{
    if (rows != nullptr && handle->memFree != nullptr) {
        handle->memFree(rows);
    }
}

}  // namespace

extern "C" {

// The attr words are the layer's own and pass unchanged; only the thread ids and the verify
// interval are the orchestrator's.
// A row a group.
// clang-format off
const ASOrchSyncGrpPara g_rixOrchAutoSyncGrpParam[ASORCH_SYNCGRP_NUM] = {
    {.grpId = 0u, .attr1 = 1u, .attr2 = 30u, .logicThreadId = ASORCH_THREAD_DATA,
     .commThreadId = ASORCH_THREAD_SYNC, .attr5 = 0u, .attr6 = kAttr6, .attr7 = 1u, .attr8 = 100u,
     .attr9 = 1u, .verifyInterVal = kVerifyIntervalMs, .attr11 = 50u, .attr12 = 50u, .notifyFunc = nullptr},
    {.grpId = 1u, .attr1 = 6u, .attr2 = 1u, .logicThreadId = ASORCH_THREAD_DATA,
     .commThreadId = ASORCH_THREAD_SYNC, .attr5 = 0u, .attr6 = kAttr6, .attr7 = 0u, .attr8 = 0u,
     .attr9 = 0u, .verifyInterVal = 0u, .attr11 = 0u, .attr12 = 0u, .notifyFunc = nullptr},
    {.grpId = 2u, .attr1 = 1u, .attr2 = 30u, .logicThreadId = ASORCH_THREAD_EVENT,
     .commThreadId = ASORCH_THREAD_SYNC, .attr5 = 0u, .attr6 = kAttr6, .attr7 = 1u, .attr8 = 100u,
     .attr9 = 1u, .verifyInterVal = kVerifyIntervalMs, .attr11 = 50u, .attr12 = 50u, .notifyFunc = nullptr},
    {.grpId = 3u, .attr1 = 6u, .attr2 = 1u, .logicThreadId = ASORCH_THREAD_EVENT,
     .commThreadId = ASORCH_THREAD_EVENT, .attr5 = 0u, .attr6 = kAttr6, .attr7 = 0u, .attr8 = 0u,
     .attr9 = 0u, .verifyInterVal = 0u, .attr11 = 0u, .attr12 = 0u, .notifyFunc = nullptr},
};
// clang-format on
ASORCH_LAYOUT_ASSERT(sizeof(g_rixOrchAutoSyncGrpParam) == 224, "default rows are 224 bytes");

uint32_t ASOrchSynGrpBitTest(uint32_t id, uint32_t bitmap)
{
    return (id < ASORCH_SYNCGRP_NUM && ((bitmap >> id) & 1u) != 0u) ? 1u : 0u;
}

ASORCH_API uint32_t ASOrchMallocGrpRes(ASOrchHandle *handle)
{
    if (handle == nullptr) {
        return ASORCH_ERR;
    }
    if (handle->syncGrpRes != nullptr) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_INFO, "%s, Register Orch autosync syncGrpRes exist", handle->name);
        return ASORCH_OK;
    }
    auto *res = handle->memAlloc != nullptr
                    ? static_cast<ASOrchSyncGrpRes *>(handle->memAlloc(sizeof(ASOrchSyncGrpRes)))
                    : nullptr;
    if (res == nullptr) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "%s, Register Orch autosync malloc syncGrpRes fail", handle->name);
        return ASORCH_ERR;
    }
    res->grpBitmap = 0u;
    res->grpNum = 0u;
    for (int32_t &id : res->grpId) {
        id = -1;
    }
    handle->syncGrpRes = res;
    RIX_AUTOSYNC_RixLog(ASORCH_LOG_INFO, "%s, Register Orch autosync malloc syncGrpRes ok", handle->name);
    return ASORCH_OK;
}

ASORCH_API void ASOrchFreeGrpRes(ASOrchHandle *handle)
{
    if (handle == nullptr || handle->syncGrpRes == nullptr) {
        return;
    }
    handle->memFree(handle->syncGrpRes);
    handle->syncGrpRes = nullptr;
    RIX_AUTOSYNC_RixLog(ASORCH_LOG_INFO, "%s, Sync group free res ok.", handle->name);
}

ASORCH_API void ASOrchSetUserDefSyncGrpPara(ASOrchHandle *handle, ASOrchSyncGrpPara rows[ASORCH_SYNCGRP_NUM])
{
    if (handle == nullptr || rows == nullptr) {
        return;
    }
    for (uint32_t i = 0; i < ASORCH_SYNCGRP_NUM; ++i) {
        const ASOrchSynGrpAdvPara &adv = handle->synGrpAdv[i];
        if (adv.verifyInterVal != 0u) {
            rows[i].verifyInterVal = adv.verifyInterVal;
        }
        if (adv.notifyFunc != nullptr) {
            rows[i].notifyFunc = adv.notifyFunc;
        }
    }
}

ASORCH_API void ASOrchResetBaseLogicThd(ASOrchSyncGrpPara *rows, uint32_t n)
{
    for (uint32_t i = 0; rows != nullptr && i < n; ++i) {
        rows[i].logicThreadId = ASORCH_THREAD_DATA;
    }
}

ASORCH_API void ASOrchResetBaseCommThd(ASOrchSyncGrpPara *rows, uint32_t n)
{
    for (uint32_t i = 0; rows != nullptr && i < n; ++i) {
        rows[i].commThreadId = rows[i].logicThreadId;
    }
}

ASORCH_API ASOrchSyncGrpPara *ASOrchGetBaseSynGrpPara(ASOrchHandle *handle, ASOrchBasePara *para)
{
    if (handle == nullptr || para == nullptr) {
        return nullptr;
    }
    ASOrchSyncGrpPara *rows = AllocRows(handle);
    if (rows == nullptr) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "malloc SyncGroup Fail.");
        return nullptr;
    }
    if (memcpy_s(rows, kRowsBytes, g_rixOrchAutoSyncGrpParam, sizeof(g_rixOrchAutoSyncGrpParam)) != 0) {
        FreeRows(handle, rows);
        return nullptr;
    }
    ASOrchSetUserDefSyncGrpPara(handle, rows);
    // Without an EVENT thread everything runs its logic on DATA; without a SYNC thread each
    // group communicates on its logic thread.
    if (!asorch::HasThread(para->threadMask, ASORCH_THREAD_EVENT)) {
        ASOrchResetBaseLogicThd(rows, ASORCH_SYNCGRP_NUM);
    }
    if (!asorch::HasThread(para->threadMask, ASORCH_THREAD_SYNC)) {
        ASOrchResetBaseCommThd(rows, ASORCH_SYNCGRP_NUM);
    }
    return rows;
}

ASORCH_API uint32_t ASOrchGetSynGrpBitmap(ASOrchSyncGrpRes *res, const uint32_t msgSet[ASORCH_SYNCGRP_NUM])
{
    if (res == nullptr || msgSet == nullptr || msgSet[0] == 0u) {
        return ASORCH_ERR;
    }
    uint32_t bitmap = 1u;
    for (uint32_t i = 1; i < ASORCH_SYNCGRP_NUM; ++i) {
        if (msgSet[i] != 0u) {
            bitmap |= 1u << i;
        }
    }
    res->grpBitmap |= bitmap;
    return ASORCH_OK;
}

ASORCH_API void ASOrchSetGrpItem(ASOrchSyncGrpPara *dst, const ASOrchSyncGrpPara *src, const uint32_t *id)
{
    if (dst == nullptr || src == nullptr || id == nullptr) {
        return;
    }
    *dst = *src;
    dst->grpId = *id;
}

ASORCH_API void ASOrchSetSynGrpBase(ASOrchSyncGrpRes *res, const ASOrchSyncGrpPara *rows, uint32_t n,
                                    ASOrchSyncGrpPara *out, uint32_t *count)
{
    if (res == nullptr || rows == nullptr || out == nullptr || count == nullptr) {
        return;
    }
    uint32_t num = 0u;
    for (uint32_t i = 0; i < n; ++i) {
        const uint32_t logical = rows[i].grpId;
        if (ASOrchSynGrpBitTest(logical, res->grpBitmap) == 0u) {
            continue;
        }
        res->grpId[logical] = static_cast<int32_t>(num);
        ASOrchSetGrpItem(&out[num], &rows[i], &num);
        ++num;
    }
    res->grpNum = num;
    *count = num;
}

ASORCH_API uint32_t ASOrchSetBaseSynGrpPara(ASOrchHandle *handle, ASOrchBasePara *para, ASOrchSyncGrpPara **rows,
                                            uint32_t *count)
{
    if (handle == nullptr || para == nullptr || rows == nullptr || count == nullptr) {
        return ASORCH_ERR;
    }
    ASOrchSyncGrpPara *out = AllocRows(handle);
    if (out == nullptr) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "%s, malloc SyncGroup Fail.", handle->name);
        return ASORCH_ERR;
    }
    if (memset_s(out, kRowsBytes, 0, kRowsBytes) != 0) {
        FreeRows(handle, out);
        return ASORCH_ERR;
    }
    ASOrchSyncGrpPara *defaults = ASOrchGetBaseSynGrpPara(handle, para);
    if (defaults == nullptr) {
        FreeRows(handle, out);
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "%s, GetBaseSynGrpPara Fail.", handle->name);
        return ASORCH_ERR;
    }
    if (ASOrchGetSynGrpBitmap(handle->syncGrpRes, para->syncGrpMsgSet) != 0u) {
        FreeRows(handle, defaults);
        FreeRows(handle, out);
        return ASORCH_ERR;
    }
    ASOrchSetSynGrpBase(handle->syncGrpRes, defaults, ASORCH_SYNCGRP_NUM, out, count);
    FreeRows(handle, defaults);
    *rows = out;
    return ASORCH_OK;
}

ASORCH_API uint32_t ASOrchSyncGroupRegister(void *ealHdl, const ASOrchSyncGrpPara *rows, uint32_t count)
{
    if (rows == nullptr && count != 0u) {
        return ASORCH_ERR;
    }
    for (uint32_t i = 0; i < count; ++i) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_INFO, "Sync group id %u set ok. logicThreadId = %u, commThreadId = %u",
                            rows[i].grpId, rows[i].logicThreadId, rows[i].commThreadId);
    }
    if (RIX_EAL_RegSyncGroup(ealHdl, asorch::EalRecord(rows), count) != 0u) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "RIX_EAL reg SyncGroup Fail.");
        return ASORCH_ERR;
    }
    return ASORCH_OK;
}

ASORCH_API uint32_t ASOrchSyncGrpSetBase(ASOrchHandle *handle, ASOrchBasePara *para)
{
    if (handle == nullptr || para == nullptr) {
        return ASORCH_ERR;
    }
    ASOrchSyncGrpPara *rows = nullptr;
    uint32_t count = 0u;
    if (ASOrchSetBaseSynGrpPara(handle, para, &rows, &count) != 0u || rows == nullptr) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "Calc SyncGroup Fail.");
        return ASORCH_ERR;
    }
    // A refusal by the layer is reported but does not stop the step.
    if (ASOrchSyncGroupRegister(handle->ealHdl, rows, count) != 0u) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "%s, Sync group set base group fail.", handle->name);
    } else {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_INFO, "%s, Sync group set base group ok.", handle->name);
    }
    FreeRows(handle, rows);
    return ASORCH_OK;
}

ASORCH_API uint32_t ASOrchSyncGrpMsgSetBase(ASOrchHandle *handle, ASOrchBasePara *para)
{
    if (handle == nullptr || para == nullptr) {
        return ASORCH_ERR;
    }
    const ASOrchSyncGrpRes *res = handle->syncGrpRes;
    if (res == nullptr) {
        return ASORCH_ERR;
    }
    for (uint32_t i = 0; i < ASORCH_SYNCGRP_NUM; ++i) {
        const uint32_t msgSet = para->syncGrpMsgSet[i];
        if (msgSet == 0u) {
            continue;
        }
        const auto grpId = static_cast<uint32_t>(res->grpId[i]);
        if (RIX_EAL_RegSyncGrpMsgSet(handle->ealHdl, grpId, msgSet) != 0u) {
            RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "%s, syncGrpId = %u, auto sync reg SyncGroupMsgSet Fail.",
                                handle->name, grpId);
            return ASORCH_ERR;
        }
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_INFO, "%s, syncGrpId = %u, auto sync register SyncGroupMsgSet ok.", handle->name,
                            grpId);
    }
    return ASORCH_OK;
}

ASORCH_API uint32_t ASOrchRegSyncGrpBase(ASOrchHandle *handle, ASOrchBasePara *para)
{
    if (handle == nullptr || para == nullptr) {
        return ASORCH_ERR;
    }
    if (ASOrchMallocGrpRes(handle) != 0u) {
        return ASORCH_ERR;
    }
    if (ASOrchSyncGrpSetBase(handle, para) != 0u || ASOrchSyncGrpMsgSetBase(handle, para) != 0u) {
        ASOrchFreeGrpRes(handle);
        return ASORCH_ERR;
    }
    (void)ASOrchSetSynGrpFlowCtrl(handle);
    RIX_AUTOSYNC_RixLog(ASORCH_LOG_INFO, "%s, Orch auto sync Register SyncGroup base ok.", handle->name);
    return ASORCH_OK;
}

ASORCH_API ASOrchSyncGrpRes *ASOrchGroupGetRes(ASOrchHandle *handle)
{
    if (handle == nullptr) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "%s, Orch autosync msg Fail, handle is Null", asorch::kNoName);
        return nullptr;
    }
    if (handle->syncGrpRes == nullptr) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "%s, Orch autosync msg Fail, syncGrpRes is Null", handle->name);
        return nullptr;
    }
    return handle->syncGrpRes;
}

ASORCH_API int32_t ASOrchGetSyncGrpId(ASOrchHandle *handle, uint32_t grpIndex)
{
    const ASOrchSyncGrpRes *res = ASOrchGroupGetRes(handle);
    if (res == nullptr) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "%s, Orch autosync sync group res is NULL", asorch::NameOf(handle));
        return -1;
    }
    return grpIndex < ASORCH_SYNCGRP_NUM ? res->grpId[grpIndex] : -1;
}
}
