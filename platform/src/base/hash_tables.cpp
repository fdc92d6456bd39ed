// The life of hash tables: creation and deletion, the pool's growth (chunks of about a
// sixteenth of what the table already holds), and the list of live tables the test kit sums.
#include <cstdlib>
#include <mutex>
#include <new>

#include "base/hash_table.h"
#include "base/op_hit.h"
#include "plat_internal.h"
#include "rix_platform_test.h"

namespace rixplat::lhash {
namespace {

constexpr uint32_t kMinChunkBlocks = 64;
constexpr uint32_t kMaxChunkBlocks = 4096;
constexpr uint32_t kChunkShare = 16;  // a new chunk adds a sixteenth of the capacity

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

}  // namespace

bool Grow(Table *t)
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

}  // namespace rixplat::lhash

using namespace rixplat::lhash;
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

uint32_t RIX_TEST_HashBlocksInUse(void)
{
    std::lock_guard<std::mutex> lock(g_tablesMutex);
    uint32_t n = 0;
    for (Table *t = g_tables; t != nullptr; t = t->nextTable) {
        std::lock_guard<TableLock> guard(t->lock);
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
