// The stand-in hash tables (collisions, removal, block pool) and AVL trees (against std::set).
#include <algorithm>
#include <cstring>
#include <random>
#include <set>
#include <thread>
#include <vector>

#include "test_support.h"

namespace {

using rixtest::PlatformTest;

class PlatformHash : public PlatformTest {};
class PlatformAvl : public PlatformTest {};

struct Entry {
    uint32_t key;
    uint32_t value;
};

// Few buckets and a hash that collides on purpose: key % 4.
uint32_t HashKey(const void *key) { return *static_cast<const uint32_t *>(key); }
uint32_t SameKey(void *data, const void *searched, uint32_t arg)
{
    EXPECT_EQ(arg, 0u);
    return static_cast<Entry *>(data)->key == *static_cast<const uint32_t *>(searched) ? 1u : 0u;
}

Entry *AddEntry(void *hash, uint32_t key, uint32_t value)
{
    auto *e = static_cast<Entry *>(LITE_HASH_NewData(hash, 0));
    if (e == nullptr) {
        return nullptr;
    }
    e->key = key;
    e->value = value;
    EXPECT_EQ(LITE_HASH_AddNode(hash, &e->key, e, 0), 0u);
    return e;
}

TEST_F(PlatformHash, CollisionsFindRemoveAndCounts)
{
    const uint32_t inUse = RIX_TEST_HashBlocksInUse();
    void *hash = LITE_HASH_CreateWithLock(0, sizeof(Entry), 4, HashKey, SameKey, 0);
    ASSERT_NE(hash, nullptr);
    for (uint32_t k = 0; k < 12; ++k) {
        ASSERT_NE(AddEntry(hash, k, k * 10), nullptr);
    }
    EXPECT_EQ(LITE_HASH_GetHashCnt(hash), 12u);
    const uint32_t five = 5;
    EXPECT_EQ(LITE_HASH_GetListCntByKey(hash, &five), 3u);  // 1, 5, 9 share a bucket
    for (uint32_t k = 0; k < 12; ++k) {
        LITE_HASH_Node *node = LITE_HASH_FindNodeFromFirst(hash, &k, &k);
        ASSERT_NE(node, nullptr);
        EXPECT_EQ(static_cast<Entry *>(node->data)->value, k * 10);
    }
    const uint32_t missing = 13;
    EXPECT_EQ(LITE_HASH_FindNodeFromFirst(hash, &missing, &missing), nullptr);

    // Removal unlinks only the matching node of the bucket; the block stays allocated.
    LITE_HASH_Node *node = LITE_HASH_FindNodeFromFirst(hash, &five, &five);
    ASSERT_NE(node, nullptr);
    void *block = node->data;
    EXPECT_NE(LITE_HASH_RemoveNodeByKey(hash, &five), 0u);
    EXPECT_EQ(LITE_HASH_RemoveNodeByKey(hash, &five), 0u);
    EXPECT_EQ(LITE_HASH_FindNodeFromFirst(hash, &five, &five), nullptr);
    const uint32_t nine = 9;
    EXPECT_NE(LITE_HASH_FindNodeFromFirst(hash, &nine, &nine), nullptr);
    EXPECT_EQ(LITE_HASH_GetListCntByKey(hash, &five), 2u);
    EXPECT_EQ(LITE_HASH_GetHashCnt(hash), 11u);
    EXPECT_EQ(RIX_TEST_HashBlocksInUse(), inUse + 12);
    EXPECT_EQ(LITE_HASH_FreeData(hash, block), 0u);
    EXPECT_NE(LITE_HASH_FreeData(hash, block), 0u);  // twice is refused
    EXPECT_EQ(RIX_TEST_HashBlocksInUse(), inUse + 11);

    // Newest at the head: a duplicate key is found before the older node.
    Entry *dup = AddEntry(hash, 9, 999);
    ASSERT_NE(dup, nullptr);
    EXPECT_EQ(LITE_HASH_FindNodeFromFirst(hash, &nine, &nine)->data, dup);
    // A linked block is refused a second link; freeing a linked block unlinks it.
    EXPECT_NE(LITE_HASH_AddNode(hash, &nine, dup, 0), 0u);
    EXPECT_EQ(LITE_HASH_FreeData(hash, dup), 0u);
    EXPECT_EQ(static_cast<Entry *>(LITE_HASH_FindNodeFromFirst(hash, &nine, &nine)->data)->value, 90u);
    EXPECT_EQ(LITE_HASH_GetHashCnt(hash), 11u);

    EXPECT_EQ(LITE_HASH_DeleteHash(&hash), 0u);
    EXPECT_EQ(hash, nullptr);
    EXPECT_EQ(RIX_TEST_HashBlocksInUse(), inUse);
}

TEST_F(PlatformHash, BlockPoolIsReusedAndReleased)
{
    const uint32_t inUse = RIX_TEST_HashBlocksInUse();
    void *hash = LITE_HASH_CreateWithLock(0, 40, 1024, HashKey, SameKey, 0);
    ASSERT_NE(hash, nullptr);
    std::vector<Entry *> held;
    for (uint32_t k = 0; k < 1000; ++k) {
        Entry *e = AddEntry(hash, k, k);
        ASSERT_NE(e, nullptr);
        EXPECT_EQ(reinterpret_cast<uintptr_t>(e) % 8u, 0u);
        std::memset(reinterpret_cast<uint8_t *>(e) + sizeof(Entry), 0x5A, 40 - sizeof(Entry));  // whole block usable
        held.push_back(e);
    }
    const uint32_t sysAllocs = RIX_TEST_HashSystemAllocs();
    EXPECT_GT(sysAllocs, 0u);
    EXPECT_LT(sysAllocs, 20u);  // chunks, not one allocation per block
    // Steady state: blocks freed and taken again come from the pool.
    for (int round = 0; round < 3; ++round) {
        for (Entry *e : held) {
            ASSERT_NE(LITE_HASH_RemoveNodeByKey(hash, &e->key), 0u);
            ASSERT_EQ(LITE_HASH_FreeData(hash, e), 0u);
        }
        EXPECT_EQ(LITE_HASH_GetHashCnt(hash), 0u);
        EXPECT_EQ(RIX_TEST_HashBlocksInUse(), inUse);
        for (uint32_t k = 0; k < 1000; ++k) {
            held[k] = AddEntry(hash, k + 5000, k);
            ASSERT_NE(held[k], nullptr);
        }
    }
    EXPECT_EQ(RIX_TEST_HashSystemAllocs(), sysAllocs);
    // Deletion releases blocks still linked (ASan/valgrind report any left behind).
    EXPECT_EQ(LITE_HASH_DeleteHash(&hash), 0u);
    EXPECT_EQ(RIX_TEST_HashBlocksInUse(), inUse);

    EXPECT_EQ(LITE_HASH_CreateWithLock(0, 8, 0, HashKey, SameKey, 0), nullptr);
    EXPECT_EQ(LITE_HASH_CreateWithLock(0, 8, 4, nullptr, SameKey, 0), nullptr);
    const uint32_t calls = RIX_TEST_CallCount("LITE_HASH_NewData");
    RIX_TEST_FailNth("LITE_HASH_NewData", 1);
    hash = LITE_HASH_CreateWithLock(0, 8, 4, HashKey, SameKey, 0);
    EXPECT_EQ(LITE_HASH_NewData(hash, 0), nullptr);
    EXPECT_NE(LITE_HASH_NewData(hash, 0), nullptr);
    EXPECT_EQ(RIX_TEST_CallCount("LITE_HASH_NewData"), calls + 2);
    EXPECT_EQ(LITE_HASH_DeleteHash(&hash), 0u);
}

TEST_F(PlatformHash, SharedTableUnderConcurrentThreads)
{
    void *hash = LITE_HASH_CreateWithLock(0, sizeof(Entry), 64, HashKey, SameKey, 0);
    ASSERT_NE(hash, nullptr);
    const uint32_t findsBefore = RIX_TEST_CallCount("LITE_HASH_FindNodeFromFirst");
    std::vector<std::thread> threads;
    std::atomic<uint32_t> misses{0};
    for (uint32_t t = 0; t < 4; ++t) {
        threads.emplace_back([hash, t, &misses] {
            for (uint32_t i = 0; i < 2000; ++i) {
                uint32_t key = t * 100000u + i % 50u;
                Entry *e = AddEntry(hash, key, i);
                if (e == nullptr || LITE_HASH_FindNodeFromFirst(hash, &key, &key) == nullptr) {
                    ++misses;
                }
                LITE_HASH_RemoveNodeByKey(hash, &key);
                LITE_HASH_FreeData(hash, e);
            }
        });
    }
    for (std::thread &t : threads) {
        t.join();
    }
    EXPECT_EQ(misses.load(), 0u);
    EXPECT_EQ(LITE_HASH_GetHashCnt(hash), 0u);
    // Calls of threads that have ended still count.
    EXPECT_EQ(RIX_TEST_CallCount("LITE_HASH_FindNodeFromFirst") - findsBefore, 8000u);
    EXPECT_EQ(LITE_HASH_DeleteHash(&hash), 0u);
}

struct Item {
    ZUL_AVL3_NODE node;
    uint32_t pad;
    int32_t key;
};

int32_t CompareInt(const void *a, const void *b)
{
    int32_t x = *static_cast<const int32_t *>(a);
    int32_t y = *static_cast<const int32_t *>(b);
    return x < y ? -1 : (x > y ? 1 : 0);
}

// Walks the tree and checks the AVL invariants, the parent links and the recorded heights.
int32_t CheckSubtree(const ZUL_AVL3_NODE *n, const ZUL_AVL3_NODE *parent)
{
    if (n == nullptr) {
        return 0;
    }
    EXPECT_EQ(n->parent, parent);
    int32_t l = CheckSubtree(n->left, n);
    int32_t r = CheckSubtree(n->right, n);
    EXPECT_LE(std::abs(l - r), 1);
    int32_t h = std::max(l, r) + 1;
    EXPECT_EQ(n->height, h);
    return h;
}

TEST_F(PlatformAvl, RandomInsertDeleteMatchesStdSet)
{
    const ZUL_AVL3_TREE_INFO info{CompareInt, static_cast<uint32_t>(offsetof(Item, key))};
    ZUL_AVL3_TREE tree{};
    std::vector<Item> items(600);
    std::set<int32_t> model;
    std::mt19937 rng(1234);
    for (uint32_t i = 0; i < items.size(); ++i) {
        items[i].key = static_cast<int32_t>(i) - 300;
        items[i].node = ZUL_AVL3_NODE{nullptr, nullptr, nullptr, -1};
    }
    std::vector<bool> inTree(items.size(), false);
    for (int step = 0; step < 6000; ++step) {
        uint32_t i = rng() % items.size();
        Item &it = items[i];
        if (!inTree[i]) {
            ASSERT_EQ(ZUL_AVL3_Insert_Or_Find(&tree, &it.node, &info), nullptr);
            inTree[i] = true;
            model.insert(it.key);
        } else if (rng() % 2 == 0) {
            Item twin = it;
            twin.node = ZUL_AVL3_NODE{nullptr, nullptr, nullptr, -1};
            EXPECT_EQ(ZUL_AVL3_Insert_Or_Find(&tree, &twin.node, &info), &it.node);
            EXPECT_EQ(ZUL_AVL3_Find(&tree, &it.key, &info), &it.node);
        } else {
            ZUL_AVL3_Delete(&tree, &it.node);
            inTree[i] = false;
            model.erase(it.key);
            EXPECT_EQ(ZUL_AVL3_Find(&tree, &it.key, &info), nullptr);
        }
        if (step % 500 == 0 || step == 5999) {
            CheckSubtree(tree.root, nullptr);
            std::vector<int32_t> walked;
            for (void *n = ZUL_AVL3_First(&tree, &info); n != nullptr;
                 n = ZUL_AVL3_Next(static_cast<ZUL_AVL3_NODE *>(n), &info)) {
                walked.push_back(reinterpret_cast<Item *>(n)->key);
            }
            ASSERT_EQ(walked, std::vector<int32_t>(model.begin(), model.end()));
            if (!model.empty()) {
                EXPECT_EQ(reinterpret_cast<Item *>(tree.first)->key, *model.begin());
                EXPECT_EQ(reinterpret_cast<Item *>(tree.last)->key, *model.rbegin());
            }
        }
    }
    // Empty it completely: the root record is all null again.
    for (uint32_t i = 0; i < items.size(); ++i) {
        if (inTree[i]) {
            ZUL_AVL3_Delete(&tree, &items[i].node);
        }
    }
    EXPECT_EQ(tree.root, nullptr);
    EXPECT_EQ(tree.first, nullptr);
    EXPECT_EQ(tree.last, nullptr);
    EXPECT_EQ(ZUL_AVL3_First(&tree, &info), nullptr);
}

TEST_F(PlatformAvl, SortedInsertStaysLogarithmic)
{
    const ZUL_AVL3_TREE_INFO info{CompareInt, static_cast<uint32_t>(offsetof(Item, key))};
    ZUL_AVL3_TREE tree{};
    std::vector<Item> items(1023);
    for (uint32_t i = 0; i < items.size(); ++i) {
        items[i].key = static_cast<int32_t>(i);
        ASSERT_EQ(ZUL_AVL3_Insert_Or_Find(&tree, &items[i].node, &info), nullptr);
    }
    EXPECT_LE(tree.root->height, 11);  // 1.44 log2(n) bound
    CheckSubtree(tree.root, nullptr);
    RIX_TEST_FailNth("ZUL_AVL3_Insert_Or_Find", 1);
    Item extra{};
    extra.key = 5000;
    EXPECT_EQ(ZUL_AVL3_Insert_Or_Find(&tree, &extra.node, &info), &extra.node);
    EXPECT_EQ(ZUL_AVL3_Find(&tree, &extra.key, &info), nullptr);
}

}  // namespace
