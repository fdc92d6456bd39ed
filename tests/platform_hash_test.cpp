// The stand-in hash tables: collisions, removal, the block pool, the bucket index, threads.
#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <random>
#include <thread>
#include <utility>
#include <vector>

#include "platform/src/base/fastmod.h"
#include "test_support.h"

namespace {

class PlatformHash : public rixtest::PlatformTest {};

struct Entry {
    uint32_t key;
    uint32_t value;
};

// The key is its own hash, so few buckets collide on purpose (key % buckets).
uint32_t HashKey(const void *key)
{
    return *static_cast<const uint32_t *>(key);
}
uint32_t SameKey(void *data, const void *searched, uint32_t arg)
{
    return arg == 0 && static_cast<Entry *>(data)->key == *static_cast<const uint32_t *>(searched) ? 1u : 0u;
}

Entry *AddEntry(void *hash, uint32_t key, uint32_t value)
{
    auto *e = static_cast<Entry *>(LITE_HASH_NewData(hash, 0));
    if (e != nullptr) {
        *e = Entry{key, value};
        EXPECT_EQ(LITE_HASH_AddNode(hash, &e->key, e, 0), 0u);
    }
    return e;
}

Entry *Find(void *hash, uint32_t key)
{
    LITE_HASH_Node *node = LITE_HASH_FindNodeFromFirst(hash, &key, &key);
    return node == nullptr ? nullptr : static_cast<Entry *>(node->data);
}

uint32_t ValueOf(void *hash, uint32_t key)
{
    Entry *e = Find(hash, key);
    return e == nullptr ? ~0u : e->value;
}

TEST_F(PlatformHash, CollisionsFindRemoveAndCounts)
{
    const uint32_t inUse = RIX_TEST_HashBlocksInUse();
    void *hash = LITE_HASH_CreateWithLock(0, sizeof(Entry), 4, HashKey, SameKey, 0);
    ASSERT_NE(hash, nullptr);
    for (uint32_t k = 0; k < 12; ++k) {
        ASSERT_NE(AddEntry(hash, k, k * 10), nullptr);
    }
    for (uint32_t k = 0; k < 12; ++k) {
        EXPECT_EQ(ValueOf(hash, k), k * 10);
    }
    EXPECT_EQ(Find(hash, 13), nullptr);
    const uint32_t five = 5;
    const uint32_t nine = 9;
    EXPECT_EQ(LITE_HASH_GetHashCnt(hash), 12u);
    EXPECT_EQ(LITE_HASH_GetListCntByKey(hash, &five), 3u);  // 1, 5, 9 share a bucket

    // Removal unlinks only the matching node of the bucket; the block stays allocated.
    Entry *block = Find(hash, 5);
    EXPECT_NE(LITE_HASH_RemoveNodeByKey(hash, &five), 0u);
    EXPECT_EQ(LITE_HASH_RemoveNodeByKey(hash, &five), 0u);
    EXPECT_EQ(Find(hash, 5), nullptr);
    EXPECT_EQ(ValueOf(hash, 9), 90u);
    EXPECT_EQ(LITE_HASH_GetListCntByKey(hash, &five), 2u);
    EXPECT_EQ(LITE_HASH_GetHashCnt(hash), 11u);
    EXPECT_EQ(RIX_TEST_HashBlocksInUse(), inUse + 12);
    EXPECT_EQ(LITE_HASH_FreeData(hash, block), 0u);
    EXPECT_NE(LITE_HASH_FreeData(hash, block), 0u);  // twice is refused
    EXPECT_EQ(RIX_TEST_HashBlocksInUse(), inUse + 11);

    // Newest at the head; a linked block is refused a second link; freeing one unlinks it.
    Entry *dup = AddEntry(hash, 9, 999);
    EXPECT_EQ(Find(hash, 9), dup);
    EXPECT_NE(LITE_HASH_AddNode(hash, &nine, dup, 0), 0u);
    EXPECT_EQ(LITE_HASH_FreeData(hash, dup), 0u);
    EXPECT_EQ(ValueOf(hash, 9), 90u);
    EXPECT_EQ(LITE_HASH_GetHashCnt(hash), 11u);

    // Injected failures reach the per-record operations too, once each.
    RIX_TEST_FailNth("LITE_HASH_FindNodeFromFirst", 1);
    EXPECT_EQ(Find(hash, 9), nullptr);
    EXPECT_EQ(ValueOf(hash, 9), 90u);
    RIX_TEST_FailNth("LITE_HASH_NewData", 1);
    EXPECT_EQ(LITE_HASH_NewData(hash, 0), nullptr);
    RIX_TEST_FailNth("LITE_HASH_RemoveNodeByKey", 1);
    EXPECT_EQ(LITE_HASH_RemoveNodeByKey(hash, &nine), 0u);
    EXPECT_EQ(ValueOf(hash, 9), 90u);
    EXPECT_EQ(LITE_HASH_DeleteHash(&hash), 0u);
    EXPECT_EQ(hash, nullptr);
    EXPECT_EQ(RIX_TEST_HashBlocksInUse(), inUse);
}

// A block is accepted only by its own table and only in the state the call needs; a refusal
// changes nothing, and freeing a linked block from the middle of a chain keeps the chain whole.
TEST_F(PlatformHash, RefusesForeignFreeAndStrayBlocksWithoutEffect)
{
    const uint32_t inUse = RIX_TEST_HashBlocksInUse();
    void *a = LITE_HASH_CreateWithLock(0, sizeof(Entry), 4, HashKey, SameKey, 0);
    void *b = LITE_HASH_CreateWithLock(0, sizeof(Entry), 4, HashKey, SameKey, 0);
    ASSERT_NE(a, nullptr);
    ASSERT_NE(b, nullptr);
    Entry *held = static_cast<Entry *>(LITE_HASH_NewData(a, 0));
    ASSERT_NE(held, nullptr);
    *held = Entry{2, 20};
    EXPECT_NE(LITE_HASH_AddNode(b, &held->key, held, 0), 0u);
    EXPECT_NE(LITE_HASH_FreeData(b, held), 0u);
    EXPECT_NE(LITE_HASH_AddNode(a, &held->key, reinterpret_cast<char *>(held) + 8, 0), 0u);
    EXPECT_NE(LITE_HASH_FreeData(a, reinterpret_cast<char *>(held) + 8), 0u);
    EXPECT_NE(LITE_HASH_AddNode(a, &held->key, nullptr, 0), 0u);
    EXPECT_NE(LITE_HASH_FreeData(a, nullptr), 0u);
    EXPECT_EQ(LITE_HASH_GetHashCnt(a) + LITE_HASH_GetHashCnt(b), 0u);
    EXPECT_EQ(RIX_TEST_HashBlocksInUse(), inUse + 1);
    EXPECT_EQ(LITE_HASH_FreeData(a, held), 0u);
    EXPECT_NE(LITE_HASH_AddNode(a, &held->key, held, 0), 0u);  // free: neither linked nor freed again
    EXPECT_NE(LITE_HASH_FreeData(a, held), 0u);
    EXPECT_EQ(RIX_TEST_HashBlocksInUse(), inUse);

    Entry *one = AddEntry(a, 1, 10);
    Entry *five = AddEntry(a, 5, 50);
    Entry *nine = AddEntry(a, 9, 90);  // the chain: 9, 5, 1
    EXPECT_NE(LITE_HASH_FreeData(b, five), 0u);
    EXPECT_EQ(Find(a, 5), five);
    EXPECT_EQ(LITE_HASH_FreeData(a, five), 0u);
    EXPECT_EQ(Find(a, 5), nullptr);
    EXPECT_EQ(Find(a, 1), one);
    EXPECT_EQ(Find(a, 9), nine);
    EXPECT_EQ(LITE_HASH_GetListCntByKey(a, &one->key), 2u);
    EXPECT_EQ(LITE_HASH_FreeData(a, one), 0u);  // the tail
    EXPECT_EQ(LITE_HASH_GetListCntByKey(a, &nine->key), 1u);
    EXPECT_EQ(LITE_HASH_GetHashCnt(a), 1u);
    EXPECT_EQ(LITE_HASH_DeleteHash(&a), 0u);
    EXPECT_EQ(LITE_HASH_DeleteHash(&b), 0u);
    EXPECT_EQ(RIX_TEST_HashBlocksInUse(), inUse);
}

// The calls modules observe: the table's hashFunc once per keyed call, none when the call
// fails early, and cmpFunc on each node visited, newest first, with the searched value.
std::vector<std::pair<char, uint32_t>> g_callbacks;
uint32_t LoggedHash(const void *key)
{
    g_callbacks.emplace_back('h', *static_cast<const uint32_t *>(key));
    return HashKey(key);
}
uint32_t LoggedCmp(void *data, const void *searched, uint32_t arg)
{
    g_callbacks.emplace_back('c', static_cast<Entry *>(data)->key);
    return SameKey(data, searched, arg);
}

TEST_F(PlatformHash, CallsHashOncePerKeyedCallAndCompareAlongTheChain)
{
    using Log = std::vector<std::pair<char, uint32_t>>;
    void *hash = LITE_HASH_CreateWithLock(0, sizeof(Entry), 4, LoggedHash, LoggedCmp, 0);
    ASSERT_NE(hash, nullptr);
    for (uint32_t k : {1u, 5u, 9u}) {
        AddEntry(hash, k, k);
    }
    EXPECT_EQ(g_callbacks, (Log{{'h', 1}, {'h', 5}, {'h', 9}}));
    g_callbacks.clear();
    EXPECT_NE(Find(hash, 1), nullptr);
    EXPECT_EQ(Find(hash, 13), nullptr);
    EXPECT_EQ(g_callbacks, (Log{{'h', 1}, {'c', 9}, {'c', 5}, {'c', 1}, {'h', 13}, {'c', 9}, {'c', 5}, {'c', 1}}));
    g_callbacks.clear();
    const uint32_t five = 5;
    EXPECT_EQ(LITE_HASH_RemoveNodeByKey(hash, &five), 1u);
    EXPECT_EQ(LITE_HASH_GetListCntByKey(hash, &five), 2u);
    EXPECT_NE(LITE_HASH_AddNode(hash, &five, nullptr, 0), 0u);  // refused after hashing, as ever
    EXPECT_EQ(g_callbacks, (Log{{'h', 5}, {'c', 9}, {'c', 5}, {'h', 5}, {'h', 5}}));
    g_callbacks.clear();
    EXPECT_EQ(LITE_HASH_FindNodeFromFirst(hash, nullptr, &five), nullptr);
    EXPECT_EQ(LITE_HASH_RemoveNodeByKey(hash, nullptr), 0u);
    EXPECT_EQ(LITE_HASH_GetListCntByKey(nullptr, &five), 0u);
    RIX_TEST_FailNth("LITE_HASH_GetListCntByKey", 1);
    EXPECT_EQ(LITE_HASH_GetListCntByKey(hash, &five), 0u);
    RIX_TEST_FailNth("LITE_HASH_AddNode", 1);
    EXPECT_NE(LITE_HASH_AddNode(hash, &five, Find(hash, 9), 0), 0u);
    EXPECT_EQ(g_callbacks, (Log{{'h', 9}, {'c', 9}}));  // the Find only
    EXPECT_EQ(RIX_TEST_CallCount("LITE_HASH_GetListCntByKey"), 3u);
    EXPECT_EQ(RIX_TEST_CallCount("LITE_HASH_FindNodeFromFirst"), 4u);
    EXPECT_EQ(LITE_HASH_DeleteHash(&hash), 0u);
    g_callbacks.clear();
}

TEST_F(PlatformHash, BlockPoolIsReusedAndReleased)
{
    const uint32_t inUse = RIX_TEST_HashBlocksInUse();
    void *hash = LITE_HASH_CreateWithLock(0, 40, 1024, HashKey, SameKey, 0);
    ASSERT_NE(hash, nullptr);
    std::vector<Entry *> held(1000);
    for (uint32_t k = 0; k < held.size(); ++k) {
        ASSERT_NE(held[k] = AddEntry(hash, k, k), nullptr);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(held[k]) % 8u, 0u);
        std::memset(held[k] + 1, 0x5A, 40 - sizeof(Entry));  // the whole block is usable
    }
    const uint32_t sysAllocs = RIX_TEST_HashSystemAllocs();
    EXPECT_GT(sysAllocs, 0u);
    EXPECT_LT(sysAllocs, 20u);                 // chunks, not one allocation per block
    for (int round = 0; round < 3; ++round) {  // blocks freed and taken again come from the pool
        for (Entry *e : held) {
            ASSERT_NE(LITE_HASH_RemoveNodeByKey(hash, &e->key), 0u);
            ASSERT_EQ(LITE_HASH_FreeData(hash, e), 0u);
        }
        EXPECT_EQ(LITE_HASH_GetHashCnt(hash), 0u);
        EXPECT_EQ(RIX_TEST_HashBlocksInUse(), inUse);
        for (uint32_t k = 0; k < held.size(); ++k) {
            ASSERT_NE(held[k] = AddEntry(hash, k + 5000, k), nullptr);
        }
    }
    EXPECT_EQ(RIX_TEST_HashSystemAllocs(), sysAllocs);
    EXPECT_EQ(LITE_HASH_DeleteHash(&hash), 0u);  // releases blocks still linked
    EXPECT_EQ(RIX_TEST_HashBlocksInUse(), inUse);

