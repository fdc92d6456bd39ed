// The base registration pipeline: seven steps in a fixed order, stopping at the first
// failure without undoing the steps before it.
#include "rix_as_orch.h"
#include "rix_eal.h"

extern "C" {

// "channel" reads the thread mask that "RegThread" stores, so the order is part of the contract.
const ASOrchBaseStep g_ASOrchBaseStep[ASORCH_BASE_STEP_NUM] = {
    {"RegThread", ASOrchRegThread},     {"ModStateRsp", ASOrchRegModStateRsp}, {"SyncGroup", ASOrchRegSyncGrpBase},
    {"ReservePort", ASOrchReservePort}, {"channel", ASOrchRegBaseChan},        {"TblMsg", ASOrchRegTblMsg},
    {"MergeMQue", ASOrchRegMerge},
};

ASORCH_API uint32_t ASOrchRegModStateRsp(ASOrchHandle *handle, ASOrchBasePara *para)
{
    if (handle == nullptr || para == nullptr) {
        return ASORCH_ERR;
    }
    RIX_AUTOSYNC_RixLog(ASORCH_LOG_INFO, "%s, Orch autosync register module state rsp", handle->name);
    return RIX_EAL_RegModStateRsp(handle->ealHdl, para->modStateRsp[0], para->modStateRsp[1]);
}

ASORCH_API uint32_t ASOrchBaseProc(ASOrchHandle *handle, ASOrchBasePara *para)
{
    if (handle == nullptr || para == nullptr) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "Register Orch autosync base Fail, Param is Null");
        return ASORCH_ERR;
    }
    for (const ASOrchBaseStep &row : g_ASOrchBaseStep) {
        if (row.step(handle, para) != 0u) {
            RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "%s, Register Orch autosync base Fail, %s fail", handle->name,
                                row.name);
            return ASORCH_ERR;
        }
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_INFO, "%s, Register Orch autosync base, %s ok", handle->name, row.name);
    }
    RIX_AUTOSYNC_RixLog(ASORCH_LOG_INFO, "%s, Orch autosync register base success", handle->name);
    return ASORCH_OK;
}

ASORCH_API uint32_t ASOrchRegBase(ASOrchHandle *handle, ASOrchBasePara *para)
{
    if (handle == nullptr || para == nullptr) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "Register Orch autosync base Fail, Param is Null");
        return ASORCH_ERR;
    }
    return ASOrchBaseProc(handle, para);
}
}
