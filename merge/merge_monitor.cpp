// Water-mark reactions of the merge queues: throttle the channel (mb role) or sync group 0.
#include "merge/merge_internal.h"

#include "core/common.h"

#include "rix_platform.h"

namespace {

constexpr uint32_t kBackPressGrp = 0u;

}  // namespace

extern "C" {

ASORCH_API void ASOrchMqueHighWaterWithoutSyncThread(ASOrchHandle *handle)
{
    if (handle == nullptr) {
        return;
    }
    if (!asorch::HasThread(handle->threadMask, ASORCH_THREAD_SYNC)) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "%s, mb mque high water. suggest config syncGrp sync thread",
                            handle->name);
    }
}

ASORCH_API uint32_t ASOrchMonitorHighWater(ASOrchHandle *handle, uint32_t chan)
{
    if (handle == nullptr) {
        return ASORCH_ERR;
    }
    if (RIX_EAL_SelfRoleIsMb(handle->ealHdl) != 0u) {
        ASOrchMqueHighWaterWithoutSyncThread(handle);
        return RIX_CHAN_BackPress(RIX_EAL_GetChannelHdl(handle->ealHdl, chan));
    }
    const int32_t id = ASOrchGetSyncGrpId(handle, kBackPressGrp);
    if (id == -1) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "%s, Monitor HighWater sync groupid Fail", handle->name);
        return ASORCH_ERR;
    }
    return RIX_EAL_SyncBackPress(handle->ealHdl, static_cast<uint32_t>(id));
}

ASORCH_API uint32_t ASOrchMonitorLowWater(ASOrchHandle *handle, uint32_t chan)
{
    if (handle == nullptr) {
        return ASORCH_ERR;
    }
    if (RIX_EAL_SelfRoleIsMb(handle->ealHdl) != 0u) {
        return RIX_CHAN_UnBackPress(RIX_EAL_GetChannelHdl(handle->ealHdl, chan));
    }
    const int32_t id = ASOrchGetSyncGrpId(handle, kBackPressGrp);
    if (id == -1) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "%s, Monitor LowWater sync groupid Fail", handle->name);
        return ASORCH_ERR;
    }
    return RIX_EAL_SyncUnBackPress(handle->ealHdl, static_cast<uint32_t>(id));
}

ASORCH_API uint32_t ASOrchMergeFesDamMonitorProc(uint32_t evtType, void *notifyPara, uint32_t chan)
{
    if (notifyPara == nullptr) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "Orch autosync MQue Monitor error usrData is NULL");
        return ASORCH_ERR;
    }
    auto *handle = static_cast<ASOrchHandle *>(notifyPara);
    RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "Orch autosync MQUE monitor : %u, channelId %u.", evtType, chan);
    switch (evtType) {
        case MERGEQUE_EVT_OVER_HIGH_WATER:
            return ASOrchMonitorHighWater(handle, chan);
        case MERGEQUE_EVT_UNDER_LOW_WATER:
            return ASOrchMonitorLowWater(handle, chan);
        default:
            RIX_AUTOSYNC_RixLog(ASORCH_LOG_INFO, "Orch autosync MQUE Monitor error evtType : %u, channelId %u.",
                                evtType, chan);
            return ASORCH_OK;
    }
}

ASORCH_API uint32_t ASOrchMergeDamMonitorProc(uint32_t evtType, void *notifyPara)
{
    return ASOrchMergeFesDamMonitorProc(evtType, notifyPara, ASORCH_MERGE_CHAN_DAM);
}

ASORCH_API uint32_t ASOrchMergeFesMonitorProc(uint32_t evtType, void *notifyPara)
{
    return ASOrchMergeFesDamMonitorProc(evtType, notifyPara, ASORCH_MERGE_CHAN_FES);
}
}