    EXPECT_EQ(LITE_HASH_CreateWithLock(0, 8, 0, HashKey, SameKey, 0), nullptr);
    EXPECT_EQ(LITE_HASH_CreateWithLock(0, 8, 4, nullptr, SameKey, 0), nullptr);
}

TEST(PlatformFastMod, EqualsRemainderForEverySizeClass)
{
    std::vector<uint32_t> sizes = {1,     2,     3,           5,           6,           7,           63,
                                   64,    65,    100,         1000,        4095,        4096,        4097,
                                   65535, 65537, 0x7FFFFFFFu, 0x80000000u, 0x80000001u, 0xFFFFFFFEu, 0xFFFFFFFFu};
    std::mt19937 rng(77);
    for (int i = 0; i < 200; ++i) {
        sizes.push_back(rng() >> (rng() % 32));
    }
    for (uint32_t d : sizes) {
        if (d == 0) {
            continue;
        }
        const rixplat::FastMod f = rixplat::MakeFastMod(d);
        std::vector<uint32_t> hashes = {0,     1,           d - 1,       d,           d + 1,       2 * d - 1,
                                        2 * d, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFEu, 0xFFFFFFFFu, 0xFFFFFFFFu - d};
        for (int i = 0; i < 300; ++i) {
            hashes.push_back(rng());
        }
        for (uint32_t h : hashes) {
            ASSERT_EQ(rixplat::ModOf(f, h), h % d) << h << " % " << d;
        }
    }
}

