// The reader: an eventfd in the owner's epoll set, and reads in queue order.
#include <cerrno>
#include <type_traits>

#include "mergeque/mque_internal.h"

namespace {

using namespace asorch::mque;

static_assert(std::is_same_v<decltype(&RIX_MergeQueSchedProc), RIX_EPOLL_CALLBACK>,
              "the epoll service calls the callback with exactly this signature");

inline void RemoveHash(MergeQueCb *q, MergeQueHashData *d)
{
    const void *key = q->para.getKeyFunc(d->data);
    if (LITE_HASH_RemoveNodeByKey(q->hash, key) == 0u) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "%s failed to remove HashNode!", q->name);
    }
}

// The oldest entries are cold: fetch the next one while this one is taken out.
inline void Prefetch(MergeQueLink *next, MergeQueLink *head)
{
    if (next != head) {
        __builtin_prefetch(EntryOf(next)->data);
    }
}

inline void EmptyRead(MergeQueCb *q, uint32_t maxCnt, uint32_t cnt)
{
    if (cnt < maxCnt) {
        CountReader(q, MERGEQUE_RSTAT_EMPTY_READ, maxCnt - cnt);
    }
}

inline uint32_t ReadBase(MergeQueCb *q, uint32_t size, void *buf, uint32_t maxCnt)
{
    MergeQueLink *head = &q->reader.msgList;
    auto *out = static_cast<unsigned char *>(buf);
    uint32_t cnt = 0u;
    for (MergeQueLink *link = head->next; link != head && cnt < maxCnt;) {
        MergeQueLink *next = link->next;
        MergeQueHashData *d = EntryOf(link);
        Prefetch(next, head);
        if (size != 0u) {
            (void)memcpy_s(out + static_cast<size_t>(cnt) * size, size, d->data, size);
        }
        ++cnt;
        DetachRead(q, d);
        RemoveHash(q, d);
        (void)LITE_HASH_FreeData(q->hash, d);
        link = next;
    }
    EmptyRead(q, maxCnt, cnt);
    return cnt;
}

inline uint32_t ReadToCallBack(MergeQueCb *q, uint32_t maxCnt, MergeQueReadCallBackFunc cb, void *usrData)
{
    MergeQueLink *head = &q->reader.msgList;
    uint32_t cnt = 0u;
    for (MergeQueLink *link = head->next; link != head && cnt < maxCnt;) {
        MergeQueLink *next = link->next;
        MergeQueHashData *d = EntryOf(link);
        Prefetch(next, head);
        ++cnt;
        DetachRead(q, d);
        RemoveHash(q, d);
        if (cb(d->data, q->para.dataSize, usrData) != 0u) {
            RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "%s read %u msgVec callBack proc failed!", q->name, cnt);
        }
        (void)LITE_HASH_FreeData(q->hash, d);
        link = next;
    }
    EmptyRead(q, maxCnt, cnt);
    return cnt;
}

inline void NotifyByRead(MergeQueCb *q)
{
    if (q->reader.itemCnt != 0u) {
        Notify(q, MERGEQUE_RSTAT_READ_NOTIFY_ERR);
    }
}

}  // namespace

extern "C" {

ASORCH_API uint32_t RIX_MergeQueReaderInit(MergeQueCb *q)
{
    ListInit(&q->reader.msgList);
    q->reader.eventFd = -1;
    q->reader.itemCnt = 0u;
    q->reader.epollReg = 0u;
    return RIX_MergeQueEpollReg(q);
}

ASORCH_API uint32_t RIX_MergeQueEpollReg(MergeQueCb *q)
{
    if (q->reader.eventFd == -1) {
        q->reader.eventFd = eventfd_s(0u, kEventFdFlags);
    }
    if (q->reader.eventFd < 0) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "%s Create Eventfd Fail, errno=%d", q->name, errno);
        return ASORCH_ERR;
    }
    if (q->reader.epollReg == 1u) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "%s has add epoll.", q->name);
        return ASORCH_ERR;
    }
    if (RIX_EPOLL_Add(q->para.epFd, q->reader.eventFd, RIX_EPOLL_IN, RIX_MergeQueSchedProc, q) != 0) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "%s failed to add epoll", q->name);
        return ASORCH_ERR;
    }
    q->reader.epollReg = 1u;
    RIX_AUTOSYNC_RixLog(ASORCH_LOG_INFO, "%s epoll reg, epfd = %d, quefd = %d.", q->name, q->para.epFd,
                        q->reader.eventFd);
    return ASORCH_OK;
}

ASORCH_API void RIX_MergeQueEpollUnReg(MergeQueCb *q)
{
    RIX_AUTOSYNC_RixLog(ASORCH_LOG_INFO, "epfd unreg, epfd = %d(%u), quefd = %d.", q->para.epFd, q->reader.epollReg,
                        q->reader.eventFd);
    if (q->reader.epollReg == 1u) {
        (void)RIX_EPOLL_DEL(q->para.epFd, q->reader.eventFd);
        q->reader.epollReg = 0u;
    }
}

ASORCH_API uint32_t RIX_MergeQueSchedProc(int32_t fd, uint32_t /* events */, void *ctx)
{
    auto *q = static_cast<MergeQueCb *>(ctx);
    if (q == nullptr || fd < 0) {
        return ASORCH_ERR;
    }
    eventfd_t unit = 0;
    if (eventfd_read(fd, &unit) != 0) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "merge queue %s Fail To Sched, errno=%d", q->name, errno);
        return ASORCH_ERR;
    }
    if (q->para.schedProc != nullptr) {
        (void)q->para.schedProc(q);
    }
    return ASORCH_OK;
}

ASORCH_API uint32_t RIX_MergeQueRead(MergeQueCb *q, void *buf, uint32_t maxCnt)
{
    if (q == nullptr || buf == nullptr || maxCnt == 0u) {
        return 0u;
    }
    const uint32_t cnt = ReadBase(q, q->para.dataSize, buf, maxCnt);
    NotifyByRead(q);
    MonitorRemove(q);
    return cnt;
}

ASORCH_API uint32_t RIX_MergeQueReadCallBack(MergeQueCb *q, uint32_t maxCnt, MergeQueReadCallBackFunc cb, void *usrData)
{
    if (q == nullptr || cb == nullptr || maxCnt == 0u) {
        return 0u;
    }
    const uint32_t cnt = ReadToCallBack(q, maxCnt, cb, usrData);
    NotifyByRead(q);
    MonitorRemove(q);
    return cnt;
}

ASORCH_API uint32_t RIX_MergeQueReadBase(MergeQueCb *q, uint32_t size, void *buf, uint32_t maxCnt)
{
    return ReadBase(q, size, buf, maxCnt);
}

ASORCH_API uint32_t RIX_MergeQueReadToCallBack(MergeQueCb *q, uint32_t maxCnt, MergeQueReadCallBackFunc cb,
                                               void *usrData)
{
    return ReadToCallBack(q, maxCnt, cb, usrData);
}

ASORCH_API void RIX_MergeQueRemoveHash(MergeQueCb *q, MergeQueHashData *d)
{
    RemoveHash(q, d);
}

ASORCH_API void RIX_MergeQueNotifyByRead(MergeQueCb *q)
{
    NotifyByRead(q);
}

}  // extern "C"
