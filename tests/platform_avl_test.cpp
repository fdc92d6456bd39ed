// The stand-in AVL trees, against std::set.
#include <algorithm>
#include <cstdlib>
#include <random>
#include <set>
#include <vector>

#include "test_support.h"

namespace {

class PlatformAvl : public rixtest::PlatformTest {};

struct Item {
    ZUL_AVL3_NODE node;
    uint32_t pad;
    int32_t key;
};

int32_t CompareInt(const void *a, const void *b)
{
    const int32_t x = *static_cast<const int32_t *>(a), y = *static_cast<const int32_t *>(b);
    return x < y ? -1 : (x > y ? 1 : 0);
}

// Checks the AVL invariants, the parent links and the recorded heights; returns the height.
int32_t CheckSubtree(const ZUL_AVL3_NODE *n, const ZUL_AVL3_NODE *parent)
{
    if (n == nullptr) {
        return 0;
    }
    EXPECT_EQ(n->parent, parent);
    int32_t l = CheckSubtree(n->left, n);
    int32_t r = CheckSubtree(n->right, n);
    EXPECT_LE(std::abs(l - r), 1);
    EXPECT_EQ(n->height, std::max(l, r) + 1);
    return std::max(l, r) + 1;
}

std::vector<int32_t> Walk(ZUL_AVL3_TREE *tree, const ZUL_AVL3_TREE_INFO *info)
{
    std::vector<int32_t> keys;
    for (void *n = ZUL_AVL3_First(tree, info); n != nullptr; n = ZUL_AVL3_Next(static_cast<ZUL_AVL3_NODE *>(n), info)) {
        keys.push_back(static_cast<Item *>(n)->key);
    }
    return keys;
}

TEST_F(PlatformAvl, RandomInsertDeleteMatchesStdSet)
{
    const ZUL_AVL3_TREE_INFO info{CompareInt, static_cast<uint32_t>(offsetof(Item, key))};
    const ZUL_AVL3_NODE fresh{nullptr, nullptr, nullptr, -1};
    ZUL_AVL3_TREE tree{};
    std::vector<Item> items(600);
    for (uint32_t i = 0; i < items.size(); ++i) {
        items[i] = Item{fresh, 0, static_cast<int32_t>(i) - 300};
    }
    std::set<int32_t> model;
    std::vector<bool> inTree(items.size(), false);
    std::mt19937 rng(1234);
    for (int step = 0; step < 6000; ++step) {
        uint32_t i = rng() % items.size();
        Item &it = items[i];
        if (!inTree[i]) {
            ASSERT_EQ(ZUL_AVL3_Insert_Or_Find(&tree, &it.node, &info), nullptr);
            inTree[i] = true;
            model.insert(it.key);
        } else if (rng() % 2 == 0) {
            Item twin{fresh, 0, it.key};
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
            ASSERT_EQ(Walk(&tree, &info), std::vector<int32_t>(model.begin(), model.end()));
            if (!model.empty()) {
                EXPECT_EQ(reinterpret_cast<Item *>(tree.first)->key, *model.begin());
                EXPECT_EQ(reinterpret_cast<Item *>(tree.last)->key, *model.rbegin());
            }
        }
    }
    for (uint32_t i = 0; i < items.size(); ++i) {  // emptied, the root record is all null again
        if (inTree[i]) {
            ZUL_AVL3_Delete(&tree, &items[i].node);
        }
    }
    EXPECT_EQ(std::vector<void *>({tree.root, tree.first, tree.last}), std::vector<void *>(3, nullptr));
    RIX_TEST_FailNth("ZUL_AVL3_Insert_Or_Find", 1);  // reports the key as taken, inserts nothing
    Item extra{fresh, 0, 5000};
    EXPECT_EQ(ZUL_AVL3_Insert_Or_Find(&tree, &extra.node, &info), &extra.node);
    EXPECT_EQ(ZUL_AVL3_Find(&tree, &extra.key, &info), nullptr);
}

}  // namespace
