// Module-name registry, the integer hash on the circular list, and name joining.
#include <string>
#include <vector>

#include "test_support.h"

namespace {

using rixtest::CountingAlloc;
using rixtest::CountingFree;

class NamesTest : public rixtest::PlatformTest {};

std::vector<std::string> RegisteredNames()
{
    std::vector<std::string> out;
    for (const AutoSyncNameNode *n = g_AutoSyncCtrlBlkNameHead.first; n != nullptr; n = n->next) {
        out.emplace_back(n->name);
    }
    return out;
}

TEST_F(NamesTest, RegistryKeepsNewestFirstAndUnlinksAnyPosition)
{
    const uint32_t before = g_AutoSyncCtrlBlkNameHead.count;
    for (const char *n : {"A", "B", "C"}) {
        ASSERT_EQ(0u, AutoSyncAddModule(n, CountingAlloc));
    }
    EXPECT_EQ((std::vector<std::string>{"C", "B", "A"}), RegisteredNames());
    // Duplicates and over-long names are refused without touching the allocator.
    EXPECT_EQ(1u, AutoSyncAddModule("B", CountingAlloc));
    EXPECT_EQ(1u, AutoSyncAddModule("ABCDEFGHIJKLMNOP", CountingAlloc));
    EXPECT_EQ(3u, rixtest::GetAllocStats().allocs);
    EXPECT_EQ(0u, AutoSyncNameExisted("b"));

    const std::vector<std::vector<std::string>> after = {{"C", "A"}, {"C"}, {}, {}};
    const char *del[] = {"B", "A", "C", "C"};  // middle, last, first, then unknown
    for (size_t i = 0; i < 4u; ++i) {
        AutoSyncDelModule(del[i], CountingFree);
        EXPECT_EQ(after[i], RegisteredNames()) << i;
    }
    EXPECT_EQ(before, g_AutoSyncCtrlBlkNameHead.count);
    EXPECT_EQ(3u, rixtest::GetAllocStats().frees);

    rixtest::FailAllocNth(1);
    EXPECT_EQ(1u, AutoSyncAddModule("N", CountingAlloc));
    EXPECT_EQ(0u, AutoSyncNameExisted("N"));
    // A failing bounded call keeps nothing: no node linked, none held.
    for (const char *op : {"memset_s", "strcpy_s"}) {
        RIX_TEST_FailNth(op, 1);
        EXPECT_EQ(1u, AutoSyncAddModule("N", CountingAlloc)) << op;
        EXPECT_EQ(0u, AutoSyncNameExisted("N")) << op;
        EXPECT_EQ(0, rixtest::LiveAllocations()) << op;
    }

    char dst[8] = "keep";  // joining needs room for the terminator or leaves dst alone
    EXPECT_EQ(1u, ASCombineName(dst, 4u, "ab", "cd"));
    EXPECT_STREQ("keep", dst);
    EXPECT_EQ(0u, ASCombineName(dst, 5u, "ab", "cd"));
    EXPECT_STREQ("abcd", dst);
}

std::vector<uint32_t> g_seen;
uint32_t Record(ASIntHashNode *node, uint32_t stopAt)
{
    g_seen.push_back(node->key);
    return g_seen.size() == stopAt ? 1u : 0u;
}

TEST_F(NamesTest, IntHashChainsByKeyModuloAndWalksInOrder)
{
    ASIntHash *hash = ASIntHashCreate(128u, CountingAlloc);
    ASSERT_NE(nullptr, hash);

    ASIntHashNode n5{{nullptr}, 5u}, n133{{nullptr}, 133u}, n7{{nullptr}, 7u}, dup{{nullptr}, 5u};
    for (ASIntHashNode *n : {&n5, &n133, &n7}) {
        ASSERT_EQ(0u, ASIntHashAdd(hash, n));
    }
    EXPECT_EQ(1u, ASIntHashAdd(hash, &dup));
    // 133 shares bucket 5 with 5 and, added later, comes first; the list closes on its head.
    EXPECT_EQ(&n133.link, hash->bucket[5].next);
    EXPECT_EQ(&n5.link, n133.link.next);
    EXPECT_EQ(&hash->bucket[5], n5.link.next);

    g_seen.clear();
    EXPECT_EQ(0u, ASIntHashWalk(hash, Record, 0u));
    EXPECT_EQ((std::vector<uint32_t>{133u, 5u, 7u}), g_seen);
    g_seen.clear();
    EXPECT_EQ(1u, ASIntHashWalk(hash, Record, 1u));
    EXPECT_EQ((std::vector<uint32_t>{133u}), g_seen);

    ASIntHashDelete(hash);  // the block stays the owner's
    EXPECT_EQ(1, rixtest::LiveAllocations());
    CountingFree(hash);
    rixtest::FailAllocNth(1);
    EXPECT_EQ(nullptr, ASIntHashCreate(32u, CountingAlloc));
}

}  // namespace
