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
// take and one exchange to release when nobody waits. A waiter spins briefly and then sleeps,
// so a preempted holder is never starved by spinning waiters, whatever their priorities.
class FutexLock {
public:
    void lock()
    {
        uint32_t c = 0;
        if (!state_.compare_exchange_strong(c, 1, std::memory_order_acquire, std::memory_order_relaxed)) [[unlikely]] {
            LockSlow(c);
        }
    }
    void unlock()
    {
        if (state_.exchange(0, std::memory_order_release) == 2) [[unlikely]] {
            Wake();
        }
    }

private:
    __attribute__((noinline, cold)) void Wake() { Futex(FUTEX_WAKE_PRIVATE, 1); }
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

inline uint32_t BucketIndex(const Table *t, const void *key)
{
    return rixplat::ModOf(t->mod, t->hashFunc(key));
}

inline void AddLinked(Table *t, int32_t d)
{
    t->linked.store(t->linked.load(std::memory_order_relaxed) + static_cast<uint32_t>(d), std::memory_order_relaxed);
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

void UnlinkFromBucket(Table *t, BlockHdr *h)
{
    for (BlockHdr **link = &t->buckets[h->bucket]; *link != nullptr; link = &(*link)->next) {
        if (*link == h) {
            *link = h->next;
            h->next = nullptr;
            return;
        }
    }
}

}  // namespace

using rixplat::HitFast;

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
    t->tag = (g_nextTag.fetch_add(1, std::memory_order_relaxed) << 2) | 4u;  // never 0
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
    if (HitFast(rixplat::Op_LITE_HASH_NewData) || hash == nullptr) {
        return nullptr;
    }
    auto *t = static_cast<Table *>(hash);
    Guard guard(t->lock);
    if (t->freeList == nullptr && !Grow(t)) {
        return nullptr;
    }
    BlockHdr *h = t->freeList;
    t->freeList = h->next;
    h->next = nullptr;
    SetState(h, BlockHeld);
    ++t->held;
    return h->node.data;
}

uint32_t LITE_HASH_FreeData(void *hash, void *data)
{
    if (HitFast(rixplat::Op_LITE_HASH_FreeData) || hash == nullptr) {
        return 1;
    }
    auto *t = static_cast<Table *>(hash);
    Guard guard(t->lock);
    BlockHdr *h = OwnedHdr(t, data);
    if (h == nullptr || StateOf(h) == BlockFree) {
        return 1;
    }
    if (StateOf(h) == BlockLinked) {
        UnlinkFromBucket(t, h);
        AddLinked(t, -1);
    }
    SetState(h, BlockFree);
    h->next = t->freeList;
    t->freeList = h;
    --t->held;
    return 0;
}

uint32_t LITE_HASH_AddNode(void *hash, const void *key, void *data, uint32_t flags)
{
    (void)flags;
    if (HitFast(rixplat::Op_LITE_HASH_AddNode) || hash == nullptr || key == nullptr) {
        return 1;
    }
    auto *t = static_cast<Table *>(hash);
    uint32_t b = BucketIndex(t, key);
    Guard guard(t->lock);
    BlockHdr *h = OwnedHdr(t, data);
    if (h == nullptr || StateOf(h) != BlockHeld) {
        return 1;
    }
    h->next = t->buckets[b];
    h->bucket = b;
    t->buckets[b] = h;
    SetState(h, BlockLinked);
    AddLinked(t, 1);
    return 0;
}

LITE_HASH_Node *LITE_HASH_FindNodeFromFirst(void *hash, const void *key, const void *data)
{
    if (HitFast(rixplat::Op_LITE_HASH_FindNodeFromFirst) || hash == nullptr || key == nullptr) {
        return nullptr;
    }
    auto *t = static_cast<Table *>(hash);
    uint32_t b = BucketIndex(t, key);
    Guard guard(t->lock);
    for (BlockHdr *h = t->buckets[b]; h != nullptr; h = h->next) {
        if (t->cmpFunc(h->node.data, data, 0) != 0) {
            return &h->node;
        }
    }
    return nullptr;
}

uint32_t LITE_HASH_RemoveNodeByKey(void *hash, const void *key)
{
    if (HitFast(rixplat::Op_LITE_HASH_RemoveNodeByKey) || hash == nullptr || key == nullptr) {
        return 0;
    }
    auto *t = static_cast<Table *>(hash);
    uint32_t b = BucketIndex(t, key);
    Guard guard(t->lock);
    for (BlockHdr **link = &t->buckets[b]; *link != nullptr; link = &(*link)->next) {
        BlockHdr *h = *link;
        if (t->cmpFunc(h->node.data, key, 0) != 0) {
            *link = h->next;
            h->next = nullptr;
            SetState(h, BlockHeld);
            AddLinked(t, -1);
            return 1;
        }
    }
    return 0;
}

uint32_t LITE_HASH_GetListCntByKey(void *hash, const void *key)
{
    if (HitFast(rixplat::Op_LITE_HASH_GetListCntByKey) || hash == nullptr || key == nullptr) {
        return 0;
    }
    auto *t = static_cast<Table *>(hash);
    uint32_t b = BucketIndex(t, key);
    Guard guard(t->lock);
    uint32_t n = 0;
    for (BlockHdr *h = t->buckets[b]; h != nullptr; h = h->next) {
        ++n;
    }
    return n;
}

uint32_t LITE_HASH_GetHashCnt(void *hash)
{
    if (HitFast(rixplat::Op_LITE_HASH_GetHashCnt) || hash == nullptr) {
        return 0;
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
