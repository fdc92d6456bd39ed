// Step "MergeMQue": per-channel merge-message tables and merge queues, and their release.
#include "merge/merge_internal.h"

#include "core/int_hash.h"
#include "merge/merge_block.h"
#include "merge/merge_key.h"
#include "mergeque/mque_internal.h"
#include "rix_platform.h"

namespace {

constexpr const char *kChanWord[ASORCH_MERGE_CHAN_NUM] = {"DAM", "FES"};

// The container's callback types take untyped data; these hand it on as message vectors.
uint32_t CmpAdapter(const void *stored, const void *searched, uint32_t)
{
    return asorch::merge::SameKey(static_cast<const ASOrchMsgVec *>(stored),
                                  static_cast<const ASOrchMsgVec *>(searched));
}

// The stored vector is its own key, as ASOrchPubGetKeyPtr says.
const void *GetKeyAdapter(const void *stored)
{
    return stored;
}

// The pending copy's block is parked with the writer instead of released here: should the
// queue fail to take the arriving vector, the pending entry must still own it.
void MergeAdapter(void *newData, void *storedData)
{
    auto *arriving = static_cast<asorch::merge::WriteVec *>(newData);
    auto *pending = static_cast<ASOrchMsgVec *>(storedData);
    asorch::merge::ApplyRule(pending, &arriving->vec);
    arriving->retired = pending->key;
}

uint32_t HashSizeOf(const ASOrchMergeReg *reg)
{
    return reg->hashSize != 0u ? reg->hashSize : ASORCH_MERGE_DEF_HASH_SIZE;
}

}  // namespace

namespace asorch::merge {

void ReleaseMergeMsgHash(ASOrchHandle *handle, ASIntHash *hash)
{
    if (hash == nullptr) {
        return;
    }
    // Each node is a block of its own.
    asorch::ReleaseIntHash(hash, handle->memFree, [handle](ASIntHashNode *node) { handle->memFree(node); });
}

void Quiesce(ASOrchHandle *handle)
{
    ASOrchMergeHandle *block = handle->mergeHandle;
    if (block == nullptr) {
        return;
    }
    for (uint32_t chan = 0; chan < ASORCH_MERGE_CHAN_NUM; ++chan) {
        MergeQueCb *queue = block[chan].mqueHandle;
        if (queue != nullptr) {
            RIX_MergeQueEpollUnReg(queue);
            // Water marks would reach the sync groups, which are released first.
            queue->flowCtrlNotify = nullptr;
        }
    }
}

}  // namespace asorch::merge

extern "C" {

ASORCH_API uint32_t ASOrchMergeIsValid(const ASOrchMergeReg *reg)
{
    if (reg == nullptr || reg->mergeMsgNum == 0u || reg->mergeMsg == nullptr || reg->hashFunc == nullptr) {
        return 0u;
    }
    return 1u;
}

ASORCH_API ASOrchMergeHandle *ASOrchAllocMergeHandle(ASOrchHandle *handle)
{
    if (handle == nullptr || handle->memAlloc == nullptr) {
        return nullptr;
    }
    if (handle->mergeHandle == nullptr) {
        constexpr uint32_t size = static_cast<uint32_t>(sizeof(asorch::merge::MergeBlock));
        auto *block = static_cast<asorch::merge::MergeBlock *>(handle->memAlloc(size));
        if (block != nullptr && memset_s(block, size, 0, size) != 0) {
            handle->memFree(block);
            block = nullptr;
        }
        handle->mergeHandle = block != nullptr ? block->entry : nullptr;
    }
    return handle->mergeHandle;
}

ASORCH_API uint32_t ASOrchCreatMergeMsgHashTable(ASIntHash *hash, const ASOrchMergeReg *reg, ASOrchHandle *handle)
{
    if (hash == nullptr || reg == nullptr || handle == nullptr) {
        return ASORCH_ERR;
    }
    for (uint32_t i = 0; i < reg->mergeMsgNum; ++i) {
        auto *node = static_cast<ASOrchMergeMsgNode *>(handle->memAlloc(sizeof(ASOrchMergeMsgNode)));
        if (node == nullptr) {
            RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "%s, Orch auto sync merge msg failed to new hashNode", handle->name);
            return ASORCH_ERR;
        }
        node->link.next = &node->link;
        if (memcpy_s(&node->msg, sizeof(node->msg), &reg->mergeMsg[i], sizeof(reg->mergeMsg[i])) != 0 ||
            ASIntHashAdd(hash, reinterpret_cast<ASIntHashNode *>(node)) != ASORCH_OK) {
            RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "%s, merge failed to add hashNode(%u)", handle->name,
                                reg->mergeMsg[i].msgId);
            // Not in the hash, so the hash's release would miss it.
            handle->memFree(node);
            return ASORCH_ERR;
        }
    }
    return ASORCH_OK;
}

