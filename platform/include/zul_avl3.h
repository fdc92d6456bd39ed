/* Intrusive AVL trees, from librix_utils_base. */
#ifndef ZUL_AVL3_H
#define ZUL_AVL3_H

#include "rix_plat_common.h"

RIX_PLAT_EXTERN_C_BEGIN

/* Four-word node header, embedded in the user's record. */
typedef struct ZUL_AVL3_NODE {
    struct ZUL_AVL3_NODE *parent;
    struct ZUL_AVL3_NODE *left;
    struct ZUL_AVL3_NODE *right;
    int32_t height; /* all ones before insertion */
} ZUL_AVL3_NODE;

/* Three-word root record. */
typedef struct ZUL_AVL3_TREE {
    ZUL_AVL3_NODE *root;
    ZUL_AVL3_NODE *first;
    ZUL_AVL3_NODE *last;
} ZUL_AVL3_TREE;

/* Compares two keys: negative, 0 or positive. */
typedef int32_t (*ZUL_AVL3_COMPARE)(const void *key1, const void *key2);

typedef struct ZUL_AVL3_TREE_INFO {
    ZUL_AVL3_COMPARE compare;
    uint32_t keyOffset; /* from the node header to the key */
} ZUL_AVL3_TREE_INFO;

RIX_PLAT_API void *ZUL_AVL3_Find(ZUL_AVL3_TREE *tree, const void *key, const ZUL_AVL3_TREE_INFO *info);
/* Null when the node was inserted, else the node that already holds its key. */
RIX_PLAT_API void *ZUL_AVL3_Insert_Or_Find(ZUL_AVL3_TREE *tree, ZUL_AVL3_NODE *node, const ZUL_AVL3_TREE_INFO *info);
RIX_PLAT_API void ZUL_AVL3_Delete(ZUL_AVL3_TREE *tree, ZUL_AVL3_NODE *node);
RIX_PLAT_API void *ZUL_AVL3_First(ZUL_AVL3_TREE *tree, const ZUL_AVL3_TREE_INFO *info);
RIX_PLAT_API void *ZUL_AVL3_Next(ZUL_AVL3_NODE *node, const ZUL_AVL3_TREE_INFO *info);

RIX_PLAT_EXTERN_C_END

#endif
