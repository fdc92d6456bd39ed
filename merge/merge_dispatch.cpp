// Reader side: drains the merge queues and hands each vector to the module's msgProc.
#include "merge/merge_internal.h"

#include "core/int_hash.h"
#include "core/walk_guard.h"

namespace {

// The steps of a drained vector, inline so that a drain makes one call per vector into the
// module; each exported step checks its own arguments and takes the same step.
inline uint32_t DispatchProc(const ASOrchMergeMsg &entry, ASOrchHandle *handle, ASOrchMsgVec *vec)
{
    if (vec->opType >= ASORCH_OPTYPE_NUM) {
        return ASORCH_ERR;
    }
    const ASOrchMergeMsgProc proc = entry.msgProc[vec->opType];
    uint32_t r = ASORCH_ERR;
    if (proc != nullptr) {
        r = proc(handle, vec);
        if (r == ASORCH_OK) [[likely]] {
            return ASORCH_OK;
        }
    }
    RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "%s, Orch RecvDispatch process fail. msgid = %u, optType = %u. msgProc = %u",
                        handle->name, vec->msgId, vec->opType, proc != nullptr ? 1u : 0u);
    return r;
}

inline uint32_t Dispatch(ASOrchHandle *handle, uint32_t chan, ASOrchMsgVec *vec)
{
    if (handle->mergeHandle == nullptr) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "[%s] from broker ipc msg dispatch proc failed! mergeHandle is NULL",
                            handle->name);
        return ASORCH_ERR;
    }
    // A channel that was never built has no table: every msgId is unknown there.
    const ASIntHash *hash = chan < ASORCH_MERGE_CHAN_NUM ? handle->mergeHandle[chan].mergeMsgHash : nullptr;
    const auto *node =
        hash != nullptr ? reinterpret_cast<const ASOrchMergeMsgNode *>(asorch::IntHashFind(hash, vec->msgId)) : nullptr;
    if (node == nullptr) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "OrchGetMergeMsg unknown msgId %u.", vec->msgId);
        return ASORCH_ERR;
    }
    if (DispatchProc(node->msg, handle, vec) != ASORCH_OK) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "RecvDispatch fail. msgId %u, opType %u.", vec->msgId, vec->opType);
        return ASORCH_ERR;
    }
    return ASORCH_OK;
}

inline uint32_t MergeMsgDispatch(ASOrchMsgVec *vec, uint32_t chan)
{
    auto *handle = static_cast<ASOrchHandle *>(vec->usrData);
    if (handle == nullptr) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR,
                            "mergeType %u read merge queue msgvec usrData handle NULL! msgId:%u, opType:%u", chan,
                            vec->msgId, vec->opType);
        return ASORCH_ERR;
    }
    const uint32_t r = Dispatch(handle, chan, vec);
    if (r != ASORCH_OK) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "[%s %u] from broker ipc msg proc failed! msgId:%u, opType:%u",
                            handle->name, chan, vec->msgId, vec->opType);
    }
    // Processed or not, the entry is gone from the queue: its block goes now.
    if (vec->key != nullptr) {
        handle->memFree(vec->key);
        vec->key = nullptr;
    }
    return r == ASORCH_OK ? ASORCH_OK : ASORCH_ERR;
}

inline uint32_t ReadMergeMsg(ASOrchMsgVec *vec, uint32_t size, uint32_t chan)
{
    if (size != sizeof(ASOrchMsgVec)) [[unlikely]] {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "mergeType %u read merge queue msgvec error!", chan);
        // An entry shorter than a vector cannot be read as one.
        if (size < sizeof(ASOrchMsgVec)) {
            return ASORCH_ERR;
        }
    }
    if (vec == nullptr) {
        return ASORCH_ERR;
    }
    if (vec->key != nullptr && vec->keyLen != 0u) [[likely]] {
        return MergeMsgDispatch(vec, chan);
    }
    RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "mergeType %u read merge queue msgvec key error! msgId:%u, opType:%u", chan,
                        vec->msgId, vec->opType);
    return ASORCH_ERR;
}

uint32_t ReadAdapter(void *data, uint32_t dataSize, void *usrData)
{
    // Once the module asked for destroy from this drain, the rest of the batch is only released.
    if (asorch::t_walk->destroyDeferred) [[unlikely]] {
        return asorch::merge::ReleaseCopy(data, dataSize);
    }
    return ReadMergeMsg(static_cast<ASOrchMsgVec *>(data), dataSize, *static_cast<const uint32_t *>(usrData));
}

uint32_t Drain(MergeQueCb *queue, uint32_t chan)
{
    uint32_t word = chan;
    // The monitor's parameter is the owning orchestrator (set when the queue was registered).
    asorch::WalkScope walk(static_cast<ASOrchHandle *>(queue->notifyPara));
    return RIX_MergeQueReadCallBack(queue, ASORCH_MERGE_READ_BATCH, ReadAdapter, &word);
}

}  // namespace

namespace asorch::merge {

uint32_t ReleaseCopy(void *data, uint32_t dataSize)
{
    if (data == nullptr || dataSize < sizeof(ASOrchMsgVec)) {
        return ASORCH_ERR;
    }
    auto *vec = static_cast<ASOrchMsgVec *>(data);
    auto *owner = static_cast<ASOrchHandle *>(vec->usrData);
    if (vec->key != nullptr && owner != nullptr) {
        owner->memFree(vec->key);
        vec->key = nullptr;
    }
    return ASORCH_OK;
}

}  // namespace asorch::merge

extern "C" {

ASORCH_API uint32_t ASOrchRecvDispatchProc(const ASOrchMergeMsg *entry, ASOrchHandle *handle, ASOrchMsgVec *vec)
{
    if (entry == nullptr || handle == nullptr || vec == nullptr) {
        return ASORCH_ERR;
    }
    return DispatchProc(*entry, handle, vec);
}

ASORCH_API uint32_t ASOrchRecvDispatch(ASOrchHandle *handle, uint32_t chan, ASOrchMsgVec *vec)
{
    if (handle == nullptr || vec == nullptr) {
        return ASORCH_ERR;
    }
    return Dispatch(handle, chan, vec);
}

ASORCH_API uint32_t ASOrchRecvMergeMsgDispatch(ASOrchMsgVec *vec, uint32_t chan)
{
    if (vec == nullptr) {
        return ASORCH_ERR;
    }
    return MergeMsgDispatch(vec, chan);
}

ASORCH_API uint32_t ASOrchReadMergeMsgCallBack(ASOrchMsgVec *vec, uint32_t size, const uint32_t *chan)
{
    return ReadMergeMsg(vec, size, chan != nullptr ? *chan : ASORCH_MERGE_CHAN_DAM);
}

ASORCH_API uint32_t ORCH_AutoSyncRecvDamMerge(MergeQueCb *queue)
{
    const uint32_t n = Drain(queue, ASORCH_MERGE_CHAN_DAM);
    RIX_AUTOSYNC_RixLog(ASORCH_LOG_INFO, "read DAM merge msg count %u finished.", n);
    return ASORCH_OK;
}

ASORCH_API uint32_t ORCH_AutoSyncRecvFesMerge(MergeQueCb *queue)
{
    const uint32_t n = Drain(queue, ASORCH_MERGE_CHAN_FES);
    RIX_AUTOSYNC_RixLog(ASORCH_LOG_INFO, "read FES merge msg count %u finished.", n);
    return ASORCH_OK;
}
}
