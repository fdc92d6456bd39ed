/* Hash tables with their own lock and a per-table pool of fixed-size data blocks,
 * from librix_utils_base. */
#ifndef LITE_HASH_H
#define LITE_HASH_H

#include "rix_plat_common.h"

RIX_PLAT_EXTERN_C_BEGIN

/* Bucket of a key: hashFunc(key) % bucketCount. */
typedef uint32_t (*LITE_HASH_HashFunc)(const void *key);
/* Non-zero when the stored data block matches the searched value. */
typedef uint32_t (*LITE_HASH_CmpFunc)(void *data, const void *searched, uint32_t arg);

/* A node of a bucket; its first word is the data block it holds. */
typedef struct LITE_HASH_Node {
    void *data;
} LITE_HASH_Node;

RIX_PLAT_API void *LITE_HASH_CreateWithLock(uint32_t memPtNo, uint16_t blockSize, uint32_t bucketCount,
                                            LITE_HASH_HashFunc hashFunc, LITE_HASH_CmpFunc cmpFunc, uint32_t flags);
/* Releases the table and every data block; sets *hash to null. Returns 0. */
RIX_PLAT_API uint32_t LITE_HASH_DeleteHash(void **hash);
/* A data block of the table's block size, or null. */
RIX_PLAT_API void *LITE_HASH_NewData(void *hash, uint32_t flags);
RIX_PLAT_API uint32_t LITE_HASH_FreeData(void *hash, void *data);
/* Links the block into the key's bucket (at its head); 0 on success. */
RIX_PLAT_API uint32_t LITE_HASH_AddNode(void *hash, const void *key, void *data, uint32_t flags);
/* First node of the key's bucket whose block matches (cmpFunc(block, data, 0)), or null. */
RIX_PLAT_API LITE_HASH_Node *LITE_HASH_FindNodeFromFirst(void *hash, const void *key, const void *data);
/* Unlinks the first node of the key's bucket whose block matches cmpFunc(block, key, 0);
 * non-zero when a node was removed. The block itself stays allocated. */
RIX_PLAT_API uint32_t LITE_HASH_RemoveNodeByKey(void *hash, const void *key);
RIX_PLAT_API uint32_t LITE_HASH_GetListCntByKey(void *hash, const void *key);
RIX_PLAT_API uint32_t LITE_HASH_GetHashCnt(void *hash);

RIX_PLAT_EXTERN_C_END

#endif
