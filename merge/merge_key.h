// Key identity and the opType rule of message vectors, inline for the queue's callbacks, which
// run several times per record; the exported functions are doors onto these. Not exported.
#ifndef RIX_AS_MERGE_KEY_H
#define RIX_AS_MERGE_KEY_H

#include <cstdint>
#include <cstring>

#include "rix_as_orch.h"

namespace asorch::merge {

inline uint64_t Load64(const uint8_t *p)
{
    uint64_t w;
    std::memcpy(&w, p, sizeof(w));
    return w;
}

// Keys are a few words: 8 to 32 bytes are compared inline in overlapping 8-byte pieces, the
// rest by the C library.
inline bool SameBytes(const uint8_t *a, const uint8_t *b, uint32_t n)
{
    if (n >= 8u && n <= 32u) {
        uint64_t diff = (Load64(a) ^ Load64(b)) | (Load64(a + n - 8u) ^ Load64(b + n - 8u));
        if (n > 16u) {
            diff |= (Load64(a + 8) ^ Load64(b + 8)) | (Load64(a + n - 16u) ^ Load64(b + n - 16u));
        }
        return diff == 0u;
    }
    return std::memcmp(a, b, n) == 0;
}

inline uint32_t SameKey(const ASOrchMsgVec *a, const ASOrchMsgVec *b)
{
    if (a == nullptr || b == nullptr) {
        return 0u;
    }
    // A read removes an entry by its own vector.
    if (a == b) {
        return 1u;
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
    return SameBytes(static_cast<const uint8_t *>(a->key), static_cast<const uint8_t *>(b->key), a->keyLen) ? 1u : 0u;
}

// The rows of g_ASOrchMergeRules: (pending, arriving) -> merged opType.
inline constexpr ASOrchMergeRule kMergeRules[ASORCH_MERGE_RULES_NUM] = {
    {0u, 0u, 0u}, {0u, 1u, 1u}, {1u, 0u, 2u}, {1u, 1u, 1u}, {2u, 0u, 2u}, {2u, 1u, 1u},
};

// The same rows as a square, so that a pair is looked up without a search.
inline constexpr uint32_t kOpTypes = ASORCH_OPTYPE_NUM;
inline constexpr uint8_t kNoRule = 0xFFu;
inline constexpr auto kMergedOpType = [] {
    struct {
        uint8_t of[kOpTypes][kOpTypes];
    } square{};
    for (auto &row : square.of) {
        for (uint8_t &cell : row) {
            cell = kNoRule;
        }
    }
    for (const ASOrchMergeRule &rule : kMergeRules) {
        square.of[rule.oldOpType][rule.newOpType] = static_cast<uint8_t>(rule.mergedOpType);
    }
    return square;
}();

inline uint32_t MergeRule(uint32_t oldOpType, uint32_t newOpType, uint32_t *mergedOpType)
{
    if (oldOpType >= kOpTypes || newOpType >= kOpTypes || kMergedOpType.of[oldOpType][newOpType] == kNoRule) {
        return ASORCH_ERR;
    }
    *mergedOpType = kMergedOpType.of[oldOpType][newOpType];
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