ASORCH_API uint32_t ASOrchInitMergeMsg(ASOrchMergeHandle *entry, const ASOrchMergeReg *reg, ASOrchHandle *handle)
{
    ASIntHash *hash = ASIntHashCreate(ASORCH_MERGE_MSG_HASH_BUCKETS, handle->memAlloc);
    if (hash == nullptr) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "%s, Orch auto sync merge msg dispatch hash new Fail", handle->name);
        return ASORCH_ERR;
    }
    if (ASOrchCreatMergeMsgHashTable(hash, reg, handle) != ASORCH_OK) {
        asorch::merge::ReleaseMergeMsgHash(handle, hash);
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "%s, Orch auto sync create merge msg hash Fail", handle->name);
        return ASORCH_ERR;
    }
    entry->mergeMsgHash = hash;
    return ASORCH_OK;
}

ASORCH_API uint32_t ASOrchInitMergeHandle(ASOrchMergeHandle *entry, const ASOrchMergeReg *reg, ASOrchHandle *handle)
{
    if (entry == nullptr || reg == nullptr || handle == nullptr) {
        return ASORCH_ERR;
    }
    // A channel built by an earlier run keeps its table: overwriting it would lose the nodes.
    if (entry->mergeMsgHash != nullptr || entry->mqueHandle != nullptr ||
        ASOrchInitMergeMsg(entry, reg, handle) != ASORCH_OK) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "%s, init auto sync merge msgMerge failed.", handle->name);
        return ASORCH_ERR;
    }
    entry->epFd = RIX_EAL_GetEpollFd(handle->ealHdl, 0u);
    entry->hashSize = HashSizeOf(reg);
    return ASORCH_OK;
}

ASORCH_API ASOrchMergeHandle *ASOrchCreatMergeHandle(ASOrchHandle *handle, const ASOrchMergeReg *reg, uint32_t chan)
{
    if (handle == nullptr || reg == nullptr || chan >= ASORCH_MERGE_CHAN_NUM) {
        return nullptr;
    }
    ASOrchMergeHandle *block = ASOrchAllocMergeHandle(handle);
    if (block == nullptr) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "%s, %u malloc auto sync merge handle failed.", handle->name, chan);
        return nullptr;
    }
    if (ASOrchInitMergeHandle(&block[chan], reg, handle) != ASORCH_OK) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "%s, %u init auto sync merge handle failed.", handle->name, chan);
        return nullptr;
    }
    asorch::merge::BlockOf(block)->bucket[chan] = asorch::MakeDivisor(block[chan].hashSize);
    RIX_AUTOSYNC_RixLog(ASORCH_LOG_INFO, "%s, %u Orch auto sync create merge handle ok.", handle->name, chan);
    return block;
}

ASORCH_API MergeQueCb *ASOrchCreatMergeQueue(ASOrchHandle *handle, const char *queName, int32_t epFd,
                                             const ASOrchMergeReg *reg, uint32_t chan)
{
    if (handle == nullptr || queName == nullptr || reg == nullptr) {
        return nullptr;
    }
    MergeQueCreatePara para{};
    para.memAlloc = handle->memAlloc;
    para.memFree = handle->memFree;
    para.memPtNo = handle->memPtNo;
    para.dataSize = static_cast<uint32_t>(sizeof(ASOrchMsgVec));
    para.hashSize = HashSizeOf(reg);
    para.hashFunc = reg->hashFunc;
    para.cmpFunc = CmpAdapter;
    para.epFd = epFd;
    para.getKeyFunc = GetKeyAdapter;
    para.schedProc = chan != ASORCH_MERGE_CHAN_DAM ? ORCH_AutoSyncRecvFesMerge : ORCH_AutoSyncRecvDamMerge;
    para.mergeFunc = MergeAdapter;
    return RIX_MergeQueCreate(queName, &para);
}

ASORCH_API uint32_t ASOrchRegMQue(ASOrchHandle *handle, ASOrchMergeHandle *entry, const ASOrchMergeReg *reg,
                                  uint32_t chan)
{
    if (handle == nullptr || entry == nullptr || reg == nullptr) {
        return ASORCH_ERR;
    }
    const char *word = kChanWord[chan != ASORCH_MERGE_CHAN_DAM ? 1 : 0];
    char queName[ASORCH_MERGE_QUE_NAME_SIZE];
    if (memset_s(queName, sizeof(queName), 0, sizeof(queName)) != 0 ||
        sprintf_s(queName, sizeof(queName), "%s_%s", handle->name, word) < 0) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "%s, Orch autosync create MQUE sprint mQname fail", handle->name);
        return ASORCH_ERR;
    }
    entry->mqueHandle = ASOrchCreatMergeQueue(handle, queName, entry->epFd, reg, chan);
    if (entry->mqueHandle == nullptr) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "%s, %s Register Orch autosync create MQUE fail", handle->name, queName);
        return ASORCH_ERR;
    }
    RIX_AUTOSYNC_RixLog(ASORCH_LOG_INFO, "%s, %s Register Orch autosync create MQUE ok", handle->name, queName);
    return ASORCH_OK;
}

