// The circular list and the integer-keyed chained hash built on it.
#include "core/int_hash.h"

using asorch::BucketOf;

extern "C" {

ASORCH_API void ASListInit(ASList *head)
{
    head->next = head;
}

ASORCH_API void ASListInsert(ASList *head, ASList *node)
{
    node->next = head->next;
    head->next = node;
}

ASORCH_API ASIntHash *ASIntHashCreate(uint32_t bucketNum, ASOrchMemAllocFunc memAlloc)
{
    if (memAlloc == nullptr || bucketNum == 0u) {
        return nullptr;
    }
    const uint64_t bytes = sizeof(ASIntHash) + static_cast<uint64_t>(bucketNum) * sizeof(ASList);
    if (bytes > UINT32_MAX) {
        return nullptr;
    }
    auto *hash = static_cast<ASIntHash *>(memAlloc(static_cast<uint32_t>(bytes)));
    if (hash == nullptr) {
        return nullptr;
    }
    hash->bucketNum = bucketNum;
    for (uint32_t i = 0; i < bucketNum; ++i) {
        ASListInit(&hash->bucket[i]);
    }
    return hash;
}

ASORCH_API uint32_t ASIntHashAdd(ASIntHash *hash, ASIntHashNode *node)
{
    if (hash == nullptr || node == nullptr) {
        return ASORCH_ERR;
    }
    if (ASIntHashFind(hash, &node->key) != nullptr) {
        return ASORCH_ERR;
    }
    ASListInsert(BucketOf(hash, node->key), &node->link);
    return ASORCH_OK;
}

ASORCH_API uint32_t ASIntHashWalk(ASIntHash *hash, ASIntHashVisitFunc visit, uint32_t arg)
{
    if (hash == nullptr || visit == nullptr) {
        return ASORCH_OK;
    }
    for (uintptr_t b = 0; b < hash->bucketNum; ++b) {
        ASList *head = &hash->bucket[b];
        for (ASList *it = head->next; it != head;) {
            // Read the link first: a visit may unlink or release its node.
            ASList *next = it->next;
            if (visit(reinterpret_cast<ASIntHashNode *>(it), arg) != 0u) {
                return ASORCH_ERR;
            }
            it = next;
        }
    }
    return ASORCH_OK;
}

// The hash keeps no release function; its owner returns the block and the nodes.
ASORCH_API void ASIntHashDelete(ASIntHash *) {}
}
