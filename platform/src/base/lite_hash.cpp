// Chained hash tables with their own lock. Data blocks come from a per-table pool of blocks of
// exactly the table's size (header plus block size, rounded to 8 bytes), grown in chunks of
// about a sixteenth of what the table already holds; the bucket node lives in a small header
// in front of each block, so linking and unlinking never allocate.
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>

#include "base/fastmod.h"
#include "base/op_hit.h"
#include "lite_hash.h"
#include "rix_platform_test.h"

using rixplat::CountedFast;
using rixplat::HitFast;

namespace {

constexpr size_t kBlockAlign = 8;  // data blocks are aligned to 8 bytes
constexpr uint32_t kMinChunkBlocks = 64;
constexpr uint32_t kMaxChunkBlocks = 4096;
constexpr uint32_t kChunkShare = 16;  // a new chunk adds a sixteenth of the capacity

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

inline void CpuRelax()
{
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__arm__) || defined(__aarch64__)
    asm volatile("yield" ::: "memory");
#endif
}

// A futex mutex (three states, after Drepper's "Futexes Are Tricky"): one compare-exchange to
// take and one decrement to release when nobody waits. A waiter spins briefly and then sleeps,
// so a preempted holder is never starved by spinning waiters, whatever their priorities.
class FutexLock {
public:
    bool TryLock()
    {
        uint32_t c = 0;
        return state_.compare_exchange_strong(c, 1, std::memory_order_acquire, std::memory_order_relaxed);
    }
    void lock()
    {
        if (!TryLock()) [[unlikely]] {
            LockSlow(state_.load(std::memory_order_relaxed));
        }
    }
    // Releases the lock; false when a waiter has to be woken by WakeAfterRelease.
    bool Release() { return state_.fetch_sub(1, std::memory_order_release) == 1; }
    __attribute__((noinline, cold)) void WakeAfterRelease()
    {
        state_.store(0, std::memory_order_release);
        Futex(FUTEX_WAKE_PRIVATE, 1);
    }
    void unlock()
    {
        if (!Release()) [[unlikely]] {
            WakeAfterRelease();
        }
    }

private:
    void Futex(int op, uint32_t val)
    {
        (void)syscall(SYS_futex, reinterpret_cast<uint32_t *>(&state_), op, val, nullptr, nullptr, 0);
    }
    __attribute__((noinline)) void LockSlow(uint32_t c)
    {
        for (int spin = 0; spin < 100 && c == 1; ++spin) {
            CpuRelax();
            c = state_.load(std::memory_order_relaxed);
            if (c == 0 && state_.compare_exchange_strong(c, 1, std::memory_order_acquire, std::memory_order_relaxed)) {
                return;
            }
        }
        if (c != 2) {
            c = state_.exchange(2, std::memory_order_acquire);
        }
        while (c != 0) {
            Futex(FUTEX_WAIT_PRIVATE, 2);
            c = state_.exchange(2, std::memory_order_acquire);
        }
    }
    std::atomic<uint32_t> state_{0};  // 0 free, 1 held, 2 held and maybe waited for
};
static_assert(sizeof(std::atomic<uint32_t>) == sizeof(uint32_t));

using TableLock = FutexLock;

struct Guard {
    explicit Guard(TableLock &l) : lock(l) { lock.lock(); }
    ~Guard() { lock.unlock(); }
    Guard(const Guard &) = delete;
    Guard &operator=(const Guard &) = delete;
    TableLock &lock;
};

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

// Live tables, so that the blocks in use are summed on request instead of being counted by a
// shared atomic on every allocation.
std::mutex g_tablesMutex;
Table *g_tables = nullptr;
std::atomic<uint32_t> g_systemAllocs{0};
std::atomic<uint32_t> g_nextTag{1};

void ResetHashCounters()
{
    g_systemAllocs.store(0, std::memory_order_relaxed);
}

[[maybe_unused]] const bool g_registered = [] {
    RixPlatInternal_AddResetHook(ResetHashCounters);
    return true;
}();

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