ASORCH_API void ASOrchMQueCfgFlowCtl(MergeQueMonitorAttr *attr, const ASOrchMergeReg *reg, uint32_t chan)
{
    if (attr == nullptr || reg == nullptr) {
        return;
    }
    if (reg->highWater != 0u) {
        attr->highWater = reg->highWater;
    }
    if (reg->lowWater != 0u) {
        attr->lowWater = reg->lowWater;
    }
    attr->flowCtrlNotify = chan != ASORCH_MERGE_CHAN_DAM ? ASOrchMergeFesMonitorProc : ASOrchMergeDamMonitorProc;
}

ASORCH_API uint32_t ASOrchRegMQueFlowCtl(ASOrchHandle *handle, ASOrchMergeHandle *entry, const ASOrchMergeReg *reg,
                                         uint32_t chan)
{
    if (handle == nullptr || entry == nullptr || reg == nullptr) {
        return ASORCH_ERR;
    }
    MergeQueMonitorAttr attr{ASORCH_MERGE_DEF_HIGH_WATER, ASORCH_MERGE_DEF_LOW_WATER, handle, nullptr};
    ASOrchMQueCfgFlowCtl(&attr, reg, chan);
    if (RIX_MergeQueMonitorReg(entry->mqueHandle, &attr) != ASORCH_OK) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "%s, %u Register Orch autosync DAM MQUE Monitor fail", handle->name,
                            chan);
        return ASORCH_ERR;
    }
    RIX_AUTOSYNC_RixLog(ASORCH_LOG_INFO, "%s, %u Register Orch autosync FES MQUE Monitor ok", handle->name, chan);
    return ASORCH_OK;
}

ASORCH_API uint32_t ASOrchCreatMergeQueAndFlowCtl(ASOrchHandle *handle, ASOrchMergeHandle *entry,
                                                  const ASOrchMergeReg *reg, uint32_t chan)
{
    if (ASOrchRegMQue(handle, entry, reg, chan) != ASORCH_OK ||
        ASOrchRegMQueFlowCtl(handle, entry, reg, chan) != ASORCH_OK) {
        return ASORCH_ERR;
    }
    return ASORCH_OK;
}

ASORCH_API uint32_t ASOrchRegMerge(ASOrchHandle *handle, ASOrchBasePara *para)
{
    if (handle == nullptr || para == nullptr) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "Orch autosync register merge para is NULL");
        return ASORCH_ERR;
    }
    for (uint32_t chan = 0; chan < ASORCH_MERGE_CHAN_NUM; ++chan) {
        const ASOrchMergeReg *reg = &para->mergeMque[chan];
        if (ASOrchMergeIsValid(reg) == 0u) {
            continue;
        }
        ASOrchMergeHandle *block = ASOrchCreatMergeHandle(handle, reg, chan);
        if (block == nullptr || ASOrchCreatMergeQueAndFlowCtl(handle, &block[chan], reg, chan) != ASORCH_OK) {
            ASOrchFreeMergeHandle(handle);
            return ASORCH_ERR;
        }
    }
    return ASORCH_OK;
}

ASORCH_API void ASOrchFreeMergeMsg(ASOrchHandle *handle, ASOrchMergeHandle *block)
{
    if (handle == nullptr || block == nullptr) {
        return;
    }
    // Readers leave their epoll sets before anything they dispatch through is released: a
    // drain running on the DATA thread finishes first, and none starts afterwards.
    for (uint32_t chan = 0; chan < ASORCH_MERGE_CHAN_NUM; ++chan) {
        if (block[chan].mqueHandle != nullptr && block[chan].mqueHandle->reader.epollReg != 0u) {
            RIX_MergeQueEpollUnReg(block[chan].mqueHandle);
        }
    }
    for (uint32_t chan = 0; chan < ASORCH_MERGE_CHAN_NUM; ++chan) {
        ASOrchMergeHandle &entry = block[chan];
        if (entry.mergeMsgHash != nullptr) {
            asorch::merge::ReleaseMergeMsgHash(handle, entry.mergeMsgHash);
            entry.mergeMsgHash = nullptr;
        }
        if (entry.mqueHandle != nullptr) {
            // The queue drops its entries without the copies they refer to; those go back in
            // place, so that the queue still reports what it held.
            asorch::mque::ForEachPending(entry.mqueHandle, asorch::merge::ReleaseCopy);
            RIX_MergeQueDestory(entry.mqueHandle);
            entry.mqueHandle = nullptr;
        }
    }
}

ASORCH_API void ASOrchFreeMergeHandle(ASOrchHandle *handle)
{
    if (handle == nullptr || handle->mergeHandle == nullptr) {
        return;
    }
    ASOrchFreeMergeMsg(handle, handle->mergeHandle);
    handle->memFree(handle->mergeHandle);
    handle->mergeHandle = nullptr;
    RIX_AUTOSYNC_RixLog(ASORCH_LOG_INFO, "%s, Orch auto sync free merge handle ok.", handle->name);
}
}
