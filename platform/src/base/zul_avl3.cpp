// Intrusive AVL trees over the four-word node header; the root record also tracks the first
// and last node so that an in-order walk starts without a descent.
#include <cstdint>

#include "base/op_hit.h"
#include "zul_avl3.h"

namespace {

inline int32_t H(const ZUL_AVL3_NODE *n)
{
    return n == nullptr ? 0 : n->height;
}

inline void Fix(ZUL_AVL3_NODE *n)
{
    int32_t l = H(n->left);
    int32_t r = H(n->right);
    n->height = (l > r ? l : r) + 1;
}

inline const void *KeyOf(const ZUL_AVL3_NODE *n, const ZUL_AVL3_TREE_INFO *info)
{
    return reinterpret_cast<const char *>(n) + info->keyOffset;
}

// Points the parent's link (or the root) that held `from` at `to`.
inline void Replace(ZUL_AVL3_TREE *tree, ZUL_AVL3_NODE *parent, ZUL_AVL3_NODE *from, ZUL_AVL3_NODE *to)
{
    if (parent == nullptr) {
        tree->root = to;
    } else if (parent->left == from) {
        parent->left = to;
    } else {
        parent->right = to;
    }
    if (to != nullptr) {
        to->parent = parent;
    }
}

ZUL_AVL3_NODE *RotateLeft(ZUL_AVL3_TREE *tree, ZUL_AVL3_NODE *x)
{
    ZUL_AVL3_NODE *y = x->right;
    Replace(tree, x->parent, x, y);
    x->right = y->left;
    if (x->right != nullptr) {
        x->right->parent = x;
    }
    y->left = x;
    x->parent = y;
    Fix(x);
    Fix(y);
    return y;
}

ZUL_AVL3_NODE *RotateRight(ZUL_AVL3_TREE *tree, ZUL_AVL3_NODE *x)
{
    ZUL_AVL3_NODE *y = x->left;
    Replace(tree, x->parent, x, y);
    x->left = y->right;
    if (x->left != nullptr) {
        x->left->parent = x;
    }
    y->right = x;
    x->parent = y;
    Fix(x);
    Fix(y);
    return y;
}

// Restores balance from n up to the root.
void Rebalance(ZUL_AVL3_TREE *tree, ZUL_AVL3_NODE *n)
{
    while (n != nullptr) {
        Fix(n);
        int32_t bal = H(n->left) - H(n->right);
        if (bal > 1) {
            if (H(n->left->left) < H(n->left->right)) {
                RotateLeft(tree, n->left);
            }
            n = RotateRight(tree, n);
        } else if (bal < -1) {
            if (H(n->right->right) < H(n->right->left)) {
                RotateRight(tree, n->right);
            }
            n = RotateLeft(tree, n);
        }
        n = n->parent;
    }
}

ZUL_AVL3_NODE *Leftmost(ZUL_AVL3_NODE *n)
{
    while (n != nullptr && n->left != nullptr) {
        n = n->left;
    }
    return n;
}

ZUL_AVL3_NODE *Rightmost(ZUL_AVL3_NODE *n)
{
    while (n != nullptr && n->right != nullptr) {
        n = n->right;
    }
    return n;
}

ZUL_AVL3_NODE *Successor(ZUL_AVL3_NODE *n)
{
    if (n->right != nullptr) {
        return Leftmost(n->right);
    }
    ZUL_AVL3_NODE *p = n->parent;
    while (p != nullptr && n == p->right) {
        n = p;
        p = p->parent;
    }
    return p;
}

}  // namespace

using rixplat::HitFast;

extern "C" {

void *ZUL_AVL3_Find(ZUL_AVL3_TREE *tree, const void *key, const ZUL_AVL3_TREE_INFO *info)
{
    if (HitFast(rixplat::Op_ZUL_AVL3_Find) || tree == nullptr || key == nullptr || info == nullptr) {
        return nullptr;
    }
    ZUL_AVL3_NODE *n = tree->root;
    while (n != nullptr) {
        int32_t c = info->compare(key, KeyOf(n, info));
        if (c == 0) {
            return n;
        }
        n = c < 0 ? n->left : n->right;
    }
    return nullptr;
}

void *ZUL_AVL3_Insert_Or_Find(ZUL_AVL3_TREE *tree, ZUL_AVL3_NODE *node, const ZUL_AVL3_TREE_INFO *info)
{
    // An injected failure looks like a key that is already present.
    if (HitFast(rixplat::Op_ZUL_AVL3_Insert_Or_Find) || tree == nullptr || info == nullptr) {
        return node;
    }
    if (node == nullptr) {
        return nullptr;
    }
    const void *key = KeyOf(node, info);
    ZUL_AVL3_NODE *parent = nullptr;
    ZUL_AVL3_NODE **link = &tree->root;
    bool leftmost = true;
    bool rightmost = true;
    while (*link != nullptr) {
        parent = *link;
        int32_t c = info->compare(key, KeyOf(parent, info));
        if (c == 0) {
            return parent;
        }
        if (c < 0) {
            link = &parent->left;
            rightmost = false;
        } else {
            link = &parent->right;
            leftmost = false;
        }
    }
    node->parent = parent;
    node->left = nullptr;
    node->right = nullptr;
    node->height = 1;
    *link = node;
    if (leftmost) {
        tree->first = node;
    }
    if (rightmost) {
        tree->last = node;
    }
    Rebalance(tree, parent);
    return nullptr;
}

void ZUL_AVL3_Delete(ZUL_AVL3_TREE *tree, ZUL_AVL3_NODE *node)
{
    if (HitFast(rixplat::Op_ZUL_AVL3_Delete) || tree == nullptr || node == nullptr) {
        return;
    }
    if (tree->first == node) {
        tree->first = Successor(node);
    }
    if (tree->last == node) {
        // The predecessor of the last node is its left subtree's maximum or its parent.
        tree->last = node->left != nullptr ? Rightmost(node->left) : node->parent;
    }
    ZUL_AVL3_NODE *start;
    if (node->left == nullptr || node->right == nullptr) {
        ZUL_AVL3_NODE *child = node->left != nullptr ? node->left : node->right;
        start = node->parent;
        Replace(tree, node->parent, node, child);
    } else {
        // Swap in the in-order successor, which has no left child.
        ZUL_AVL3_NODE *s = Leftmost(node->right);
        if (s->parent == node) {
            start = s;
        } else {
            start = s->parent;
            Replace(tree, s->parent, s, s->right);
            s->right = node->right;
            s->right->parent = s;
        }
        Replace(tree, node->parent, node, s);
        s->left = node->left;
        s->left->parent = s;
    }
    node->parent = nullptr;
    node->left = nullptr;
    node->right = nullptr;
    node->height = -1;
    Rebalance(tree, start);
}

void *ZUL_AVL3_First(ZUL_AVL3_TREE *tree, const ZUL_AVL3_TREE_INFO *info)
{
    (void)info;
    if (HitFast(rixplat::Op_ZUL_AVL3_First) || tree == nullptr) {
        return nullptr;
    }
    return tree->first;
}

void *ZUL_AVL3_Next(ZUL_AVL3_NODE *node, const ZUL_AVL3_TREE_INFO *info)
{
    (void)info;
    if (HitFast(rixplat::Op_ZUL_AVL3_Next) || node == nullptr) {
        return nullptr;
    }
    return Successor(node);
}

}  // extern "C"