__attribute__((noinline)) bool Grow(Table *t)
{
    uint32_t n = t->capacity / kChunkShare;
    n = n < kMinChunkBlocks ? kMinChunkBlocks : (n > kMaxChunkBlocks ? kMaxChunkBlocks : n);
    auto *raw = static_cast<char *>(std::malloc(sizeof(Chunk) + static_cast<size_t>(n) * t->stride));
    if (raw == nullptr) {
        return false;
    }
    g_systemAllocs.fetch_add(1, std::memory_order_relaxed);
    auto *chunk = reinterpret_cast<Chunk *>(raw);
    chunk->next = t->chunks;
    t->chunks = chunk;
    for (uint32_t i = n; i-- > 0;) {
        auto *h = reinterpret_cast<BlockHdr *>(raw + sizeof(Chunk) + static_cast<size_t>(i) * t->stride);
        h->node.data = reinterpret_cast<char *>(h) + sizeof(BlockHdr);
        h->tagState = t->tag | BlockFree;
        h->bucket = 0;
        h->next = t->freeList;
        t->freeList = h;
    }
    t->capacity += n;
    return true;
}

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

// The operations below come in two forms. The common case (the thread counts inline, the
// arguments are sound, the lock is free) runs in the exported function, which keeps nothing in
// registers across a rare call: whatever is rare (a failure armed, a bad argument, a taken lock,
// an empty pool, a waiter to wake) is a tail call into a copy that does every check in full.

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

void *LITE_HASH_CreateWithLock(uint32_t memPtNo, uint16_t blockSize, uint32_t bucketCount, LITE_HASH_HashFunc hashFunc,
                               LITE_HASH_CmpFunc cmpFunc, uint32_t flags)
{
    (void)memPtNo;
    (void)flags;
    if (HitFast(rixplat::Op_LITE_HASH_CreateWithLock) || bucketCount == 0 || hashFunc == nullptr ||
        cmpFunc == nullptr || blockSize == 0) {
        return nullptr;
    }
    auto *buckets = static_cast<BlockHdr **>(std::calloc(bucketCount, sizeof(BlockHdr *)));
    if (buckets == nullptr) {
        return nullptr;
    }
    auto *t = new (std::nothrow) Table;
    if (t == nullptr) {
        std::free(buckets);
        return nullptr;
    }
    // Above the two state bits; a table number's own bits, so two tables share a tag only
    // after 2^30 tables (or-ing a constant bit in would pair every even number with the next).
    const uint32_t tag = g_nextTag.fetch_add(1, std::memory_order_relaxed) << 2;
    t->tag = tag != 0 ? tag : 4u;
    t->heldTag = t->tag | BlockHeld;
    t->mod = rixplat::MakeFastMod(bucketCount);
    t->stride = BlockBytes(blockSize);
    t->hashFunc = hashFunc;
    t->cmpFunc = cmpFunc;
    t->buckets = buckets;
    t->freeList = nullptr;
    t->chunks = nullptr;
    t->capacity = 0;
    t->linked.store(0, std::memory_order_relaxed);
    t->held = 0;
    t->prevTable = nullptr;
    std::lock_guard<std::mutex> lock(g_tablesMutex);
    t->nextTable = g_tables;
    if (g_tables != nullptr) {
        g_tables->prevTable = t;
    }
    g_tables = t;
    return t;
}

uint32_t LITE_HASH_DeleteHash(void **hash)
{
    if (HitFast(rixplat::Op_LITE_HASH_DeleteHash) || hash == nullptr || *hash == nullptr) {
        return 1;
    }
    auto *t = static_cast<Table *>(*hash);
    {
        std::lock_guard<std::mutex> lock(g_tablesMutex);
        (t->prevTable != nullptr ? t->prevTable->nextTable : g_tables) = t->nextTable;
        if (t->nextTable != nullptr) {
            t->nextTable->prevTable = t->prevTable;
        }
    }
    for (Chunk *c = t->chunks; c != nullptr;) {
        Chunk *next = c->next;
        std::free(c);
        c = next;
    }
    std::free(t->buckets);
    delete t;
    *hash = nullptr;
    return 0;
}

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

uint32_t RIX_TEST_HashBlocksInUse(void)
{
    std::lock_guard<std::mutex> lock(g_tablesMutex);
    uint32_t n = 0;
    for (Table *t = g_tables; t != nullptr; t = t->nextTable) {
        Guard guard(t->lock);
        n += t->held;
    }
    return n;
}
uint32_t RIX_TEST_HashSystemAllocs(void)
{
    return g_systemAllocs.load(std::memory_order_relaxed);
}
uint32_t RIX_TEST_HashBlockBytes(uint32_t blockSize)
{
    return BlockBytes(blockSize);
}

uint32_t RIX_TEST_HashTableCount(void)
{
    std::lock_guard<std::mutex> lock(g_tablesMutex);
    uint32_t n = 0;
    for (Table *t = g_tables; t != nullptr; t = t->nextTable) {
        ++n;
    }
    return n;
}

}  // extern "C"
