/* Merge queue: a named, hashed, coalescing queue of fixed-size entries with one reader. */
#ifndef RIX_MERGEQUE_H
#define RIX_MERGEQUE_H

#include "rix_as_common.h"

ASORCH_EXTERN_C_BEGIN

/* The bucket hash handed to the hash service: bucket = hashFunc(key) % bucket count. */
typedef uint32_t (*MergeQueHashFunc)(const void *key);

typedef struct MergeQueCb MergeQueCb;

ASORCH_EXTERN_C_END

#endif
