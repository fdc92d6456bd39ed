// Write path: private copies into the DAM or FES merge queue, or processing at once.
#include "merge/merge_internal.h"

#include "core/copy.h"
#include "core/walk_guard.h"
#include "merge/merge_hash.h"
#include "rix_platform.h"

namespace {

constexpr uint32_t kMaxQueuedMergeType = 3u;
constexpr uint32_t kDamNoMergeType = 4u;

// Bit 0 of a merge type picks the channel; bit 1 only asks for the move to the tail.
MergeQueCb *GetMergeQue(ASOrchMergeHandle *block, uint32_t mergeType)
{
    const uint32_t chan = (mergeType & ~2u) != 0u ? ASORCH_MERGE_CHAN_FES : ASORCH_MERGE_CHAN_DAM;
    return block[chan].mqueHandle;
}

void LogAllocFail(const ASOrchHandle *handle)
{
    RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "%s, Orch auto sync merge msg failed. malloc fail", handle->name);
}

// The record's private copy: key, then data, in one block of size bytes (their sum, checked).
inline bool CopyInto(ASOrchHandle *handle, const ASOrchMsgVec &vec, uint32_t size, bool withData, ASOrchMsgVec *copy)
{
    auto *block = static_cast<uint8_t *>(handle->memAlloc(size));
    if (block == nullptr) [[unlikely]] {
        LogAllocFail(handle);
        return false;
    }
    // Lengths are the block's own: a plain copy cannot overrun it.
    if (vec.keyLen != 0u) {
        asorch::CopyBytes(block, vec.key, vec.keyLen);
    }
    copy->key = block;
    if (withData) {
        asorch::CopyBytes(block + vec.keyLen, vec.data, vec.dataLen);
        copy->data = block + vec.keyLen;
    }
    copy->usrData = handle;
    return true;
}

// The queue keeps its own copy of the vector; the block is what it owns from now on. The
// caller has made copy the vector this thread is writing.
inline uint32_t WriteCopy(ASOrchHandle *handle, MergeQueCb *queue, asorch::merge::WriteVec &copy, int32_t moveTail)
{
    if (RIX_MergeQueWrite(queue, &copy, &copy, moveTail) != ASORCH_OK) [[unlikely]] {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "%s, Orch auto sync merge msg failed. write mqueue fail", handle->name);
        handle->memFree(copy.vec.key);
        return ASORCH_ERR;
    }
    // A merge replaced the pending vector: its block goes now that nothing refers to it.
    if (copy.retired != nullptr) {
        handle->memFree(copy.retired);
    }
    return ASORCH_OK;
}

}  // namespace

namespace asorch::merge {

constinit thread_local WriteVec *t_writing = nullptr;

bool WriteRun(ASOrchHandle *handle, uint32_t mergeType, const ASOrchMsgVec &tmpl, const ASOrchIpcBuf &run)
{
    if (handle == nullptr || handle->mergeHandle == nullptr || mergeType > kMaxQueuedMergeType || tmpl.keyLen == 0u ||
        run.ipcBuf == nullptr) {
        return false;
    }
    MergeQueCb *queue = GetMergeQue(handle->mergeHandle, mergeType);
    const uint64_t size = static_cast<uint64_t>(tmpl.keyLen) + tmpl.dataLen;
    if (queue == nullptr || size > UINT32_MAX) {
        return false;
    }
    const int32_t moveTail = mergeType > 1u ? 1 : 0;
    WriteVec copy{tmpl, nullptr, nullptr, 0u, 0u};
    copy.vec.usrData = nullptr;
    WriteVec *outer = t_writing;
    t_writing = &copy;
    // Once the module's hashFunc has asked ASOrchMergeHashFunc for a record's bucket, the next
    // records' buckets are worked out before their writes, with the lookups done once.
    const ASOrchHandle *hashHandle = nullptr;
    uint32_t hashChan = 0u;
    BucketHash hash(nullptr, 0u);
    const auto *record = static_cast<const uint8_t *>(run.ipcBuf);
    // A destroy asked for by the module's callback ends the walk.
    const asorch::WalkFrame *walk = asorch::WalkOf(handle);
    for (uint32_t i = 0; i < run.ipcNum && (walk == nullptr || !walk->destroyDeferred); ++i, record += run.ipcSize) {
        // The vector a merge changed, and the bucket remembered for the last key, start afresh.
        copy.vec.opType = tmpl.opType;
        copy.vec.key = const_cast<uint8_t *>(record);
        copy.vec.data = const_cast<uint8_t *>(record);
        copy.retired = nullptr;
        copy.memoHandle = hashHandle;
        copy.memoChan = hashChan;
        if (hashHandle != nullptr) {
            copy.memoBucket = hash(copy.vec);
        }
        if (CopyInto(handle, copy.vec, static_cast<uint32_t>(size), tmpl.dataLen != 0u, &copy.vec)) {
            (void)WriteCopy(handle, queue, copy, moveTail);
        }
        if (hashHandle == nullptr && copy.memoHandle != nullptr) {
            hash = BucketHash(copy.memoHandle, copy.memoChan);
            if (hash.Valid()) {
                hashHandle = copy.memoHandle;
                hashChan = copy.memoChan;
            }
        }
    }
    t_writing = outer;
    return true;
}

}  // namespace asorch::merge

