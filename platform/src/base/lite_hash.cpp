// The operations of a hash table. Each one's common case (the thread counts inline, the
// arguments are sound, the lock is free) runs in the exported function, which keeps nothing in
// registers across a rare call: whatever is rare (a failure armed, a bad argument, a taken lock,
// an empty pool, a waiter to wake) is a tail call into a copy that does every check in full.
#include <atomic>
#include <cstdint>

#include "base/hash_table.h"
#include "base/op_hit.h"
#include "lite_hash.h"

using rixplat::CountedFast;
using rixplat::HitFast;
using namespace rixplat::lhash;

namespace {

// v, unknown to the compiler: a constant it knows a register to hold already (TryLock's flag)
// would be kept in that register, or a saved one across the callbacks, only to be returned.
template <typename T>
inline T Opaque(T v)
{
    asm("" : "+r"(v));
    return v;
}

template <typename R>
__attribute__((noinline, cold)) R WakeAndReturn(Table *t, R r)
{
    t->lock.WakeAfterRelease();
    return r;
}

// Releases the table's lock and returns r.
template <typename R>
inline R Unlock(Table *t, R r)
{
    if (!t->lock.Release()) [[unlikely]] {
        return WakeAndReturn(t, r);
    }
    return r;
}

// A held block of t when data is one, else null. One compare checks the table and the state.
inline BlockHdr *HeldHdr(const Table *t, void *data)
{
    BlockHdr *h = HdrOf(data);
    return (h->tagState == t->heldTag && h->node.data == data) ? h : nullptr;
}

__attribute__((noinline)) void *NewDataGrowing(Table *t)
{
    if (!Grow(t)) {
        return Unlock(t, static_cast<void *>(nullptr));
    }
    BlockHdr *h = t->freeList;
    t->freeList = h->next;
    h->tagState |= BlockHeld;
    ++t->held;
    return Unlock(t, h->node.data);
}

// Lock held; releases it.
inline void *NewDataLocked(Table *t)
{
    BlockHdr *h = t->freeList;
    if (h == nullptr) [[unlikely]] {
        return NewDataGrowing(t);
    }
    t->freeList = h->next;
    h->tagState |= BlockHeld;  // a free block's state bits are 0
    ++t->held;
    return Unlock(t, h->node.data);
}

__attribute__((noinline)) void *NewDataContended(Table *t)
{
    t->lock.lock();
    return NewDataLocked(t);
}

__attribute__((noinline)) void *NewDataChecked(void *hash)
{
    if (HitFast(rixplat::Op_LITE_HASH_NewData) || hash == nullptr) {
        return nullptr;
    }
    auto *t = static_cast<Table *>(hash);
    t->lock.lock();
    return NewDataLocked(t);
}

// Lock held; releases it. Everything but handing back a held block.
__attribute__((noinline)) uint32_t FreeDataOther(Table *t, void *data)
{
    BlockHdr *h = OwnedHdr(t, data);
    if (h == nullptr || StateOf(h) == BlockFree) {
        return Unlock(t, 1u);
    }
    if (StateOf(h) == BlockLinked) {
        UnlinkFromBucket(t, h);
        AddLinked(t, -1);
    }
    SetState(h, BlockFree);
    h->next = t->freeList;
    t->freeList = h;
    --t->held;
    return Unlock(t, 0u);
}

inline uint32_t FreeDataLocked(Table *t, void *data)
{
    BlockHdr *h = data != nullptr ? HeldHdr(t, data) : nullptr;
    if (h == nullptr) [[unlikely]] {
        return FreeDataOther(t, data);
    }
    h->tagState = t->tag | BlockFree;
    h->next = t->freeList;
    t->freeList = h;
    --t->held;
    return Unlock(t, 0u);
}

__attribute__((noinline)) uint32_t FreeDataContended(Table *t, void *data)
{
    t->lock.lock();
    return FreeDataLocked(t, data);
}

__attribute__((noinline)) uint32_t FreeDataChecked(void *hash, void *data)
{
    if (HitFast(rixplat::Op_LITE_HASH_FreeData) || hash == nullptr) {
        return 1;
    }
    auto *t = static_cast<Table *>(hash);
    t->lock.lock();
    return FreeDataLocked(t, data);
}

inline uint32_t AddNodeLocked(Table *t, uintptr_t b, void *data)
{
    BlockHdr *h = data != nullptr ? HeldHdr(t, data) : nullptr;
    if (h == nullptr) {
        return Unlock(t, Opaque(1u));
    }
    h->next = t->buckets[b];
    h->bucket = static_cast<uint32_t>(b);
    t->buckets[b] = h;
    h->tagState ^= BlockHeld ^ BlockLinked;
    AddLinked(t, 1);
    return Unlock(t, 0u);
}

inline LITE_HASH_Node *FindLocked(Table *t, uintptr_t b, const void *data)
{
    for (BlockHdr *h = t->buckets[b]; h != nullptr; h = h->next) {
        if (t->cmpFunc(h->node.data, data, 0) != 0) {
            return Unlock(t, &h->node);
        }
    }
    return Unlock(t, static_cast<LITE_HASH_Node *>(nullptr));
}

// The match is unlinked by a second walk, without callbacks: the first then keeps only the
// node across them, not the link that leads to it.
inline uint32_t RemoveLocked(Table *t, uintptr_t b, const void *key)
{
    for (BlockHdr *h = t->buckets[b]; h != nullptr; h = h->next) {
        if (t->cmpFunc(h->node.data, key, 0) != 0) {
            UnlinkFromBucket(t, h);
            h->tagState ^= BlockLinked ^ BlockHeld;
            AddLinked(t, -1);
            return Unlock(t, Opaque(1u));
        }
    }
    return Unlock(t, 0u);
}

inline uint32_t ListCntLocked(Table *t, uintptr_t b)
{
    uint32_t n = 0;
    for (BlockHdr *h = t->buckets[b]; h != nullptr; h = h->next) {
        ++n;
    }
    return Unlock(t, n);
}

// The keyed operations: the bucket is worked out before the lock, then Locked(t, bucket,
// args...) runs under it and releases it. Their rare cases share these two.
template <typename R, rixplat::OpId kOp, R kRefused, auto Locked, typename... A>
__attribute__((noinline)) R KeyedChecked(void *hash, const void *key, A... args)
{
    if (HitFast(kOp) || hash == nullptr || key == nullptr) {
        return kRefused;
    }
    auto *t = static_cast<Table *>(hash);
    uintptr_t b = BucketIndex(t, key);
    t->lock.lock();
    return Locked(t, b, args...);
}

template <typename R, auto Locked, typename... A>
__attribute__((noinline)) R KeyedContended(Table *t, uintptr_t b, A... args)
{
    t->lock.lock();
    return Locked(t, b, args...);
}

template <typename R, rixplat::OpId kOp, R kRefused, auto Locked, typename... A>
inline R Keyed(void *hash, const void *key, A... args)
{
    if (hash == nullptr || key == nullptr || !CountedFast(kOp)) [[unlikely]] {
        return KeyedChecked<R, kOp, kRefused, Locked>(hash, key, args...);
    }
    auto *t = static_cast<Table *>(hash);
    uintptr_t b = BucketIndex(t, key);
    if (!t->lock.TryLock()) [[unlikely]] {
        return KeyedContended<R, Locked>(t, b, args...);
    }
    return Locked(t, b, args...);
}

__attribute__((noinline)) uint32_t HashCntChecked(void *hash)
{
    if (HitFast(rixplat::Op_LITE_HASH_GetHashCnt) || hash == nullptr) {
        return 0;
    }
    return static_cast<Table *>(hash)->linked.load(std::memory_order_relaxed);
}

}  // namespace

