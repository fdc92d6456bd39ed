// Flow control of the registered sync groups, and sending to the peer through them.
#include "core/common.h"
#include "core/eal_records.h"
#include "rix_platform.h"

namespace {

// Group 0 always gets flow control: this record unless the module set its own.
constexpr ASOrchSynGrpFlowCtrl kDefaultFlowCtrl = {{0u, 0u, 0u, 0u, 0u, 0u, 65536u, 51200u, 25600u, 0u, 0u, 0u}};

}  // namespace

extern "C" {

ASORCH_API uint32_t ASOrchSetSynGrpFlowCtrl(ASOrchHandle *handle)
{
    if (handle == nullptr) {
        return ASORCH_ERR;
    }
    const ASOrchSynGrpAdvPara &first = handle->synGrpAdv[0];
    const ASOrchSynGrpFlowCtrl *flowCtrl = first.flowCtrlValid == 1u ? &first.flowCtrl : &kDefaultFlowCtrl;
    const int32_t id0 = ASOrchGetSyncGrpId(handle, 0u);
    (void)RIX_EAL_SetSyncGrpFlowCtl(handle->ealHdl, static_cast<uint32_t>(id0), asorch::EalRecord(flowCtrl));
    for (uint32_t i = 1; i < ASORCH_SYNCGRP_NUM; ++i) {
        const ASOrchSynGrpAdvPara &adv = handle->synGrpAdv[i];
        if (adv.flowCtrlValid != 1u) {
            continue;
        }
        const int32_t id = ASOrchGetSyncGrpId(handle, i);
        if (id != -1) {
            (void)RIX_EAL_SetSyncGrpFlowCtl(handle->ealHdl, static_cast<uint32_t>(id),
                                            asorch::EalRecord(&adv.flowCtrl));
        }
    }
    return ASORCH_OK;
}

ASORCH_API uint32_t ASOrchSyncBatchMsg(ASOrchHandle *handle, uint32_t grpIndex, void *msgs, uint32_t count)
{
    const int32_t id = ASOrchGetSyncGrpId(handle, grpIndex);
    if (id == -1) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "%s, Orch autosync msg Fail, sync groupid Fail msgType = %u",
                            asorch::NameOf(handle), grpIndex);
        return ASORCH_ERR;
    }
    return RIX_EAL_SyncMsg(handle->ealHdl, static_cast<uint32_t>(id), msgs, count);
}

ASORCH_API uint32_t ASOrchSyncMsg(ASOrchHandle *handle, uint32_t grpIndex, void *msg)
{
    return ASOrchSyncBatchMsg(handle, grpIndex, msg, 1u);
}

ASORCH_API uint32_t ASOrchSyncMsgToGrp(ASOrchHandle *handle, uint32_t offset, void *msg)
{
    const ASOrchSyncGrpRes *res = ASOrchGroupGetRes(handle);
    if (res == nullptr) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "%s, Orch autosync msg Fail, sync group res is NULL",
                            asorch::NameOf(handle));
        return ASORCH_ERR;
    }
    return RIX_EAL_SyncMsg(handle->ealHdl, res->grpNum + offset, msg, 1u);
}
}
