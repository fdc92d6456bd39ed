/* Module-name registry and the small containers. The registry is what makes a module name
 * unique per process (ASOrchCreate adds, ASOrchDestroy removes); it has no lock, so names are
 * added and removed from one thread at a time. The containers are the library's own list and
 * integer hash; a module does not need them. */
#ifndef RIX_AS_NAMES_H
#define RIX_AS_NAMES_H

#include "rix_as_common.h"

ASORCH_EXTERN_C_BEGIN

#define AUTOSYNC_NAME_NODE_NAME_SIZE 16u

/* One live module name; new nodes go to the front. */
typedef struct AutoSyncNameNode {
    struct AutoSyncNameNode *next;
    char name[AUTOSYNC_NAME_NODE_NAME_SIZE];
} AutoSyncNameNode;

typedef struct AutoSyncNameHead {
    uint32_t count;
    AutoSyncNameNode *first;
} AutoSyncNameHead;

ASORCH_API extern AutoSyncNameHead g_AutoSyncCtrlBlkNameHead;

/* Circular singly linked list: an empty head points to itself. A node begins with its
 * link; the rest belongs to the user. */
typedef struct ASList {
    struct ASList *next;
} ASList;

/* A node stored in an ASIntHash: the list link, then the key; the user's data follows
 * (embed it as the first member of the user's record). */
typedef struct ASIntHashNode {
    ASList link;
    uint32_t key;
} ASIntHashNode;

/* One block: the bucket count, then the bucket heads (key mod bucketNum). */
typedef struct ASIntHash {
    uintptr_t bucketNum;
    ASList bucket[];
} ASIntHash;

/* Visit function of ASIntHashWalk: non-zero stops the walk. */
typedef uint32_t (*ASIntHashVisitFunc)(ASIntHashNode *node, uint32_t arg);

ASORCH_LAYOUT_ASSERT(sizeof(AutoSyncNameNode) == 20, "name node is a link and 16 characters");
ASORCH_LAYOUT_ASSERT(sizeof(ASIntHashNode) == 8, "hash node is a link and a key");
ASORCH_LAYOUT_ASSERT(sizeof(ASIntHash) == 4, "bucket heads follow the count word");

/* 1 when the name is shorter than 16 characters and both functions are non-null. */
ASORCH_API uint32_t ASNameCreatCheckValid(const char *name, ASOrchMemAllocFunc memAlloc, ASOrchMemFreeFunc memFree);
/* 1 when the name is registered. */
ASORCH_API uint32_t AutoSyncNameExisted(const char *name);
/* Adds a node from memAlloc at the front; 1 when the name exists or the node cannot be had. */
ASORCH_API uint32_t AutoSyncAddModule(const char *name, ASOrchMemAllocFunc memAlloc);
ASORCH_API uint32_t AutoSyncSetNameNode(AutoSyncNameNode *node, const char *name);
ASORCH_API void AutoSyncDelModule(const char *name, ASOrchMemFreeFunc memFree);
ASORCH_API void AutoSyncDelNode(AutoSyncNameNode *prev, AutoSyncNameNode *node, ASOrchMemFreeFunc memFree);

/* Joins two texts into dst (size dstSize); 1 when the result would not fit. */
ASORCH_API uint32_t ASCombineName(char *dst, uint32_t dstSize, const char *first, const char *second);

ASORCH_API void ASListInit(ASList *head);
ASORCH_API void ASListInsert(ASList *head, ASList *node);

/* The hash keeps no release function: its block and nodes stay the owner's, released
 * with the owner's memFree. Null for 0 buckets or a failed allocation. */
ASORCH_API ASIntHash *ASIntHashCreate(uint32_t bucketNum, ASOrchMemAllocFunc memAlloc);
/* 1 when a node with the same key is present (nothing changes). */
ASORCH_API uint32_t ASIntHashAdd(ASIntHash *hash, ASIntHashNode *node);
ASORCH_API uint32_t ASIntHashWalk(ASIntHash *hash, ASIntHashVisitFunc visit, uint32_t arg);
ASORCH_API void ASIntHashDelete(ASIntHash *hash);

ASORCH_EXTERN_C_END

#endif
