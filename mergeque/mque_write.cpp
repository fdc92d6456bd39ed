// The write path: a write to a pending key merges into its entry, any other becomes a new
// entry at the tail.
#include "mergeque/mque_internal.h"

namespace {

using namespace asorch::mque;

// The entry carries its owner so that the hash service's compare reaches cmpFunc.
inline MergeQueHashData *NewHashData(MergeQueCb *q, const void *key, const void *data)
{
    auto *d = static_cast<MergeQueHashData *>(LITE_HASH_NewData(q->hash, 0u));
    if (d == nullptr) {
        return nullptr;
    }
    d->owner = q;
    // The links are set by Attach, next; the exported step sets them itself.
    const uint32_t size = q->para.dataSize;
    if (size != 0u && memcpy_s(d->data, size, data, size) != 0) {
        (void)LITE_HASH_FreeData(q->hash, d);
        return nullptr;
    }
    if (LITE_HASH_AddNode(q->hash, key, d, 0u) != 0u) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "%s failed to hash addNode", q->name);
        (void)LITE_HASH_FreeData(q->hash, d);
        return nullptr;
    }
    return d;
}

inline void SetStat(MergeQueCb *q, const void *key)
{
    MergeQueStat &conflict = q->queStat[MERGEQUE_QSTAT_MAX_CONFLICT];
    const uint32_t inBucket = LITE_HASH_GetListCntByKey(q->hash, key);
    if (inBucket > conflict.count) {
        conflict.count = inBucket;
        Stamp(conflict);
    }
    MergeQueStat &history = q->queStat[MERGEQUE_QSTAT_HISTORY_MAX_CNT];
    const uint32_t inTable = LITE_HASH_GetHashCnt(q->hash);
    if (inTable > history.count) {
        history.count = inTable;
        Stamp(history);
    }
}

inline uint32_t NewWrite(MergeQueCb *q, const void *key, const void *data)
{
    MergeQueHashData *d = NewHashData(q, key, data);
    if (d == nullptr) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "%s failed to new hashNode", q->name);
        CountReader(q, MERGEQUE_RSTAT_FAIL_WRITE);
        return ASORCH_ERR;
    }
    SetStat(q, key);
    Attach(q, d);
    MonitorWrite(q);
    return ASORCH_OK;
}

// The merge function may change the writer's data, which the writer owns. A copy that fails
// leaves the pending data as it was: the write reports it, and a merge function that releases
// what the pending entry refers to must wait for the write's success (the orchestrator's does).
inline uint32_t MergeWrite(MergeQueCb *q, const void *data, MergeQueHashData *d, int32_t moveTail)
{
    if (q->para.mergeFunc != nullptr) {
        q->para.mergeFunc(const_cast<void *>(data), d->data);
    }
    const uint32_t size = q->para.dataSize;
    if (size != 0u && memcpy_s(d->data, size, data, size) != 0) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "%s failed to copy merged data", q->name);
        CountReader(q, MERGEQUE_RSTAT_FAIL_WRITE);
        return ASORCH_ERR;
    }
    if (moveTail == 1) {
        MoveTail(q, d);
    }
    CountReader(q, MERGEQUE_RSTAT_SUCC_MERGE);
    return ASORCH_OK;
}

}  // namespace

extern "C" {

ASORCH_API uint32_t RIX_MergeQueWrite(MergeQueCb *q, const void *key, const void *data, int32_t moveTail)
{
    const LITE_HASH_Node *node = LITE_HASH_FindNodeFromFirst(q->hash, key, data);
    if (node != nullptr && node->data != nullptr) {
        return MergeWrite(q, data, static_cast<MergeQueHashData *>(node->data), moveTail);
    }
    return NewWrite(q, key, data);
}

ASORCH_API uint32_t RIX_MergeQueNewWrite(MergeQueCb *q, const void *key, const void *data)
{
    return NewWrite(q, key, data);
}

ASORCH_API void RIX_MergeQueMergeWrite(MergeQueCb *q, const void *data, MergeQueHashData *d, int32_t moveTail)
{
    (void)MergeWrite(q, data, d, moveTail);
}

ASORCH_API MergeQueHashData *RIX_MergeQueNewHashData(MergeQueCb *q, const void *key, const void *data)
{
    MergeQueHashData *d = NewHashData(q, key, data);
    if (d != nullptr) {
        ListInit(&d->link);
    }
    return d;
}

ASORCH_API void RIX_MergeQueSetStat(MergeQueCb *q, const void *key)
{
    SetStat(q, key);
}

ASORCH_API void RIX_MergeQueAttachMsgList(MergeQueCb *q, MergeQueHashData *d)
{
    Attach(q, d);
}

ASORCH_API void RIX_MergeQueDetachMsgList(MergeQueCb *q, MergeQueHashData *d)
{
    Detach(q, d);
}

ASORCH_API void RIX_MergeQueMsgListMoveTail(MergeQueCb *q, MergeQueHashData *d)
{
    MoveTail(q, d);
}

}  // extern "C"
