// Creation and destruction of a queue, and its hash table.
#include <unistd.h>

#include "mergeque/mque_internal.h"

namespace {

using asorch::mque::kEntryHeaderSize;
using asorch::mque::kMaxBlockSize;

constexpr const char *kNull = "(null)";

}  // namespace

extern "C" {

ASORCH_API uint32_t RIX_MergeQueCreateCheck(const char *name, const MergeQueCreatePara *para)
{
    if (name == nullptr || para == nullptr) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "[RIX_MERGE_QUE Create] %s para is null.",
                            name == nullptr ? kNull : name);
        return ASORCH_ERR;
    }
    if (RIX_MergeQueGlbInit(name) != ASORCH_OK) {
        return ASORCH_ERR;
    }
    if (para->memAlloc == nullptr || para->memFree == nullptr) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "[RIX_MERGE_QUE Create] %s para mem func invalid.", name);
        return ASORCH_ERR;
    }
    if (para->hashFunc == nullptr || para->cmpFunc == nullptr || para->getKeyFunc == nullptr) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "[RIX_MQUE Create] %s para hash func invalid.", name);
        return ASORCH_ERR;
    }
    if (para->epFd < 0) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "[RIX_MERGE_QUE Create] %s para epFd invalid.", name);
        return ASORCH_ERR;
    }
    // The hash service takes the block size as 16 bits and divides by the bucket count.
    if (para->dataSize > kMaxBlockSize - kEntryHeaderSize) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "[RIX_MERGE_QUE Create] %s para dataSize(%u) invalid.", name,
                            para->dataSize);
        return ASORCH_ERR;
    }
    if (para->hashSize == 0u) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "[RIX_MERGE_QUE Create] %s para hashSize invalid.", name);
        return ASORCH_ERR;
    }
    return ASORCH_OK;
}

ASORCH_API uint32_t RIX_Merge_Init(const char *name, MergeQueCb *q, const MergeQueCreatePara *para)
{
    if (strcpy_s(q->name, sizeof(q->name), name) != 0) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "[RIX_MERGE_QUE Create] %s strcpy Fail", name);
        return ASORCH_ERR;
    }
    if (RIX_MergeQueNameTreeInsert(q) != ASORCH_OK) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "[RIX_MERGE_QUE Create] %s nameInsert Fail", name);
        return ASORCH_ERR;
    }
    q->para = *para;
    if (RIX_MergeQueHashCreate(q) != ASORCH_OK) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "[RIX_MERGE_QUE Create] %s hash create Fail", name);
        return ASORCH_ERR;
    }
    if (RIX_MergeQueReaderInit(q) != ASORCH_OK) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "[RIX_MERGE_QUE Create] %s hash create Fail", name);
        return ASORCH_ERR;
    }
    return ASORCH_OK;
}

ASORCH_API MergeQueCb *RIX_MergeQueCreate(const char *name, const MergeQueCreatePara *para)
{
    if (RIX_MergeQueCreateCheck(name, para) != ASORCH_OK) {
        return nullptr;
    }
    if (RIX_MergeQueNameTreeFind(name) != nullptr) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "[RIX_MERGE_QUE Create] creat Fail because find %s exist!", name);
        return nullptr;
    }
    auto *q = static_cast<MergeQueCb *>(para->memAlloc(static_cast<uint32_t>(sizeof(MergeQueCb))));
    if (q == nullptr) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "[RIX_MERGE_QUE Create] malloc Fail");
        return nullptr;
    }
    if (memset_s(q, sizeof(*q), 0, sizeof(*q)) != 0) {
        para->memFree(q);
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "[RIX_MERGE_QUE Create] malloc Fail");
        return nullptr;
    }
    // Destruction of a half-built record must not take descriptor 0 for its eventfd, nor
    // walk list links that were never set.
    q->reader.eventFd = -1;
    q->para.memFree = para->memFree;
    asorch::mque::ListInit(&q->reader.msgList);
    if (RIX_Merge_Init(name, q, para) != ASORCH_OK) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "[RIX_MERGE_QUE Create] %s init Fail", name);
        RIX_MergeQueDestory(q);
        return nullptr;
    }
    RIX_AUTOSYNC_RixLog(ASORCH_LOG_INFO, "[RIX_MERGE_QUE Create] %s ok", name);
    return q;
}

ASORCH_API void RIX_MergeQueDestory(MergeQueCb *q)
{
    if (q == nullptr) {
        return;
    }
    if (q->reader.itemCnt != 0u) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "[RIX_MERGE_QUE Destory] %s reader list is not empty!", q->name);
    }
    // No wake-up may reach the record once it is released.
    if (q->reader.epollReg != 0u) {
        RIX_MergeQueEpollUnReg(q);
    }
    if (q->reader.eventFd >= 0) {
        (void)close(q->reader.eventFd);
        q->reader.eventFd = -1;
    }
    asorch::mque::NameTreeDeleteNode(q);
    // Pending blocks go with the table.
    RIX_MergeQueHashDelete(q);
    q->reader.itemCnt = 0u;
    ASOrchMemFreeFunc memFree = q->para.memFree;
    memFree(q);
}

ASORCH_API uint32_t RIX_MergeQueHashCreate(MergeQueCb *q)
{
    const auto blockSize = static_cast<uint16_t>(kEntryHeaderSize + q->para.dataSize);
    q->hash = LITE_HASH_CreateWithLock(q->para.memPtNo, blockSize, q->para.hashSize, q->para.hashFunc,
                                       RIX_MergeQueHashCmpFunc, 0u);
    if (q->hash == nullptr) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "[RIX_MERGE_QUE HashCreate] %s hash new Fail", q->name);
        return ASORCH_ERR;
    }
    return ASORCH_OK;
}

ASORCH_API void RIX_MergeQueHashDelete(MergeQueCb *q)
{
    if (q != nullptr && q->hash != nullptr) {
        (void)LITE_HASH_DeleteHash(&q->hash);
        q->hash = nullptr;
    }
}

ASORCH_API uint32_t RIX_MergeQueHashCmpFunc(void *data, const void *searched, uint32_t arg)
{
    const auto *d = static_cast<const MergeQueHashData *>(data);
    if (searched == nullptr || d == nullptr || d->owner == nullptr || d->owner->para.cmpFunc == nullptr) {
        return 0u;
    }
    return d->owner->para.cmpFunc(d->data, searched, arg);
}

}  // extern "C"
