// Helpers shared by the merge-queue sources; not exported. The hot path calls these inline
// instead of the exported step functions, which would go through the PLT.
#ifndef RIX_MQUE_INTERNAL_H
#define RIX_MQUE_INTERNAL_H

#include <sys/eventfd.h>

#include <cstdint>

#include "rix_mergeque.h"
#include "rix_platform.h"

namespace asorch::mque {

constexpr uint32_t kEntryHeaderSize = static_cast<uint32_t>(sizeof(MergeQueHashData));
constexpr uint32_t kMaxBlockSize = UINT16_MAX;
constexpr int kEventFdFlags = EFD_SEMAPHORE | EFD_NONBLOCK | EFD_CLOEXEC;

static_assert(offsetof(MergeQueCb, treeNode) == 0, "the tree node's address is the handle");
static_assert(sizeof(MergeQueHashFunc) == sizeof(LITE_HASH_HashFunc));

inline MergeQueHashData *EntryOf(MergeQueLink *link)
{
    return reinterpret_cast<MergeQueHashData *>(reinterpret_cast<char *>(link) - offsetof(MergeQueHashData, link));
}

inline void ListInit(MergeQueLink *head)
{
    head->next = head;
    head->prev = head;
}

inline void ListUnlink(MergeQueLink *link)
{
    link->prev->next = link->next;
    link->next->prev = link->prev;
    link->next = link;
    link->prev = link;
}

// Before the head, that is after the current last entry.
inline void ListAppend(MergeQueLink *head, MergeQueLink *link)
{
    link->next = head;
    link->prev = head->prev;
    head->prev->next = link;
    head->prev = link;
}

inline void Stamp(MergeQueStat &stat)
{
    RIX_MergeQueSetTimeStamp(&stat.stamp);
}

// The flag is read at every count: the tables are writable on purpose.
inline void CountReader(MergeQueCb *q, uint32_t id, uint32_t n = 1u)
{
    MergeQueStat &stat = q->reader.readerStat[id];
    stat.count += n;
    if (g_mergeQueReaderStatDesc[id].stampFlag != 0u) {
        Stamp(stat);
    }
}

inline void CountQueue(MergeQueCb *q, uint32_t id)
{
    MergeQueStat &stat = q->queStat[id];
    stat.count += 1u;
    if (g_mergeQueStatDesc[id].stampFlag != 0u) {
        Stamp(stat);
    }
}

inline void Notify(MergeQueCb *q, uint32_t errStat)
{
    if (eventfd_write(q->reader.eventFd, 1u) != 0) {
        CountReader(q, errStat);
    }
}

inline void Attach(MergeQueCb *q, MergeQueHashData *d)
{
    ListAppend(&q->reader.msgList, &d->link);
    ++q->reader.itemCnt;
    CountReader(q, MERGEQUE_RSTAT_SUCC_WRITE);
    if (q->reader.itemCnt == 1u) {
        Notify(q, MERGEQUE_RSTAT_WRITE_NOTIFY_ERR);
    }
}

// Taken out by a read: the entry's block goes right after, so its own links need no reset.
inline void DetachRead(MergeQueCb *q, MergeQueHashData *d)
{
    d->link.prev->next = d->link.next;
    d->link.next->prev = d->link.prev;
    if (q->reader.itemCnt != 0u) {
        --q->reader.itemCnt;
    }
    CountReader(q, MERGEQUE_RSTAT_SUCC_READ);
}

inline void Detach(MergeQueCb *q, MergeQueHashData *d)
{
    DetachRead(q, d);
    ListInit(&d->link);
}

inline void MoveTail(MergeQueCb *q, MergeQueHashData *d)
{
    ListUnlink(&d->link);
    ListAppend(&q->reader.msgList, &d->link);
}

inline void MonitorWrite(MergeQueCb *q)
{
    if (q->flowCtrlNotify == nullptr || q->overLoad != 0u || q->reader.itemCnt <= q->highWater) {
        return;
    }
    q->overLoad = 1u;
    CountQueue(q, MERGEQUE_QSTAT_OVER_HIGH_WATER);
    (void)q->flowCtrlNotify(MERGEQUE_EVT_OVER_HIGH_WATER, q->notifyPara);
}

inline void MonitorRemove(MergeQueCb *q)
{
    if (q->flowCtrlNotify == nullptr || q->overLoad == 0u || q->reader.itemCnt >= q->lowWater) {
        return;
    }
    q->overLoad = 0u;
    CountQueue(q, MERGEQUE_QSTAT_UNDER_LOW_WATER);
    (void)q->flowCtrlNotify(MERGEQUE_EVT_UNDER_LOW_WATER, q->notifyPara);
}

// Calls f(data, dataSize) for every pending entry, oldest first, leaving the queue as it is.
template <typename F>
inline void ForEachPending(MergeQueCb *q, F f)
{
    MergeQueLink *head = &q->reader.msgList;
    for (MergeQueLink *link = head->next; link != head; link = link->next) {
        (void)f(EntryOf(link)->data, q->para.dataSize);
    }
}

// Removes the queue's own node only: a loser of a same-name race must not unlink the winner.
void NameTreeDeleteNode(MergeQueCb *q);

}  // namespace asorch::mque

#endif
