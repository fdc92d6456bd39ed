// The stand-in abstraction layer: recorded registrations, channels, epoll dispatch on hand-run
// and real loops, timers, and the smoothing entry points.
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "test_support.h"

namespace {

using rixtest::PlatformTest;

class PlatformEal : public PlatformTest {
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
    std::vector<uint32_t> chans;
};

void OnChanMsg(void *ctx, uint32_t chanNo, const void *msg, uint32_t len)
{
    auto *r = static_cast<Received *>(ctx);
    std::lock_guard<std::mutex> lock(r->mutex);
    r->msgs.emplace_back(static_cast<const char *>(msg), len);
    r->chans.push_back(chanNo);
}

RIX_EAL_ChanPara ChanRecord(uint32_t chanNo, uint32_t recvThread)
{
    RIX_EAL_ChanPara p{};
    p.chanNo = chanNo;
    p.recvThreadId = recvThread;
    std::snprintf(p.chanName, sizeof(p.chanName), "chan%u", chanNo);
    p.serverPort = 0x3412;
    return p;
}

TEST_F(PlatformEal, RecordsEveryRegistration)
{
    void *eal = Create();
    ASSERT_NE(eal, nullptr);
    EXPECT_EQ(RIX_TEST_EalLiveCount(), 1u);
    EXPECT_STREQ(RIX_TEST_EalName(eal), "modA");
    EXPECT_EQ(RIX_TEST_EalCreatePara(eal)->orchId, 7u);
    EXPECT_EQ(RIX_TEST_EalCreatePara(eal)->memAlloc, rixtest::CountingAlloc);
    for (uint32_t t = 0; t < 3; ++t) {
        EXPECT_GE(RIX_EAL_GetEpollFd(eal, t), 0);  // before any thread is registered
    }
    EXPECT_EQ(RIX_EAL_GetEpollFd(eal, 3), -1);

    RIX_EAL_ThreadCfg threads[2] = {{0, "modA_data", 0}, {2, "modA_evt", 4}};
    EXPECT_EQ(RIX_EAL_RegThread(eal, threads, 2), 0u);
    const RIX_EAL_ThreadCfg bad[2] = {{1, "x", 0}, {3, "y", 0}};
    EXPECT_NE(RIX_EAL_RegThread(eal, bad, 2), 0u);  // refused whole
    EXPECT_NE(RIX_EAL_RegThread(eal, threads, 1), 0u);   // id 0 again
    ASSERT_EQ(RIX_TEST_EalThreadCount(eal), 2u);
    EXPECT_STREQ(RIX_TEST_EalThread(eal, 1)->threadName, "modA_evt");
    EXPECT_EQ(RIX_TEST_EalThread(eal, 1)->threadAttr, 4u);
    EXPECT_EQ(RIX_TEST_EalThread(eal, 2), nullptr);

    RIX_EAL_ChanPara chans[2] = {ChanRecord(0, 0), ChanRecord(3, 2)};
    EXPECT_EQ(RIX_EAL_RegUcChannel(eal, chans, 2), 0u);
    const RIX_EAL_ChanPara again = ChanRecord(3, 0);
    EXPECT_NE(RIX_EAL_RegUcChannel(eal, &again, 1), 0u);
    ASSERT_EQ(RIX_TEST_EalChanCount(eal), 2u);
    EXPECT_EQ(0, std::memcmp(RIX_TEST_EalChan(eal, 1), &chans[1], sizeof(RIX_EAL_ChanPara)));

    RIX_EAL_SyncGrpPara rows[2]{};
    rows[0].grpId = 10;
    rows[1].grpId = 11;
    rows[1].verifyInterVal = 99;
    EXPECT_EQ(RIX_EAL_RegSyncGroup(eal, rows, 2), 0u);
    EXPECT_EQ(RIX_EAL_RegSyncGrpMsgSet(eal, 11, 0x55), 0u);
    RIX_EAL_FlowCtl fc{};
    fc.word[11] = 123;
    EXPECT_EQ(RIX_EAL_SetSyncGrpFlowCtl(eal, 10, &fc), 0u);
    EXPECT_EQ(RIX_EAL_ReservePort(eal, 1, 2), 0u);
    EXPECT_EQ(RIX_EAL_ReservePort(eal, 3, 4), 0u);
    EXPECT_EQ(RIX_EAL_RegModStateRsp(eal, 5, 6), 0u);
    EXPECT_EQ(RIX_EAL_SetOndemandParam(eal, 8, 9), 0u);
    EXPECT_EQ(RIX_EAL_Init(eal), 0u);
    EXPECT_EQ(RIX_EAL_ModInitOk(eal), 0u);

    ASSERT_EQ(RIX_TEST_EalSyncGrpCount(eal), 2u);
    EXPECT_EQ(RIX_TEST_EalSyncGrp(eal, 1)->verifyInterVal, 99u);
    uint32_t a = 0;
    uint32_t b = 0;
    ASSERT_EQ(RIX_TEST_EalMsgSetCount(eal), 1u);
    RIX_TEST_EalMsgSet(eal, 0, &a, &b);
    EXPECT_EQ(a, 11u);
    EXPECT_EQ(b, 0x55u);
    ASSERT_EQ(RIX_TEST_EalFlowCtlCount(eal), 1u);
    EXPECT_EQ(RIX_TEST_EalFlowCtl(eal, 0, &a)->word[11], 123u);
    EXPECT_EQ(a, 10u);
    EXPECT_EQ(RIX_TEST_EalReservePort(eal, &a, &b), 2u);
    EXPECT_EQ(a, 3u);
    EXPECT_EQ(b, 4u);
    EXPECT_EQ(RIX_TEST_EalModStateRsp(eal, &a, nullptr), 1u);
    EXPECT_EQ(a, 5u);
    EXPECT_EQ(RIX_TEST_EalOndemand(eal, nullptr, &b), 1u);
    EXPECT_EQ(b, 9u);
    EXPECT_EQ(RIX_TEST_EalInitCount(eal), 1u);
    EXPECT_EQ(RIX_TEST_EalModInitOkCount(eal), 1u);
    EXPECT_EQ(RIX_TEST_EalStartCount(eal), 0u);

    // Role, back-press and sends, also on a channel that was never registered.
    EXPECT_EQ(RIX_EAL_SelfRoleIsMb(eal), 1u);
    RIX_TEST_EalSetMbRole(eal, 0);
    EXPECT_EQ(RIX_EAL_SelfRoleIsMb(eal), 0u);
    void *up = RIX_EAL_GetChannelHdl(eal, 2);
    ASSERT_NE(up, nullptr);
    EXPECT_EQ(RIX_EAL_GetChannelHdl(eal, 4), nullptr);
    EXPECT_EQ(RIX_CHAN_BackPress(up), 0u);
    EXPECT_EQ(RIX_TEST_ChanBackPressed(eal, 2), 1u);
    EXPECT_EQ(RIX_CHAN_UnBackPress(up), 0u);
    EXPECT_EQ(RIX_CHAN_BackPress(up), 0u);
    EXPECT_EQ(RIX_TEST_ChanBackPressCount(eal, 2, &a), 2u);
    EXPECT_EQ(a, 1u);
    EXPECT_EQ(RIX_EAL_SyncBackPress(eal, 10), 0u);
    EXPECT_EQ(RIX_EAL_SyncUnBackPress(eal, 10), 0u);
    EXPECT_EQ(RIX_TEST_EalSyncBackPressed(eal, 10), 0u);
    EXPECT_EQ(RIX_TEST_EalSyncBackPressCount(eal, 10, &a), 1u);
    EXPECT_EQ(a, 1u);
    char first[] = "hello";
    char second[] = "xyz";
    EXPECT_EQ(RIX_CHAN_USendMsg(up, 0x0100007f, 0, first, 5), 0u);
    EXPECT_EQ(RIX_CHAN_USendMsg(up, 0x0200007f, 0, second, 3), 0u);
    second[0] = '!';  // the record is a copy
    uint32_t len = 0;
    const void *last = RIX_TEST_ChanLastSent(eal, 2, &len, &a);
    ASSERT_NE(last, nullptr);
    EXPECT_EQ(std::string(static_cast<const char *>(last), len), "xyz");
    EXPECT_EQ(a, 0x0200007fu);
    EXPECT_EQ(RIX_TEST_ChanSendCount(eal, 2), 2u);
    EXPECT_EQ(RIX_TEST_ChanSendCount(eal, 1), 0u);

    RIX_EAL_Destroy(eal);
    EXPECT_EQ(RIX_TEST_EalLiveCount(), 0u);
    EXPECT_EQ(rixtest::LiveAllocations(), 0);  // the layer never uses the module's allocator
}

struct SyncSeen {
    uint32_t grpId = 0;
    std::vector<std::string> items;
    const void *firstData = nullptr;
};

void OnSync(void *ctx, uint32_t grpId, const RIX_EAL_SyncItem *items, uint32_t count)
{
    auto *s = static_cast<SyncSeen *>(ctx);
    s->grpId = grpId;
    s->firstData = count > 0 ? items[0].data : nullptr;
    for (uint32_t i = 0; i < count; ++i) {
        s->items.emplace_back(static_cast<const char *>(items[i].data), items[i].len);
    }
}

TEST_F(PlatformEal, SyncMessagesReachThePeerAsCopies)
{
    void *eal = Create();
    ASSERT_NE(eal, nullptr);
    const char one[] = "one";
    const char two[] = "twotwo";
    RIX_EAL_SyncItem items[2] = {{one, 3}, {two, 6}};
    EXPECT_EQ(RIX_EAL_SyncMsg(eal, 4, items, 2), 0u);  // no peer: recorded only
    SyncSeen seen;
    RIX_TEST_EalSetSyncPeer(eal, OnSync, &seen);
    EXPECT_EQ(RIX_EAL_SyncMsg(eal, 6, items, 2), 0u);
    EXPECT_EQ(seen.grpId, 6u);
    EXPECT_EQ(seen.items, (std::vector<std::string>{"one", "twotwo"}));
    EXPECT_NE(seen.firstData, static_cast<const void *>(one));
    uint32_t grp = 0;
    uint32_t count = 0;
    EXPECT_EQ(RIX_TEST_EalSyncMsgLast(eal, &grp, &count), 2u);
    EXPECT_EQ(grp, 6u);
    EXPECT_EQ(count, 2u);
    EXPECT_EQ(RIX_TEST_EalSyncMsgCount(eal), 2u);
    EXPECT_NE(RIX_EAL_SyncMsg(eal, 6, nullptr, 1), 0u);
    RIX_TEST_FailNth("RIX_EAL_SyncMsg", 1);
    EXPECT_NE(RIX_EAL_SyncMsg(eal, 6, items, 2), 0u);
    EXPECT_EQ(seen.items.size(), 2u);
    RIX_EAL_Destroy(eal);
}

TEST_F(PlatformEal, ChannelMessagesOnHandRunLoops)
{
    void *eal = Create();
    ASSERT_NE(eal, nullptr);
    Received got;
    RIX_TEST_ChanSetRecv(eal, 1, OnChanMsg, &got);
    EXPECT_NE(RIX_TEST_ChanDeliver(eal, 1, "x", 1), 0u);  // not registered yet
    RIX_EAL_ChanPara fes = ChanRecord(1, 1);
    ASSERT_EQ(RIX_EAL_RegUcChannel(eal, &fes, 1), 0u);
    std::string big(5000, 'q');
    EXPECT_EQ(RIX_TEST_ChanDeliver(eal, 1, "abc", 3), 0u);
    EXPECT_EQ(RIX_TEST_ChanDeliver(eal, 1, big.data(), static_cast<uint32_t>(big.size())), 0u);
    EXPECT_EQ(RIX_TEST_EalRunUntilIdle(eal, 0), 0u);  // another thread's set
    EXPECT_EQ(RIX_TEST_EalRunUntilIdle(eal, 1), 2u);
    ASSERT_EQ(got.msgs.size(), 2u);
    EXPECT_EQ(got.msgs[0], "abc");
    EXPECT_EQ(got.msgs[1], big);  // message boundaries kept
    EXPECT_EQ(got.chans[1], 1u);
    EXPECT_EQ(RIX_TEST_EalRunUntilIdle(eal, 1), 0u);
    RIX_EAL_Destroy(eal);
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

TEST_F(PlatformEal, DestroyFromInsideItsOwnLoopCallback)
{
    void *eal = Create();
    ASSERT_NE(eal, nullptr);
    RIX_EAL_ChanPara chans[2] = {ChanRecord(0, 0), ChanRecord(3, 0)};
    ASSERT_EQ(RIX_EAL_RegUcChannel(eal, chans, 2), 0u);
    DestroyOnRecv d{eal};
    RIX_TEST_ChanSetRecv(eal, 0, DestroyingRecv, &d);
    RIX_TEST_ChanSetRecv(eal, 3, DestroyingRecv, &d);
    ASSERT_EQ(RIX_TEST_ChanDeliver(eal, 0, "a", 1), 0u);
    ASSERT_EQ(RIX_TEST_ChanDeliver(eal, 3, "b", 1), 0u);  // pending in the same batch
    const int32_t ep = RIX_EAL_GetEpollFd(eal, 0);
    EXPECT_EQ(RIX_TEST_EpollRunUntilIdle(ep), 1u);
    EXPECT_EQ(d.calls.load(), 1);
    EXPECT_EQ(RIX_TEST_EalLiveCount(), 0u);

    // The same on a started instance: its own loop thread tears it down.
    void *started = Create();
    ASSERT_NE(started, nullptr);
    RIX_EAL_ThreadCfg data{0, "modA_data", 0};
    ASSERT_EQ(RIX_EAL_RegThread(started, &data, 1), 0u);
    ASSERT_EQ(RIX_EAL_RegUcChannel(started, chans, 1), 0u);
    DestroyOnRecv s{started};
    RIX_TEST_ChanSetRecv(started, 0, DestroyingRecv, &s);
    ASSERT_EQ(RIX_EAL_Start(started), 0u);
    ASSERT_EQ(RIX_TEST_ChanDeliver(started, 0, "a", 1), 0u);
    while (RIX_TEST_EalLiveCount() != 0) {
        std::this_thread::yield();
    }
    EXPECT_EQ(s.calls.load(), 1);
}

// A callback that deletes its own registration and another one whose event is pending in
// the same batch; the other callback must never run afterwards.
struct DelCtx {
    int epFd;
    int selfFd;
    int otherFd;
    int calls = 0;
    int *otherCalls;
};

uint32_t DeletingCallback(int32_t fd, uint32_t, void *ctx)
{
    auto *d = static_cast<DelCtx *>(ctx);
    ++d->calls;
    eventfd_t v;
    (void)eventfd_read(fd, &v);
    EXPECT_EQ(RIX_EPOLL_DEL(d->epFd, d->selfFd), 0);
    EXPECT_EQ(RIX_EPOLL_DEL(d->epFd, d->otherFd), 0);
    return 0;
}

uint32_t CountingCallback(int32_t fd, uint32_t, void *ctx)
{
    ++*static_cast<int *>(ctx);
    eventfd_t v;
    (void)eventfd_read(fd, &v);
    return 0;
}

TEST_F(PlatformEal, EpollOnAnySetWithDeleteInsideCallback)
{
    int ep = epoll_create1(EPOLL_CLOEXEC);
    ASSERT_GE(ep, 0);
    int a = eventfd_s(0, EFD_NONBLOCK);
    int b = eventfd_s(0, EFD_NONBLOCK);
    ASSERT_GE(a, 0);
    ASSERT_GE(b, 0);
    int bCalls = 0;
    DelCtx da{ep, a, b, 0, &bCalls};
    DelCtx db{ep, b, a, 0, &bCalls};
    ASSERT_EQ(RIX_EPOLL_Add(ep, a, RIX_EPOLL_IN, DeletingCallback, &da), 0);
    ASSERT_EQ(RIX_EPOLL_Add(ep, b, RIX_EPOLL_IN, DeletingCallback, &db), 0);
    EXPECT_NE(RIX_EPOLL_Add(ep, a, RIX_EPOLL_IN, DeletingCallback, &da), 0);  // already there
    (void)eventfd_write(a, 1);
    (void)eventfd_write(b, 1);  // both ready in one batch
    EXPECT_EQ(RIX_TEST_EpollRunUntilIdle(ep), 1u);
    EXPECT_EQ(da.calls + db.calls, 1);
    EXPECT_NE(RIX_EPOLL_DEL(ep, a), 0);

    // Level-triggered: a callback that leaves its event pending runs again (a semaphore
    // eventfd gives one unit per read).
    int sem = eventfd_s(0, EFD_NONBLOCK | EFD_SEMAPHORE);
    ASSERT_EQ(RIX_EPOLL_Add(ep, sem, RIX_EPOLL_IN, CountingCallback, &bCalls), 0);
    (void)eventfd_write(sem, 3);
    EXPECT_EQ(RIX_TEST_EpollRunUntilIdle(ep), 3u);
    EXPECT_EQ(bCalls, 3);
    EXPECT_EQ(RIX_EPOLL_DEL(ep, sem), 0);
    close(sem);
    RIX_TEST_FailNth("RIX_EPOLL_Add", 1);
    EXPECT_NE(RIX_EPOLL_Add(ep, a, RIX_EPOLL_IN, CountingCallback, &bCalls), 0);
    RIX_TEST_FailNth("eventfd_s", 1);
    errno = 0;
    EXPECT_LT(eventfd_s(0, 0), 0);
    EXPECT_NE(errno, 0);
    close(a);
    close(b);
    close(ep);
}

void OnTimer(uintptr_t arg) { static_cast<std::atomic<int> *>(reinterpret_cast<void *>(arg))->fetch_add(1); }

uint32_t CountWake(int32_t fd, uint32_t, void *ctx)
{
    eventfd_t v;
    if (eventfd_read(fd, &v) == 0) {
        static_cast<std::atomic<uint64_t> *>(ctx)->fetch_add(v);
    }
    return 0;
}

TEST_F(PlatformEal, StartedThreadsDeliverMessagesWakeUpsAndTimers)
{
    void *eal = Create();
    ASSERT_NE(eal, nullptr);
    RIX_EAL_ThreadCfg threads[2] = {{0, "modA_data", 0}, {1, "modA_sync", 0}};
    ASSERT_EQ(RIX_EAL_RegThread(eal, threads, 2), 0u);
    RIX_EAL_ChanPara dam = ChanRecord(0, 0);
    ASSERT_EQ(RIX_EAL_RegUcChannel(eal, &dam, 1), 0u);
    Received got;
    RIX_TEST_ChanSetRecv(eal, 0, OnChanMsg, &got);
    EXPECT_NE(RIX_TEST_EalWaitIdle(eal, 0, 100), 0u);  // not started
    ASSERT_EQ(RIX_EAL_Start(eal), 0u);
    EXPECT_EQ(RIX_EAL_Start(eal), 0u);  // a second start changes nothing
    EXPECT_EQ(RIX_TEST_EalStartCount(eal), 2u);

    int efd = eventfd_s(0, EFD_NONBLOCK);
    ASSERT_GE(efd, 0);
    std::atomic<uint64_t> wakes{0};
    ASSERT_EQ(RIX_EPOLL_Add(RIX_EAL_GetEpollFd(eal, 1), efd, RIX_EPOLL_IN, CountWake, &wakes), 0);
    for (int i = 0; i < 50; ++i) {
        ASSERT_EQ(RIX_TEST_ChanDeliver(eal, 0, "m", 1), 0u);
        (void)eventfd_write(efd, 1);
    }
    EXPECT_EQ(RIX_TEST_EalWaitIdle(eal, 0, 10000), 0u);
    EXPECT_EQ(RIX_TEST_EalWaitIdle(eal, 1, 10000), 0u);
    {
        std::lock_guard<std::mutex> lock(got.mutex);
        EXPECT_EQ(got.msgs.size(), 50u);
    }
    EXPECT_EQ(wakes.load(), 50u);
    EXPECT_EQ(RIX_TEST_EalWaitIdle(eal, 2, 100), 1u);  // no EVENT thread was registered

    std::atomic<int> ticks{0};
    int tfd = RIX_TIMER_Create(1, reinterpret_cast<uintptr_t>(OnTimer), reinterpret_cast<uintptr_t>(&ticks),
                               RIX_EAL_GetEpollFd(eal, 0));
    ASSERT_GE(tfd, 0);
    EXPECT_LT(RIX_TIMER_Create(0, reinterpret_cast<uintptr_t>(OnTimer), 0, RIX_EAL_GetEpollFd(eal, 0)), 0);
    EXPECT_LT(RIX_TIMER_Create(1, reinterpret_cast<uintptr_t>(OnTimer), 0, -1), 0);
    while (ticks.load() < 3) {
        std::this_thread::yield();  // the timer, not a sleep, decides how long this takes
    }
    // Removed from a set while its loop runs.
    EXPECT_EQ(RIX_EPOLL_DEL(RIX_EAL_GetEpollFd(eal, 1), efd), 0);
    close(efd);
    RIX_EAL_Destroy(eal);  // stops the threads and closes the timer with its set
    EXPECT_EQ(RIX_TEST_EalLiveCount(), 0u);
}

TEST_F(PlatformEal, InjectedFailuresOfTheLayer)
{
    RIX_TEST_FailNth("RIX_EAL_Create", 1);
    EXPECT_EQ(Create(), nullptr);
    void *eal = Create();
    ASSERT_NE(eal, nullptr);
    EXPECT_EQ(RIX_TEST_CallCount("RIX_EAL_Create"), 2u);
    RIX_TEST_FailAlways("RIX_EAL_GetEpollFd", 1);
    EXPECT_EQ(RIX_EAL_GetEpollFd(eal, 0), -1);
    RIX_TEST_FailAlways("RIX_EAL_GetEpollFd", 0);
    EXPECT_GE(RIX_EAL_GetEpollFd(eal, 0), 0);
    RIX_TEST_FailNth("RIX_EAL_GetChannelHdl", 1);
    EXPECT_EQ(RIX_EAL_GetChannelHdl(eal, 0), nullptr);
    RIX_TEST_FailNth("RIX_CHAN_USendMsg", 1);
    char m[] = "m";
    EXPECT_EQ(RIX_CHAN_USendMsg(RIX_EAL_GetChannelHdl(eal, 0), 1, 0, m, 1), 1u);
    EXPECT_EQ(RIX_TEST_ChanSendCount(eal, 0), 0u);
    RIX_TEST_FailNth("RIX_EAL_RegThread", 1);
    RIX_EAL_ThreadCfg t{0, "t", 0};
    EXPECT_EQ(RIX_EAL_RegThread(eal, &t, 1), 1u);
    EXPECT_EQ(RIX_TEST_EalThreadCount(eal), 0u);
    RIX_TEST_SetDefaultMbRole(0);
    void *other = Create("modB");
    EXPECT_EQ(RIX_EAL_SelfRoleIsMb(other), 0u);
    RIX_EAL_Destroy(other);
    RIX_EAL_Destroy(eal);
}

TEST_F(PlatformEal, EntryPointsRecordTheirRecords)
{
    uint8_t classState[RIX_ENTRY_CLASS_STATE_SIZE];
    uint8_t vrfState[RIX_ENTRY_VRF_STATE_SIZE];
    uint8_t data[RIX_ENTRY_VRF_CLASS_DATA_SIZE];
    std::memset(classState, 1, sizeof(classState));
    std::memset(vrfState, 2, sizeof(vrfState));
    std::memset(data, 3, sizeof(data));
    EXPECT_EQ(RIX_ENTRY_ProcVrfStateBegin(classState), 0u);
    EXPECT_EQ(RIX_ENTRY_ProcVrfState(vrfState), 0u);
    EXPECT_EQ(RIX_ENTRY_ProcVrfStateEnd(classState, rixtest::CountingAlloc, rixtest::CountingFree), 0u);
    EXPECT_EQ(RIX_ENTRY_ProcVrfDataBegin(data), 0u);
    RIX_TEST_FailNth("RIX_ENTRY_ProcVrfDataEnd", 1);
    EXPECT_NE(RIX_ENTRY_ProcVrfDataEnd(data), 0u);
    EXPECT_EQ(RIX_ENTRY_ProcPidState(classState), 0u);
    std::memset(vrfState, 9, sizeof(vrfState));  // recorded as a copy

    const std::vector<std::pair<std::string, uint32_t>> expected = {
        {"RIX_ENTRY_ProcVrfStateBegin", 12}, {"RIX_ENTRY_ProcVrfState", 72}, {"RIX_ENTRY_ProcVrfStateEnd", 12},
        {"RIX_ENTRY_ProcVrfDataBegin", 24}, {"RIX_ENTRY_ProcPidState", 12}};
    ASSERT_EQ(RIX_TEST_EntryCount(), expected.size());
    for (uint32_t i = 0; i < expected.size(); ++i) {
        const void *rec = nullptr;
        uint32_t size = 0;
        EXPECT_EQ(RIX_TEST_EntryCall(i, &rec, &size), expected[i].first);
        EXPECT_EQ(size, expected[i].second);
    }
    const void *rec = nullptr;
    RIX_TEST_EntryCall(1, &rec, nullptr);
    EXPECT_EQ(static_cast<const uint8_t *>(rec)[71], 2);
    EXPECT_EQ(RIX_TEST_EntryCall(5, &rec, nullptr), nullptr);
    RIX_TEST_Reset();
    EXPECT_EQ(RIX_TEST_EntryCount(), 0u);
}

}  // namespace
