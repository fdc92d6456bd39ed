// Key identity, bucket hash and the opType rule table of merged message vectors.
#include "rix_as_orch.h"

#include <bit>
#include <cstring>

#include "merge/merge_block.h"
#include "merge/merge_internal.h"
#include "merge/merge_key.h"

namespace {

inline uint32_t LoadLe32(const uint8_t *p)
{
    if constexpr (std::endian::native == std::endian::little) {
        uint32_t w;
        std::memcpy(&w, p, sizeof(w));
        return w;
    } else {
        return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) | (static_cast<uint32_t>(p[2]) << 16) |
               (static_cast<uint32_t>(p[3]) << 24);
    }
}

// The bucket of a vector; kept out of line so that a remembered answer costs no more than a test.
[[gnu::noinline]] uint32_t BucketOf(const ASOrchHandle *handle, uint32_t chan, const ASOrchMsgVec *vec)
{
    if (handle == nullptr || vec == nullptr || handle->mergeHandle == nullptr || chan >= ASORCH_MERGE_CHAN_NUM ||
        handle->mergeHandle[chan].hashSize == 0u) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "Orch autosync merge hash of channel %u has no merge handle", chan);
        return 0u;
    }
    uint32_t h = 2166136261u;
    const auto *key = static_cast<const uint8_t *>(vec->key);
    // Only whole words are hashed; a short tail falls to the compare.
    const uint32_t words = key == nullptr ? 0u : vec->keyLen / 4u;
    for (uint32_t i = 0; i < words; ++i) {
        h = (h ^ LoadLe32(key + static_cast<size_t>(i) * 4u)) * 16777619u;
    }
    h += h << 13;
    h ^= h >> 7;
    h += h << 3;
    h ^= h >> 17;
    const uint32_t x = vec->msgId + vec->version + h * 33u;
    const ASOrchMergeHandle &entry = handle->mergeHandle[chan];
    const asorch::Divisor &bucket = asorch::merge::BlockOf(handle->mergeHandle)->bucket[chan];
    // An entry set up outside the library's own registration has no prepared count.
    return bucket.d == entry.hashSize ? asorch::Mod(x, bucket) : asorch::ModUnprepared(x, entry.hashSize);
}

}  // namespace

extern "C" {

const ASOrchMergeRule g_ASOrchMergeRules[ASORCH_MERGE_RULES_NUM] = {
    {0u, 0u, 0u}, {0u, 1u, 1u}, {1u, 0u, 2u}, {1u, 1u, 1u}, {2u, 0u, 2u}, {2u, 1u, 1u},
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
    if (writing->memoHandle != handle || writing->memoChan != chan) {
        writing->memoBucket = BucketOf(handle, chan, vec);
        writing->memoHandle = handle;
        writing->memoChan = chan;
    }
    return writing->memoBucket;
}
}
