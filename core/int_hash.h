// Lookup in the library's integer hash, shared by the registries; not exported.
#ifndef RIX_AS_CORE_INT_HASH_H
#define RIX_AS_CORE_INT_HASH_H

#include "rix_as_names.h"

extern "C" {

// The node whose key equals *key, or null.
ASIntHashNode *ASIntHashFind(const ASIntHash *hash, const uint32_t *key);

}

#endif
