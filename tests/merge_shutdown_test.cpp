// Shutdown under traffic: ASOrchDestroy brings the DATA thread's drains to rest before it
// releases anything, a destroy asked for from inside a drain waits for that drain to return,
// and records still pending are reported and given back.
#include <atomic>
#include <chrono>
#include <cstring>
#include <thread>
#include <vector>

#include "test_support.h"

namespace {

using rixtest::DumpLines;
using rixtest::HasLine;
using rixtest::LiveAllocations;

constexpr uint32_t kMsgId = 0x10u;

std::atomic<uint32_t> g_delivered{0};
std::atomic<bool> g_destroyReturned{false};
std::atomic<uint32_t> g_lateCalls{0};
std::atomic<bool> g_holdFirst{false};
std::atomic<bool> g_destroyInside{false};
std::atomic<bool> g_started{true};

// Holds the first drain until destroy has begun on the main thread, then sends to the peer
// for every record: before the fix the sync groups were already gone by then.
uint32_t Proc(ASOrchHandle *h, ASOrchMsgVec *v)
{
    if (g_destroyReturned.load()) {
        g_lateCalls.fetch_add(1);
    }
    if (g_delivered.fetch_add(1) == 0u && g_holdFirst.load()) {
        while (RIX_TEST_LogFind("Orch auto sync free begin.") == 0u) {
            std::this_thread::yield();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    if (g_destroyInside.load()) {
        while (!g_started.load()) {  // RIX_EAL_Start has not returned yet
            std::this_thread::yield();
        }
        ASOrchDestroy(h);
        return 0u;
    }
    RIX_EAL_SyncItem item{v->data, v->dataLen};
    return ASOrchSyncMsg(h, 0u, &item);
}

uint32_t Hash(const void *k)
{
    auto *v = static_cast<const ASOrchMsgVec *>(k);
    return ASOrchMergeHashFunc(static_cast<ASOrchHandle *>(v->usrData), 0u, v);
}

ASOrchMergeMsg g_msgs[1] = {{kMsgId, {Proc, Proc, Proc, Proc}}};

class MergeShutdownTest : public rixtest::PlatformTest, public ::testing::WithParamInterface<uint32_t> {
protected:
    void SetUp() override
    {
        PlatformTest::SetUp();
        g_delivered = 0u;
        g_destroyReturned = false;
        g_lateCalls = 0u;
        g_holdFirst = false;
        g_destroyInside = false;
        g_started = true;
        RIX_TEST_SetDefaultMbRole(GetParam());
        const ASOrchCreatePara para = rixtest::CountingCreatePara();
        handle_ = ASOrchCreate("mshut", &para);
        ASSERT_NE(handle_, nullptr);
        base_.threadMask = 3u;  // DATA and SYNC
        base_.syncGrpMsgSet[0] = 1u;
        base_.chanPort[0].realServerPort = 9000u;
        base_.mergeMque[0] = {g_msgs, 1u, 0u, Hash, 8u, 4u};  // back-press cycles within a burst
        ASSERT_EQ(ASOrchRegBase(handle_, &base_), 0u) << DumpLines();
    }
    void TearDown() override
    {
        EXPECT_EQ(LiveAllocations(), 0);
        EXPECT_EQ(RIX_TEST_EalLiveCount(), 0u);
        PlatformTest::TearDown();
    }
    void Fill(uint32_t n)
    {
        for (uint32_t k = 0; k < n; ++k) {
            uint32_t key = k;
            ASOrchMsgVec v{kMsgId, 0u, &key, 4u, &key, 4u, 0u, nullptr};
            ASSERT_EQ(ASOrchMsgMerge(handle_, 0u, &v), 0u);
        }
    }
    ASOrchHandle *handle_ = nullptr;
    ASOrchBasePara base_{};
};

// A drain held inside msgProc while destroy starts on another thread: the drain finishes
// against live sync groups (sends and the low-water release), nothing runs after destroy
// returns, and what the drain did not reach is reported and released.
TEST_P(MergeShutdownTest, DestroyWaitsForTheRunningDrainAndReportsWhatIsLeft)
{
    Fill(35u);  // the held batch of 32 ends under the low water mark and releases the back-press
    g_holdFirst = true;
    ASSERT_EQ(ASOrchInit(handle_), 0u);
    ASSERT_EQ(ASOrchStart(handle_), 0u);
    while (g_delivered.load() == 0u) {
        std::this_thread::yield();
    }
    ASOrchDestroy(handle_);
    g_destroyReturned = true;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(g_lateCalls.load(), 0u);
    EXPECT_EQ(g_delivered.load(), ASORCH_MERGE_READ_BATCH) << "only the running drain completes";
    EXPECT_EQ(RIX_TEST_LogFind("Orch autosync msg Fail"), 0u) << DumpLines();
    EXPECT_TRUE(HasLine("[RIX_MERGE_QUE Destory] mshut_DAM reader list is not empty!")) << DumpLines();
    EXPECT_TRUE(HasLine("Orch auto sync free ok."));
}

// msgProc asks for destroy on the DATA thread itself: no deadlock, the rest of the batch is
// released undelivered, and the orchestrator is gone once the drain has returned.
TEST_P(MergeShutdownTest, DestroyFromInsideADrainIsCarriedOutWhenItReturns)
{
    Fill(20u);
    g_destroyInside = true;
    ASOrchDestroy(nullptr);  // a null handle changes nothing on the way
    RIX_TEST_EalRunUntilIdle(ASOrchGetEalHdl(handle_), 0u);
    EXPECT_EQ(g_delivered.load(), 1u) << DumpLines();
    EXPECT_TRUE(HasLine("mshut, Orch auto sync free deferred until the running callback returns.")) << DumpLines();
    EXPECT_TRUE(HasLine("Orch auto sync free ok."));
    EXPECT_FALSE(HasLine("[RIX_MERGE_QUE Destory] mshut_DAM reader list is not empty!"));

    // The same on a started DATA thread.
    RIX_TEST_LogClear();
    g_delivered = 0u;
    const ASOrchCreatePara para = rixtest::CountingCreatePara();
    handle_ = ASOrchCreate("mshut", &para);
    ASSERT_NE(handle_, nullptr);
    ASSERT_EQ(ASOrchRegBase(handle_, &base_), 0u);
    Fill(20u);
    g_started = false;
    ASSERT_EQ(ASOrchInit(handle_), 0u);
    ASSERT_EQ(ASOrchStart(handle_), 0u);
    g_started = true;
    for (int i = 0; i < 5000 && RIX_TEST_LogFind("Orch auto sync free ok.") == 0u; ++i) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    EXPECT_EQ(g_delivered.load(), 1u);
}

INSTANTIATE_TEST_SUITE_P(Roles, MergeShutdownTest, ::testing::Values(1u, 0u),
                         [](const auto &info) { return info.param != 0u ? "mb" : "notMb"; });

}  // namespace