extern "C" {

ASORCH_API uint32_t ASOrchMsgVecCopyAlloc(ASOrchHandle *handle, const ASOrchMsgVec *vec, ASOrchMsgVec *copy)
{
    if (handle == nullptr || vec == nullptr || copy == nullptr) {
        return ASORCH_ERR;
    }
    // The copies below are plain ones: a key length without a key is refused before them.
    if (vec->keyLen != 0u && vec->key == nullptr) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "%s, Orch auto sync merge msg failed. copy fail", handle->name);
        return ASORCH_ERR;
    }
    const uint64_t size = static_cast<uint64_t>(vec->keyLen) + vec->dataLen;
    if (size > UINT32_MAX) {
        LogAllocFail(handle);
        return ASORCH_ERR;
    }
    return CopyInto(handle, *vec, static_cast<uint32_t>(size), vec->dataLen != 0u && vec->data != nullptr, copy)
               ? ASORCH_OK
               : ASORCH_ERR;
}

ASORCH_API uint32_t ASOrchWriteMsgMerge(ASOrchHandle *handle, MergeQueCb *queue, const ASOrchMsgVec *vec,
                                        int32_t moveTail)
{
    if (handle == nullptr || queue == nullptr || vec == nullptr) {
        return ASORCH_ERR;
    }
    if (vec->keyLen == 0u || vec->key == nullptr) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "%s, Orch auto sync merge msg failed. key size is %u", handle->name,
                            vec->keyLen);
        return ASORCH_ERR;
    }
    asorch::merge::WriteVec copy{*vec, nullptr, nullptr, 0u, 0u};
    copy.vec.usrData = nullptr;
    if (ASOrchMsgVecCopyAlloc(handle, vec, &copy.vec) != ASORCH_OK) {
        return ASORCH_ERR;
    }
    asorch::merge::WriteVec *outer = asorch::merge::t_writing;
    asorch::merge::t_writing = &copy;
    const uint32_t r = WriteCopy(handle, queue, copy, moveTail);
    asorch::merge::t_writing = outer;
    return r;
}

ASORCH_API uint32_t ASOrchMsgMergeInner(ASOrchHandle *handle, uint32_t mergeType, ASOrchMsgVec *vec)
{
    if (handle == nullptr || handle->mergeHandle == nullptr || mergeType > kMaxQueuedMergeType) {
        return ASORCH_ERR;
    }
    const int32_t moveTail = mergeType > 1u ? 1 : 0;
    MergeQueCb *queue = GetMergeQue(handle->mergeHandle, mergeType);
    if (queue == nullptr) {
        return ASORCH_ERR;
    }
    return ASOrchWriteMsgMerge(handle, queue, vec, moveTail);
}

ASORCH_API uint32_t ASOrchMsgNoMerge(ASOrchHandle *handle, uint32_t mergeType, ASOrchMsgVec *vec)
{
    if (handle == nullptr || vec == nullptr) {
        return ASORCH_ERR;
    }
    const uint32_t chan = mergeType == kDamNoMergeType ? ASORCH_MERGE_CHAN_DAM : ASORCH_MERGE_CHAN_FES;
    if (ASOrchRecvDispatch(handle, chan, vec) != ASORCH_OK) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "[%s] msg proc Not merge failed! msgId:%u, opType:%u", handle->name,
                            vec->msgId, vec->opType);
        return ASORCH_ERR;
    }
    return ASORCH_OK;
}

ASORCH_API uint32_t ASOrchMsgMerge(ASOrchHandle *handle, uint32_t mergeType, ASOrchMsgVec *vec)
{
    if (handle == nullptr) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "Orch autosync send merge msg handle is NULL");
        return ASORCH_ERR;
    }
    if (vec == nullptr) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "%s, Orch autosync send merge msg vec is NULL", handle->name);
        return ASORCH_ERR;
    }
    if (mergeType <= kMaxQueuedMergeType) {
        return ASOrchMsgMergeInner(handle, mergeType, vec);
    }
    return ASOrchMsgNoMerge(handle, mergeType, vec);
}

ASORCH_API MergeQueCb *ASOrchGetReaderHdl(ASOrchHandle *handle, uint32_t chan)
{
    if (handle == nullptr || handle->mergeHandle == nullptr || chan >= ASORCH_MERGE_CHAN_NUM) {
        return nullptr;
    }
    return handle->mergeHandle[chan].mqueHandle;
}

}  // extern "C"

namespace {

// A null handle is nothing to do; a channel without a queue is an error.
template <typename Op>
uint32_t OnReader(ASOrchHandle *handle, uint32_t chan, Op op)
{
    if (handle == nullptr) {
        return ASORCH_OK;
    }
    MergeQueCb *queue = ASOrchGetReaderHdl(handle, chan);
    return queue == nullptr ? ASORCH_ERR : op(queue);
}

}  // namespace

extern "C" {

ASORCH_API uint32_t ASOrchMergeBackPress(ASOrchHandle *handle, uint32_t chan)
{
    return OnReader(handle, chan, [](MergeQueCb *q) { return RIX_MergeQueBackPress(q, 0u); });
}

ASORCH_API uint32_t ASOrchMergeUnBackPress(ASOrchHandle *handle, uint32_t chan)
{
    return OnReader(handle, chan, [](MergeQueCb *q) { return RIX_MergeQueUnBackPress(q, nullptr); });
}
}
