// The merge-handle block the library allocates: the two public entries, then for each the
// bucket count prepared so that reducing a hash into it needs no division (a software routine
// on ARMv7). Not exported.
#ifndef RIX_AS_MERGE_BLOCK_H
#define RIX_AS_MERGE_BLOCK_H

#include <cstddef>
#include <cstdint>

#include "include/rix_as_orch.h"

namespace asmerge {

struct BucketCount {
    uint64_t magic;  // Lemire's fastmod multiplier, 2^64 / size rounded up
    uint32_t size;   // the count it was made for; 0 before
    uint32_t mask;   // size - 1 when size is a power of two, else 0
};

struct MergeBlock {
    ASOrchMergeHandle entry[ASORCH_MERGE_CHAN_NUM];
    BucketCount bucket[ASORCH_MERGE_CHAN_NUM];
};
static_assert(offsetof(MergeBlock, entry) == 0, "handle->mergeHandle is the block");

inline MergeBlock *BlockOf(ASOrchMergeHandle *entries)
{
    return reinterpret_cast<MergeBlock *>(entries);
}

inline const MergeBlock *BlockOf(const ASOrchMergeHandle *entries)
{
    return reinterpret_cast<const MergeBlock *>(entries);
}

// Registration time only: the one 64-bit division is paid here.
inline BucketCount BucketDivisor(uint32_t size)
{
    if (size == 0u) {
        return BucketCount{0u, 0u, 0u};
    }
    const bool pow2 = (size & (size - 1u)) == 0u;
    return BucketCount{UINT64_MAX / size + 1u, size, pow2 ? size - 1u : 0u};
}

// x % b.size, bit for bit, from two 32x32->64 multiplies.
inline uint32_t Reduce(uint32_t x, const BucketCount &b)
{
    if (b.mask != 0u || b.size == 1u) {
        return x & b.mask;
    }
    const uint64_t low = b.magic * x;
    const uint64_t hi = (low >> 32) * b.size + (((low & 0xFFFFFFFFu) * b.size) >> 32);
    return static_cast<uint32_t>(hi >> 32);
}

}  // namespace asmerge

#endif
