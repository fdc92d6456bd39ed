// The stand-in abstraction layer: recorded registrations, channels, epoll dispatch on hand-run
// and real loops, timers, and the smoothing entry points.
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "test_support.h"

namespace {

using U32s = std::vector<uint32_t>;
using Words = std::pair<uint32_t, uint32_t>;

class PlatformEal : public rixtest::PlatformTest {
protected:
    void *Create(const char *name = "modA")
    {
        RIX_EAL_CreatePara para{7, 11, 12, rixtest::CountingAlloc, rixtest::CountingFree};
        return RIX_EAL_Create(name, &para);
    }
};

struct Received {
    std::mutex mutex;
    std::vector<std::string> msgs;
};

void OnChanMsg(void *ctx, uint32_t chanNo, const void *msg, uint32_t len)
{
    auto *r = static_cast<Received *>(ctx);
    std::lock_guard<std::mutex> lock(r->mutex);
    r->msgs.emplace_back(std::to_string(chanNo) + ":" + std::string(static_cast<const char *>(msg), len));
}

RIX_EAL_ChanPara ChanRecord(uint32_t chanNo, uint32_t recvThread)
{
    RIX_EAL_ChanPara p{};
    p.chanNo = chanNo;
    p.recvThreadId = recvThread;
    p.serverPort = static_cast<uint16_t>(0x3412 + chanNo);
    return p;
}

void OnSync(void *ctx, uint32_t grpId, const RIX_EAL_SyncItem *items, uint32_t count)
{
    for (uint32_t i = 0; i < count; ++i) {
        static_cast<std::vector<std::string> *>(ctx)->push_back(
            std::to_string(grpId) + ":" + std::string(static_cast<const char *>(items[i].data), items[i].len));
    }
}

TEST_F(PlatformEal, RecordsEveryRegistrationAndSyncMessage)
{
    void *eal = Create();
    ASSERT_NE(eal, nullptr);
    EXPECT_EQ(RIX_TEST_EalLiveCount(), 1u);
    EXPECT_STREQ(RIX_TEST_EalName(eal), "modA");
    EXPECT_EQ(RIX_TEST_EalCreatePara(eal)->memAlloc, rixtest::CountingAlloc);
    EXPECT_GE(RIX_EAL_GetEpollFd(eal, 2), 0);  // before any thread is registered
    EXPECT_EQ(RIX_EAL_GetEpollFd(eal, 3), -1);
    const RIX_EAL_ThreadCfg threads[2] = {{0, "modA_data", 0}, {2, "modA_evt", 4}};
    const RIX_EAL_ThreadCfg bad[2] = {{1, "x", 0}, {3, "y", 0}};
    const RIX_EAL_ChanPara chans[2] = {ChanRecord(0, 0), ChanRecord(3, 2)};
    RIX_EAL_SyncGrpPara rows[2]{};
    rows[1].grpId = 11;
    RIX_EAL_FlowCtl fc{};
    fc.word[11] = 123;
    // Accepted and refused calls, in order (a refused batch records nothing).
    EXPECT_EQ((U32s{RIX_EAL_RegThread(eal, threads, 2), RIX_EAL_RegThread(eal, bad, 2) != 0,
                    RIX_EAL_RegThread(eal, threads, 1) != 0, RIX_EAL_RegUcChannel(eal, chans, 2),
                    RIX_EAL_RegUcChannel(eal, &chans[1], 1) != 0, RIX_EAL_RegSyncGroup(eal, rows, 2),
                    RIX_EAL_RegSyncGrpMsgSet(eal, 11, 0x55), RIX_EAL_SetSyncGrpFlowCtl(eal, 10, &fc),
                    RIX_EAL_ReservePort(eal, 1, 2), RIX_EAL_ReservePort(eal, 3, 4), RIX_EAL_Init(eal)}),
              (U32s{0, 1, 1, 0, 1, 0, 0, 0, 0, 0, 0}));
    ASSERT_EQ((U32s{RIX_TEST_EalThreadCount(eal), RIX_TEST_EalChanCount(eal), RIX_TEST_EalSyncGrpCount(eal)}),
              (U32s{2, 2, 2}));
    EXPECT_EQ(0, std::memcmp(RIX_TEST_EalThread(eal, 1), &threads[1], sizeof(threads[1])));
    EXPECT_EQ(0, std::memcmp(RIX_TEST_EalChan(eal, 1), &chans[1], sizeof(chans[1])));
    EXPECT_EQ(RIX_TEST_EalSyncGrp(eal, 1)->grpId, 11u);
    Words w;
    RIX_TEST_EalMsgSet(eal, 0, &w.first, &w.second);
    EXPECT_EQ(w, Words(11, 0x55));
    EXPECT_EQ(RIX_TEST_EalFlowCtl(eal, 0, &w.first)->word[11], 123u);
    EXPECT_EQ(w.first, 10u);
    EXPECT_EQ(RIX_TEST_EalReservePort(eal, &w.first, &w.second), 2u);  // the count and the last words
    EXPECT_EQ(w, Words(3, 4));
    EXPECT_EQ((U32s{RIX_TEST_EalInitCount(eal), RIX_TEST_EalStartCount(eal)}), (U32s{1, 0}));

    // Sync messages: recorded, and handed to the peer.
    RIX_EAL_SyncItem items[2] = {{"one", 3}, {"twotwo", 6}};
    EXPECT_EQ(RIX_EAL_SyncMsg(eal, 4, items, 2), 0u);  // no peer: recorded only
    std::vector<std::string> seen;
    RIX_TEST_EalSetSyncPeer(eal, OnSync, &seen);
    EXPECT_EQ(RIX_EAL_SyncMsg(eal, 6, items, 2), 0u);
    EXPECT_EQ(seen, (std::vector<std::string>{"6:one", "6:twotwo"}));
    EXPECT_EQ(RIX_TEST_EalSyncMsgLast(eal, &w.first, &w.second), 2u);
    EXPECT_EQ(w, Words(6, 2));
    EXPECT_NE(RIX_EAL_SyncMsg(eal, 6, nullptr, 1), 0u);

    // Back-press and sends, on a channel that was never registered.
    void *up = RIX_EAL_GetChannelHdl(eal, 2);
    ASSERT_NE(up, nullptr);
    EXPECT_EQ(RIX_EAL_GetChannelHdl(eal, 4), nullptr);
    EXPECT_EQ((U32s{RIX_CHAN_BackPress(up), RIX_CHAN_UnBackPress(up), RIX_CHAN_BackPress(up)}), U32s(3, 0));
    EXPECT_EQ((U32s{RIX_TEST_ChanBackPressed(eal, 2), RIX_TEST_ChanBackPressCount(eal, 2, &w.first), w.first}),
              (U32s{1, 2, 1}));
    char first[] = "hello";
    char second[] = "xyz";
    EXPECT_EQ(RIX_CHAN_USendMsg(up, 0x0100007f, 0, first, 5), 0u);
    EXPECT_EQ(RIX_CHAN_USendMsg(up, 0x0200007f, 0, second, 3), 0u);
    second[0] = '!';  // the record is a copy
    uint32_t len = 0;
    const void *last = RIX_TEST_ChanLastSent(eal, 2, &len, &w.first);
    ASSERT_NE(last, nullptr);
    EXPECT_EQ(std::string(static_cast<const char *>(last), len), "xyz");
    EXPECT_EQ(w.first, 0x0200007fu);
    EXPECT_EQ((U32s{RIX_TEST_ChanSendCount(eal, 2), RIX_TEST_ChanSendCount(eal, 1)}), (U32s{2, 0}));
    RIX_EAL_Destroy(eal);
    EXPECT_EQ(RIX_TEST_EalLiveCount(), 0u);
    EXPECT_EQ(rixtest::LiveAllocations(), 0);  // the layer never uses the module's allocator
}

struct DestroyOnRecv {
    void *eal;
    std::atomic<int> calls{0};
};

void DestroyingRecv(void *ctx, uint32_t, const void *, uint32_t)
{
    auto *d = static_cast<DestroyOnRecv *>(ctx);
    if (d->calls++ == 0) {
        RIX_EAL_Destroy(d->eal);
    }
}

TEST_F(PlatformEal, ChannelMessagesOnHandRunLoopsAndDestroyFromInside)
{
    void *eal = Create();
    ASSERT_NE(eal, nullptr);
    Received got;
    RIX_TEST_ChanSetRecv(eal, 1, OnChanMsg, &got);
    EXPECT_NE(RIX_TEST_ChanDeliver(eal, 1, "x", 1), 0u);  // not registered yet
    const RIX_EAL_ChanPara chans[3] = {ChanRecord(1, 1), ChanRecord(0, 0), ChanRecord(3, 0)};
    ASSERT_EQ(RIX_EAL_RegUcChannel(eal, chans, 3), 0u);
    const std::string big(5000, 'q');
    EXPECT_EQ(RIX_TEST_ChanDeliver(eal, 1, "abc", 3), 0u);
    EXPECT_EQ(RIX_TEST_ChanDeliver(eal, 1, big.data(), static_cast<uint32_t>(big.size())), 0u);
    EXPECT_EQ(RIX_TEST_EalRunUntilIdle(eal, 0), 0u);  // another thread's set
    EXPECT_EQ(RIX_TEST_EalRunUntilIdle(eal, 1), 2u);
    EXPECT_EQ(got.msgs, (std::vector<std::string>{"1:abc", "1:" + big}));  // boundaries kept
    EXPECT_EQ(RIX_TEST_EalRunUntilIdle(eal, 1), 0u);

    // A receive function that destroys its instance; the other message of the batch is dropped.
    DestroyOnRecv d{eal};
    RIX_TEST_ChanSetRecv(eal, 0, DestroyingRecv, &d);
    RIX_TEST_ChanSetRecv(eal, 3, DestroyingRecv, &d);
    ASSERT_EQ(RIX_TEST_ChanDeliver(eal, 0, "a", 1), 0u);
    ASSERT_EQ(RIX_TEST_ChanDeliver(eal, 3, "b", 1), 0u);
    EXPECT_EQ(RIX_TEST_EpollRunUntilIdle(RIX_EAL_GetEpollFd(eal, 0)), 1u);
    EXPECT_EQ(d.calls.load(), 1);
    EXPECT_EQ(RIX_TEST_EalLiveCount(), 0u);
}

// Deletes both registrations of the set: its own, and another whose event is pending.
struct DelCtx {
    int epFd;
    int a;
    int b;
    int calls = 0;
};

uint32_t DeleteBoth(int32_t, uint32_t, void *ctx)
{
    auto *d = static_cast<DelCtx *>(ctx);
    ++d->calls;
    EXPECT_EQ(RIX_EPOLL_DEL(d->epFd, d->a), 0);
    EXPECT_EQ(RIX_EPOLL_DEL(d->epFd, d->b), 0);
    return 0;
}

uint32_t CountWake(int32_t fd, uint32_t, void *ctx)
{
    eventfd_t v;
    if (eventfd_read(fd, &v) == 0) {
        static_cast<std::atomic<uint64_t> *>(ctx)->fetch_add(v);
    }
    return 0;
}

TEST_F(PlatformEal, EpollOnAnySetWithDeleteInsideCallback)
{
    int ep = epoll_create1(EPOLL_CLOEXEC);
    int a = eventfd_s(0, EFD_NONBLOCK);
    int b = eventfd_s(0, EFD_NONBLOCK);
    ASSERT_TRUE(ep >= 0 && a >= 0 && b >= 0);
    DelCtx del{ep, a, b};
    ASSERT_EQ(RIX_EPOLL_Add(ep, a, RIX_EPOLL_IN, DeleteBoth, &del), 0);
    ASSERT_EQ(RIX_EPOLL_Add(ep, b, RIX_EPOLL_IN, DeleteBoth, &del), 0);
    EXPECT_NE(RIX_EPOLL_Add(ep, a, RIX_EPOLL_IN, DeleteBoth, &del), 0);  // already there
    (void)eventfd_write(a, 1);
    (void)eventfd_write(b, 1);  // both ready in one batch
    EXPECT_EQ(RIX_TEST_EpollRunUntilIdle(ep), 1u);
    EXPECT_EQ(del.calls, 1);
    EXPECT_NE(RIX_EPOLL_DEL(ep, a), 0);

    // Level-triggered: a callback that leaves its event pending runs again (a semaphore
    // eventfd gives one unit per read).
    int sem = eventfd_s(0, EFD_NONBLOCK | EFD_SEMAPHORE);
    std::atomic<uint64_t> units{0};
    ASSERT_EQ(RIX_EPOLL_Add(ep, sem, RIX_EPOLL_IN, CountWake, &units), 0);
    (void)eventfd_write(sem, 3);
    EXPECT_EQ(RIX_TEST_EpollRunUntilIdle(ep), 3u);
    EXPECT_EQ(units.load(), 3u);
    EXPECT_EQ(RIX_EPOLL_DEL(ep, sem), 0);
    RIX_TEST_FailNth("RIX_EPOLL_Add", 1);
    EXPECT_NE(RIX_EPOLL_Add(ep, a, RIX_EPOLL_IN, CountWake, &units), 0);
    RIX_TEST_FailNth("eventfd_s", 1);
    errno = 0;
    EXPECT_LT(eventfd_s(0, 0), 0);
    EXPECT_NE(errno, 0);
    for (int fd : {sem, a, b, ep}) {
        close(fd);
    }
}

void OnTimer(uintptr_t arg)
{
    reinterpret_cast<std::atomic<int> *>(arg)->fetch_add(1);
}

struct Slow {
    std::atomic<bool> entered{false};
    std::atomic<bool> finished{false};
};

uint32_t SlowCallback(int32_t fd, uint32_t, void *ctx)
{
    auto *s = static_cast<Slow *>(ctx);
    eventfd_t v;
    (void)eventfd_read(fd, &v);
    s->entered = true;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    s->finished = true;
    return 0;
}

TEST_F(PlatformEal, StartedThreadsDeliverMessagesWakeUpsAndTimers)
{
    void *eal = Create();
    ASSERT_NE(eal, nullptr);
    const RIX_EAL_ThreadCfg threads[2] = {{0, "modA_data", 0}, {1, "modA_sync", 0}};
    ASSERT_EQ(RIX_EAL_RegThread(eal, threads, 2), 0u);
    const RIX_EAL_ChanPara chans[2] = {ChanRecord(0, 0), ChanRecord(3, 0)};
    ASSERT_EQ(RIX_EAL_RegUcChannel(eal, chans, 2), 0u);
    Received got;
    DestroyOnRecv destroyer{eal};
    RIX_TEST_ChanSetRecv(eal, 0, OnChanMsg, &got);
    RIX_TEST_ChanSetRecv(eal, 3, DestroyingRecv, &destroyer);
    EXPECT_NE(RIX_TEST_EalWaitIdle(eal, 0, 100), 0u);  // not started
    ASSERT_EQ(RIX_EAL_Start(eal), 0u);
    EXPECT_EQ(RIX_EAL_Start(eal), 0u);  // a second start changes nothing
    const int32_t syncEp = RIX_EAL_GetEpollFd(eal, 1);
    int efd = eventfd_s(0, EFD_NONBLOCK);
    std::atomic<uint64_t> wakes{0};
    ASSERT_EQ(RIX_EPOLL_Add(syncEp, efd, RIX_EPOLL_IN, CountWake, &wakes), 0);
    for (int i = 0; i < 50; ++i) {
        ASSERT_EQ(RIX_TEST_ChanDeliver(eal, 0, "m", 1), 0u);
        (void)eventfd_write(efd, 1);
    }
    EXPECT_EQ(RIX_TEST_EalWaitIdle(eal, 0, 10000), 0u);
    EXPECT_EQ(RIX_TEST_EalWaitIdle(eal, 1, 10000), 0u);
    {
        std::lock_guard<std::mutex> lock(got.mutex);
        EXPECT_EQ(got.msgs, std::vector<std::string>(50, "0:m"));
    }
    EXPECT_EQ(wakes.load(), 50u);
    EXPECT_EQ(RIX_TEST_EalWaitIdle(eal, 2, 100), 1u);  // no EVENT thread was registered

    // Deleted from this thread while its callback runs on the loop: DEL returns only after
    // the callback has finished.
    Slow slow;
    int sfd = eventfd_s(0, EFD_NONBLOCK);
    ASSERT_EQ(RIX_EPOLL_Add(syncEp, sfd, RIX_EPOLL_IN, SlowCallback, &slow), 0);
    (void)eventfd_write(sfd, 1);
    while (!slow.entered.load()) {
        std::this_thread::yield();
    }
    EXPECT_EQ(RIX_EPOLL_DEL(syncEp, sfd), 0);
    EXPECT_TRUE(slow.finished.load());

    std::atomic<int> ticks{0};
    const int32_t dataEp = RIX_EAL_GetEpollFd(eal, 0);
    ASSERT_GE(RIX_TIMER_Create(1, reinterpret_cast<uintptr_t>(OnTimer), reinterpret_cast<uintptr_t>(&ticks), dataEp),
              0);
    EXPECT_LT(RIX_TIMER_Create(0, reinterpret_cast<uintptr_t>(OnTimer), 0, dataEp), 0);
    EXPECT_LT(RIX_TIMER_Create(1, reinterpret_cast<uintptr_t>(OnTimer), 0, -1), 0);
    while (ticks.load() < 3) {
        std::this_thread::yield();  // the timer, not a sleep, decides how long this takes
    }
    // Its own loop thread tears the instance down: stops the threads, closes the timer.
    ASSERT_EQ(RIX_TEST_ChanDeliver(eal, 3, "bye", 3), 0u);
    while (RIX_TEST_EalLiveCount() != 0) {
        std::this_thread::yield();
    }
    EXPECT_EQ(destroyer.calls.load(), 1);
    close(efd);
    close(sfd);
}

TEST_F(PlatformEal, InjectedFailuresRecordNothing)
{
    RIX_TEST_FailNth("RIX_EAL_Create", 1);
    EXPECT_EQ(Create(), nullptr);
    RIX_TEST_SetDefaultMbRole(0);
    void *eal = Create();
    ASSERT_NE(eal, nullptr);
    EXPECT_EQ((U32s{RIX_TEST_CallCount("RIX_EAL_Create"), RIX_TEST_EalLiveCount(), RIX_EAL_SelfRoleIsMb(eal)}),
              (U32s{2, 1, 0}));
    RIX_TEST_FailAlways("RIX_EAL_GetEpollFd", 1);
    EXPECT_EQ(RIX_EAL_GetEpollFd(eal, 0), -1);
    EXPECT_EQ(RIX_EAL_GetEpollFd(eal, 1), -1);
    RIX_TEST_FailAlways("RIX_EAL_GetEpollFd", 0);
    EXPECT_GE(RIX_EAL_GetEpollFd(eal, 0), 0);
    RIX_TEST_FailNth("RIX_CHAN_USendMsg", 1);
    RIX_TEST_FailNth("RIX_EAL_RegThread", 1);
    char m[] = "m";
    const RIX_EAL_ThreadCfg t{0, "t", 0};
    EXPECT_EQ((U32s{RIX_CHAN_USendMsg(RIX_EAL_GetChannelHdl(eal, 0), 1, 0, m, 1), RIX_EAL_RegThread(eal, &t, 1),
                    RIX_TEST_ChanSendCount(eal, 0), RIX_TEST_EalThreadCount(eal)}),
              (U32s{1, 1, 0, 0}));
    RIX_EAL_Destroy(eal);
}

}  // namespace