// Blocks are as large as asked, at most 7 bytes of rounding, 8-aligned, and writing all of a
// block disturbs neither its neighbours nor the bookkeeping in front of them.
TEST_F(PlatformHash, BlocksHaveTheAskedSizeAndBucketsFollowTheHash)
{
    const uint32_t header = RIX_TEST_HashBlockBytes(0);
    EXPECT_EQ(header, 2 * sizeof(void *) + 8);
    for (uint32_t size : {1u, 7u, 8u, 12u, 36u, 64u, 76u, 100u, 65535u}) {
        const uint32_t bytes = RIX_TEST_HashBlockBytes(size);
        EXPECT_EQ(bytes % 8u, 0u);
        EXPECT_GE(bytes, header + size);
        EXPECT_LT(bytes, header + size + 8u);
        void *hash = LITE_HASH_CreateWithLock(0, static_cast<uint16_t>(size), 7, HashKey, SameKey, 0);
        ASSERT_NE(hash, nullptr);
        std::vector<char *> blocks(size < 1000 ? 300 : 20);
        for (char *&b : blocks) {
            ASSERT_NE(b = static_cast<char *>(LITE_HASH_NewData(hash, 0)), nullptr);
            EXPECT_EQ(reinterpret_cast<uintptr_t>(b) % 8u, 0u);
            std::memset(b, 0xFF, size);
        }
        EXPECT_EQ(std::abs(blocks[2] - blocks[1]), static_cast<ptrdiff_t>(bytes));
        for (char *b : blocks) {
            EXPECT_EQ(LITE_HASH_FreeData(hash, b), 0u);
        }
        EXPECT_EQ(LITE_HASH_DeleteHash(&hash), 0u);
    }

    // The bucket of a key is hash % count for counts with and without a mask.
    for (uint32_t count : {1u, 7u, 1000u, 1024u}) {
        void *hash = LITE_HASH_CreateWithLock(0, sizeof(Entry), count, HashKey, SameKey, 0);
        const uint32_t keys[] = {0u, 3u, 7u, 10u, 1000u, 1003u, 2024u, 0xFFFFFFFFu};
        for (uint32_t k : keys) {
            ASSERT_NE(AddEntry(hash, k, 0), nullptr);
        }
        for (uint32_t k : keys) {
            const auto same =
                std::count_if(std::begin(keys), std::end(keys), [&](uint32_t o) { return o % count == k % count; });
            EXPECT_EQ(LITE_HASH_GetListCntByKey(hash, &k), static_cast<uint32_t>(same)) << k << " of " << count;
        }
        EXPECT_EQ(LITE_HASH_DeleteHash(&hash), 0u);
    }
}

