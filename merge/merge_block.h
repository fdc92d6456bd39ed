// The merge-handle block the library allocates: the two public entries, then for each the
// bucket count prepared so that reducing a hash into it needs no division (a software routine
// on ARMv7). Not exported.
#ifndef RIX_AS_MERGE_BLOCK_H
#define RIX_AS_MERGE_BLOCK_H

#include <cstddef>
#include <cstdint>

#include "core/divisor.h"
#include "rix_as_orch.h"

namespace asorch::merge {

struct MergeBlock {
    ASOrchMergeHandle entry[ASORCH_MERGE_CHAN_NUM];
    asorch::Divisor bucket[ASORCH_MERGE_CHAN_NUM];
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

}  // namespace asorch::merge

#endif
