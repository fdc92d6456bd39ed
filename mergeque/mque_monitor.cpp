// Water marks (with hysteresis) and back-pressure of the reader.
#include "mergeque/mque_internal.h"

using namespace asorch::mque;

extern "C" {

ASORCH_API uint32_t RIX_MergeQueMonitorCheck(const MergeQueCb *q, const MergeQueMonitorAttr *attr)
{
    if (q == nullptr || attr == nullptr) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "MonitorReg failed, para is null, mqueHandle: %u, monitorAttr: %u.",
                            q == nullptr ? 1u : 0u, attr == nullptr ? 1u : 0u);
        return ASORCH_ERR;
    }
    if (attr->highWater <= attr->lowWater) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "merge queue %s MonitorReg failed, highWater(%u) less than lowWater(%u).",
                            q->name, attr->highWater, attr->lowWater);
        return ASORCH_ERR;
    }
    if (attr->flowCtrlNotify == nullptr) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "merge queue %s MonitorReg failed, flowCtrlNotify is null.", q->name);
        return ASORCH_ERR;
    }
    return ASORCH_OK;
}

ASORCH_API uint32_t RIX_MergeQueMonitorReg(MergeQueCb *q, const MergeQueMonitorAttr *attr)
{
    if (RIX_MergeQueMonitorCheck(q, attr) != ASORCH_OK) {
        return ASORCH_ERR;
    }
    q->highWater = attr->highWater;
    q->lowWater = attr->lowWater;
    q->flowCtrlNotify = attr->flowCtrlNotify;
    q->notifyPara = attr->notifyPara;
    q->overLoad = 0u;
    RIX_AUTOSYNC_RixLog(ASORCH_LOG_INFO, "merge queue %s MonitorReg ok.", q->name);
    return ASORCH_OK;
}

ASORCH_API void RIX_MergeQueMonitorWrite(MergeQueCb *q)
{
    MonitorWrite(q);
}

ASORCH_API void RIX_MergeQueMonitorRemove(MergeQueCb *q)
{
    MonitorRemove(q);
}

ASORCH_API uint32_t RIX_MergeQueBackPress(MergeQueCb *q, uint32_t para)
{
    if (q == nullptr) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "merge queue BackPress failed, handle is null.");
        return ASORCH_ERR;
    }
    RIX_MergeQueEpollUnReg(q);
    q->reader.backPressPara = para;
    CountReader(q, MERGEQUE_RSTAT_BACKPRESS);
    RIX_AUTOSYNC_RixLog(ASORCH_LOG_INFO, "merge queue %s BackPress ok.", q->name);
    return ASORCH_OK;
}

ASORCH_API uint32_t RIX_MergeQueUnBackPress(MergeQueCb *q, uint32_t *para)
{
    if (q == nullptr) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "merge queue UnbackPress failed, handle is null.");
        return ASORCH_ERR;
    }
    if (RIX_MergeQueEpollReg(q) != ASORCH_OK) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "merge queue %s UnbackPress failed.", q->name);
        return ASORCH_ERR;
    }
    if (para != nullptr) {
        *para = q->reader.backPressPara;
    }
    CountReader(q, MERGEQUE_RSTAT_UNBACKPRESS);
    RIX_AUTOSYNC_RixLog(ASORCH_LOG_INFO, "merge queue %s UnbackPress ok.", q->name);
    return ASORCH_OK;
}

}  // extern "C"