// A compare that yields holds the table's lock long enough for the other threads to sleep on it.
uint32_t SameKeyYielding(void *data, const void *searched, uint32_t arg)
{
    std::this_thread::yield();
    return SameKey(data, searched, arg);
}

TEST_F(PlatformHash, SharedTableUnderConcurrentThreads)
{
    void *hash = LITE_HASH_CreateWithLock(0, sizeof(Entry), 64, HashKey, SameKeyYielding, 0);
    std::atomic<uint32_t> misses{0};
    std::vector<std::thread> threads;
    for (uint32_t t = 0; t < 4; ++t) {
        threads.emplace_back([hash, t, &misses] {
            for (uint32_t i = 0; i < 2000; ++i) {
                const uint32_t key = t * 100000u + i % 50u;
                Entry *e = AddEntry(hash, key, i);
                misses += e == nullptr || Find(hash, key) != e || LITE_HASH_GetListCntByKey(hash, &key) == 0 ||
                          LITE_HASH_RemoveNodeByKey(hash, &key) == 0 || LITE_HASH_FreeData(hash, e) != 0;
            }
        });
    }
    for (std::thread &t : threads) {
        t.join();
    }
    EXPECT_EQ(misses.load(), 0u);
    EXPECT_EQ(LITE_HASH_GetHashCnt(hash), 0u);
    // Threads that ended still count, each call once whether it waited for the lock or not.
    for (const char *op : {"LITE_HASH_NewData", "LITE_HASH_AddNode", "LITE_HASH_FindNodeFromFirst",
                           "LITE_HASH_GetListCntByKey", "LITE_HASH_RemoveNodeByKey", "LITE_HASH_FreeData"}) {
        EXPECT_EQ(RIX_TEST_CallCount(op), 8000u) << op;
    }
    EXPECT_EQ(LITE_HASH_DeleteHash(&hash), 0u);
}

}  // namespace