extern "C" {

void *LITE_HASH_NewData(void *hash, uint32_t flags)
{
    (void)flags;
    if (hash == nullptr || !CountedFast(rixplat::Op_LITE_HASH_NewData)) [[unlikely]] {
        return NewDataChecked(hash);
    }
    auto *t = static_cast<Table *>(hash);
    if (!t->lock.TryLock()) [[unlikely]] {
        return NewDataContended(t);
    }
    return NewDataLocked(t);
}

uint32_t LITE_HASH_FreeData(void *hash, void *data)
{
    if (hash == nullptr || !CountedFast(rixplat::Op_LITE_HASH_FreeData)) [[unlikely]] {
        return FreeDataChecked(hash, data);
    }
    auto *t = static_cast<Table *>(hash);
    if (!t->lock.TryLock()) [[unlikely]] {
        return FreeDataContended(t, data);
    }
    return FreeDataLocked(t, data);
}

uint32_t LITE_HASH_AddNode(void *hash, const void *key, void *data, uint32_t flags)
{
    (void)flags;
    return Keyed<uint32_t, rixplat::Op_LITE_HASH_AddNode, 1u, AddNodeLocked>(hash, key, data);
}

LITE_HASH_Node *LITE_HASH_FindNodeFromFirst(void *hash, const void *key, const void *data)
{
    return Keyed<LITE_HASH_Node *, rixplat::Op_LITE_HASH_FindNodeFromFirst, nullptr, FindLocked>(hash, key, data);
}

uint32_t LITE_HASH_RemoveNodeByKey(void *hash, const void *key)
{
    return Keyed<uint32_t, rixplat::Op_LITE_HASH_RemoveNodeByKey, 0u, RemoveLocked>(hash, key, key);
}

uint32_t LITE_HASH_GetListCntByKey(void *hash, const void *key)
{
    return Keyed<uint32_t, rixplat::Op_LITE_HASH_GetListCntByKey, 0u, ListCntLocked>(hash, key);
}

uint32_t LITE_HASH_GetHashCnt(void *hash)
{
    if (hash == nullptr || !CountedFast(rixplat::Op_LITE_HASH_GetHashCnt)) [[unlikely]] {
        return HashCntChecked(hash);
    }
    return static_cast<Table *>(hash)->linked.load(std::memory_order_relaxed);
}

}  // extern "C"
