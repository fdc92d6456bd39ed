// The bucket hash of a merge channel (the value ASOrchMergeHashFunc returns), with what the
// vectors of one run share looked up once. Not exported.
#ifndef RIX_AS_MERGE_HASH_H
#define RIX_AS_MERGE_HASH_H

#include <bit>
#include <cstdint>
#include <cstring>

#include "core/divisor.h"
#include "merge/merge_block.h"
#include "rix_as_orch.h"

namespace asorch::merge {

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

class BucketHash {
public:
    // Not valid when the orchestrator has no merge handle or the channel has no table.
    BucketHash(const ASOrchHandle *handle, uint32_t chan)
    {
        const ASOrchMergeHandle *entries = handle != nullptr ? handle->mergeHandle : nullptr;
        if (entries != nullptr && chan < ASORCH_MERGE_CHAN_NUM) {
            size_ = entries[chan].hashSize;
            // Copied: a run keeps its hash across the module's callbacks, which may release
            // the orchestrator that the module's hashFunc names.
            bucket_ = BlockOf(entries)->bucket[chan];
            // An entry set up outside the library's own registration has no prepared count.
            prepared_ = bucket_.d == size_;
        }
    }

    bool Valid() const { return size_ != 0u; }

    uint32_t operator()(const ASOrchMsgVec &vec) const
    {
        uint32_t h = 2166136261u;
        const auto *key = static_cast<const uint8_t *>(vec.key);
        // Only whole words are hashed; a short tail falls to the compare.
        uint32_t words = key == nullptr ? 0u : vec.keyLen / 4u;
        // Four words a step: keys are a few of them.
        for (; words >= 4u; words -= 4u, key += 16) {
            h = (h ^ LoadLe32(key)) * 16777619u;
            h = (h ^ LoadLe32(key + 4)) * 16777619u;
            h = (h ^ LoadLe32(key + 8)) * 16777619u;
            h = (h ^ LoadLe32(key + 12)) * 16777619u;
        }
        for (; words != 0u; --words, key += 4) {
            h = (h ^ LoadLe32(key)) * 16777619u;
        }
        h += h << 13;
        h ^= h >> 7;
        h += h << 3;
        h ^= h >> 17;
        const uint32_t x = vec.msgId + vec.version + h * 33u;
        return prepared_ ? Mod(x, bucket_) : ModUnprepared(x, size_);
    }

private:
    Divisor bucket_{};
    uint32_t size_ = 0u;
    bool prepared_ = false;
};

}  // namespace asorch::merge

#endif
