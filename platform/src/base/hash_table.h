// The layout of a hash table and its blocks, shared by the table's life (hash_tables.cpp) and
// its operations (lite_hash.cpp). Data blocks come from a per-table pool of blocks of exactly
// the table's size (header plus block size, rounded to 8 bytes); the bucket node lives in a
// small header in front of each block, so linking and unlinking never allocate.
#ifndef RIX_PLAT_HASH_TABLE_H
#define RIX_PLAT_HASH_TABLE_H

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "base/fastmod.h"
#include "base/futex_lock.h"
#include "lite_hash.h"

namespace rixplat::lhash {

constexpr size_t kBlockAlign = 8;  // data blocks are aligned to 8 bytes

// Low two bits of tagState: the block's state; the rest: the owning table's tag.
enum BlockState : uint32_t { BlockFree = 0, BlockHeld = 1, BlockLinked = 2 };
constexpr uint32_t kStateMask = 3u;

struct BlockHdr {
    LITE_HASH_Node node;  // node.data points just past this header
    BlockHdr *next;       // bucket chain, or free list
    uint32_t bucket;      // while linked
    uint32_t tagState;
};
static_assert(offsetof(BlockHdr, node) == 0);
static_assert(sizeof(BlockHdr) % kBlockAlign == 0);
static_assert(sizeof(BlockHdr) == 2 * sizeof(void *) + 8, "no padding in the node");

struct alignas(kBlockAlign) Chunk {
    Chunk *next;
};

using TableLock = rixplat::FutexLock;

struct Table {
    TableLock lock;
    uint32_t tag;
    uint32_t heldTag;  // tagState of a held block: tag | BlockHeld
    rixplat::FastMod mod;
    uint32_t stride;
    LITE_HASH_HashFunc hashFunc;
    LITE_HASH_CmpFunc cmpFunc;
    BlockHdr **buckets;
    BlockHdr *freeList;
    Chunk *chunks;
    uint32_t capacity;             // blocks in all chunks
    std::atomic<uint32_t> linked;  // written under the lock, read without it
    uint32_t held;
    Table *prevTable;
    Table *nextTable;
};

// What a block of blockSize takes in the pool: its node in front, rounded to the alignment.
constexpr uint32_t BlockBytes(uint32_t blockSize)
{
    return static_cast<uint32_t>((sizeof(BlockHdr) + blockSize + kBlockAlign - 1) / kBlockAlign * kBlockAlign);
}

inline uintptr_t BucketIndex(const Table *t, const void *key)
{
    return rixplat::ModOfIndex(t->mod, t->hashFunc(key));
}

// Under the lock; readers without it load the count whole.
inline void AddLinked(Table *t, int32_t d)
{
#if defined(__x86_64__)
    asm volatile("addl %1, %0" : "+m"(t->linked) : "ir"(d) : "cc");  // as in CountedFast: one add, not three
#else
    t->linked.store(t->linked.load(std::memory_order_relaxed) + static_cast<uint32_t>(d), std::memory_order_relaxed);
#endif
}

inline BlockHdr *HdrOf(void *data)
{
    return reinterpret_cast<BlockHdr *>(static_cast<char *>(data) - sizeof(BlockHdr));
}
inline uint32_t StateOf(const BlockHdr *h)
{
    return h->tagState & kStateMask;
}
inline void SetState(BlockHdr *h, uint32_t s)
{
    h->tagState = (h->tagState & ~kStateMask) | s;
}

// Adds a chunk of free blocks to the pool; false when the system has no memory for it.
bool Grow(Table *t);

// Only blocks of this table are accepted: a foreign pointer is refused, not written through.
inline BlockHdr *OwnedHdr(const Table *t, void *data)
{
    if (data == nullptr) {
        return nullptr;
    }
    BlockHdr *h = HdrOf(data);
    return ((h->tagState & ~kStateMask) == t->tag && h->node.data == data) ? h : nullptr;
}

// h is linked in its bucket.
inline void UnlinkFromBucket(Table *t, BlockHdr *h)
{
    BlockHdr **link = &t->buckets[h->bucket];
    while (*link != h) {
        link = &(*link)->next;
    }
    *link = h->next;
}

}  // namespace rixplat::lhash

#endif
