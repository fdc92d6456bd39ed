// Records received through a sync group, fed one by one into the merge path.
#include "merge/merge_internal.h"

extern "C" {

ASORCH_API void ASOrchMergeSyncGrpDatas(uint32_t count, ASOrchSyncGrpData *items, ASOrchMsgVec *vec, uint32_t mergeType,
                                        ASOrchHandle *handle)
{
    if (count == 0u) {
        return;
    }
    if (items == nullptr || vec == nullptr) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "MergeSyncGrpDatas para is NULL, count %u.", count);
        return;
    }
    for (uint32_t i = 0; i != count; ++i) {
        items[i].result = ASORCH_SYNCGRP_DATA_FAILED;
        // The record is both key and data; every other field is the caller's, shared by all.
        vec->key = items[i].data;
        vec->data = items[i].data;
        if (ASOrchMsgMerge(handle, mergeType, vec) == ASORCH_OK) {
            items[i].result = 0u;
        } else {
            RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "MergeSyncGrpDatas error, i = %u. msgId %u.", i, vec->msgId);
        }
    }
}
}
