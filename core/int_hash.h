// Lookup in the library's integer hash, shared by the registries; not exported. Inline, since
// every received record looks its registration up here.
#ifndef RIX_AS_CORE_INT_HASH_H
#define RIX_AS_CORE_INT_HASH_H

#include "core/divisor.h"
#include "rix_as_names.h"

namespace asorch {

inline ASList *BucketOf(const ASIntHash *hash, uint32_t key)
{
    // The library's own tables have power-of-two counts: a mask, not a division (a call on ARMv7).
    const uint32_t i = ModUnprepared(key, static_cast<uint32_t>(hash->bucketNum));
    // The cast drops const only to hand out a head the caller may link into.
    return const_cast<ASList *>(&hash->bucket[i]);
}

inline ASIntHashNode *IntHashFind(const ASIntHash *hash, uint32_t key)
{
    ASList *head = BucketOf(hash, key);
    for (ASList *it = head->next; it != head; it = it->next) {
        auto *node = reinterpret_cast<ASIntHashNode *>(it);
        if (node->key == key) {
            return node;
        }
    }
    return nullptr;
}

// Hands every node to release (which may free it; the link is read first) and gives the
// bucket block back. The hash keeps no release function: its owner says what a node is.
template <class F>
void ReleaseIntHash(ASIntHash *hash, ASOrchMemFreeFunc memFree, F release)
{
    ASIntHashDelete(hash);
    for (uintptr_t b = 0; b < hash->bucketNum; ++b) {
        ASList *head = &hash->bucket[b];
        for (ASList *it = head->next; it != head;) {
            ASList *next = it->next;
            release(reinterpret_cast<ASIntHashNode *>(it));
            it = next;
        }
    }
    memFree(hash);
}

}  // namespace asorch

extern "C" {

// The node whose key equals *key, or null.
inline ASIntHashNode *ASIntHashFind(const ASIntHash *hash, const uint32_t *key)
{
    return (hash == nullptr || key == nullptr) ? nullptr : asorch::IntHashFind(hash, *key);
}
}

#endif
