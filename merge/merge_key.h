// Key identity and the opType rule of message vectors, inline for the queue's callbacks, which
// run several times per record; the exported functions are doors onto these. Not exported.
#ifndef RIX_AS_MERGE_KEY_H
#define RIX_AS_MERGE_KEY_H

#include <cstring>

#include "rix_as_orch.h"

namespace asorch::merge {

inline uint32_t SameKey(const ASOrchMsgVec *a, const ASOrchMsgVec *b)
{
    if (a == nullptr || b == nullptr) {
        return 0u;
    }
    if (a->msgId != b->msgId || a->version != b->version || a->keyLen != b->keyLen) {
        return 0u;
    }
    if (a->keyLen == 0u || a->key == b->key) {
        return 1u;
    }
    if (a->key == nullptr || b->key == nullptr) {
        return 0u;
    }
    return std::memcmp(a->key, b->key, a->keyLen) == 0 ? 1u : 0u;
}

inline uint32_t MergeRule(uint32_t oldOpType, uint32_t newOpType, uint32_t *mergedOpType)
{
    const uint32_t index = oldOpType * 2u + newOpType;
    if (index >= g_ASOrchMergeRulesNum) {
        return ASORCH_ERR;
    }
    // The index alone would let pairs such as (0, 2) borrow another pair's row.
    const ASOrchMergeRule &rule = g_ASOrchMergeRules[index];
    if (rule.oldOpType != oldOpType || rule.newOpType != newOpType) {
        return ASORCH_ERR;
    }
    *mergedOpType = rule.mergedOpType;
    return ASORCH_OK;
}

inline void ApplyRule(const ASOrchMsgVec *pending, ASOrchMsgVec *arriving)
{
    if (arriving->opType == ASORCH_OPTYPE_AGEINFO) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "Orch autosync merge notify is ageinfo error, msgId %u", arriving->msgId);
        return;
    }
    if (MergeRule(pending->opType, arriving->opType, &arriving->opType) != ASORCH_OK) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "Orch autosync merge notify get rule error");
    }
}

}  // namespace asorch::merge

#endif
