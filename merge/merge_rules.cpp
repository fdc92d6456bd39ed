// Key identity, bucket hash and the opType rule table of merged message vectors.
#include "rix_as_orch.h"

#include "merge/merge_hash.h"
#include "merge/merge_internal.h"
#include "merge/merge_key.h"

namespace {

// The bucket of a vector; out of line, so that a remembered answer costs no more than a test.
[[gnu::noinline]] uint32_t BucketOf(const ASOrchHandle *handle, uint32_t chan, const ASOrchMsgVec *vec)
{
    const asorch::merge::BucketHash hash(handle, chan);
    if (vec == nullptr || !hash.Valid()) [[unlikely]] {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "Orch autosync merge hash of channel %u has no merge handle", chan);
        return 0u;
    }
    return hash(*vec);
}

// Out of line, so that a remembered bucket is answered without a frame.
[[gnu::noinline]] uint32_t HashAndRemember(asorch::merge::WriteVec *writing, const ASOrchHandle *handle, uint32_t chan)
{
    writing->memoBucket = BucketOf(handle, chan, &writing->vec);
    writing->memoHandle = handle;
    writing->memoChan = chan;
    return writing->memoBucket;
}

}  // namespace

extern "C" {

using asorch::merge::kMergeRules;
const ASOrchMergeRule g_ASOrchMergeRules[ASORCH_MERGE_RULES_NUM] = {
    kMergeRules[0], kMergeRules[1], kMergeRules[2], kMergeRules[3], kMergeRules[4], kMergeRules[5],
};

const uint32_t g_ASOrchMergeRulesNum = ASORCH_MERGE_RULES_NUM;

ASORCH_API uint32_t ASOrchGetMergeRule(uint32_t oldOpType, uint32_t newOpType, uint32_t *mergedOpType)
{
    if (mergedOpType == nullptr) {
        return ASORCH_ERR;
    }
    return asorch::merge::MergeRule(oldOpType, newOpType, mergedOpType);
}

ASORCH_API void ASOrchPubMergeRule(ASOrchMsgVec *pending, ASOrchMsgVec *arriving)
{
    if (pending == nullptr || arriving == nullptr) {
        return;
    }
    asorch::merge::ApplyRule(pending, arriving);
}

ASORCH_API void ASOrchPubMergeNotify(ASOrchMsgVec *arriving, ASOrchMsgVec *pending)
{
    if (arriving == nullptr || pending == nullptr) {
        return;
    }
    ASOrchPubMergeRule(pending, arriving);
    // The container copies the arriving vector over this one next: its block would be lost.
    if (pending->key != nullptr) {
        auto *owner = static_cast<ASOrchHandle *>(pending->usrData);
        if (owner != nullptr && owner->memFree != nullptr) {
            owner->memFree(pending->key);
        }
        pending->key = nullptr;
    }
}

ASORCH_API uint32_t ASOrchPubCmpFunc(const ASOrchMsgVec *a, const ASOrchMsgVec *b)
{
    return asorch::merge::SameKey(a, b);
}

ASORCH_API void *ASOrchPubGetKeyPtr(void *vec)
{
    return vec;
}

ASORCH_API uint32_t ASOrchMergeHashFunc(ASOrchHandle *handle, uint32_t chan, const ASOrchMsgVec *vec)
{
    asorch::merge::WriteVec *writing = asorch::merge::t_writing;
    if (writing == nullptr || vec != &writing->vec) {
        return BucketOf(handle, chan, vec);
    }
    if (writing->memoHandle == handle && writing->memoChan == chan) {
        return writing->memoBucket;
    }
    return HashAndRemember(writing, handle, chan);
}
}
