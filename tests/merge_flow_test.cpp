// Merge handles, the write path and the receive dispatch, on the stand-in DATA thread.
#include <algorithm>
#include <cstring>
#include <iterator>
#include <numeric>
#include <string>
#include <tuple>
#include <vector>

#include "test_support.h"

namespace {

using rixtest::CountContaining;
using rixtest::DumpLines;
using rixtest::HasLine;
using rixtest::LiveAllocations;

void ExpectLines(std::initializer_list<const char *> lines)
{
    for (const char *l : lines) {
        EXPECT_TRUE(HasLine(l)) << l << "\n" << DumpLines();
    }
}

struct Call {
    int table;  // 0 DAM procs, 1 FES procs
    uint32_t msgId, opType, key;
    std::string data;
    const void *dataPtr;
};
std::vector<Call> g_calls;
uint32_t g_procResult = 0;

uint32_t Record(int table, ASOrchMsgVec *v)
{
    uint32_t key = 0;
    std::memcpy(&key, v->key, v->keyLen < 4u ? v->keyLen : 4u);
    g_calls.push_back({table, v->msgId, v->opType, key,
                       std::string(static_cast<const char *>(v->data), v->data ? v->dataLen : 0u), v->data});
    return g_procResult;
}
uint32_t ProcDam(ASOrchHandle *, ASOrchMsgVec *v)
{
    return Record(0, v);
}
uint32_t ProcFes(ASOrchHandle *, ASOrchMsgVec *v)
{
    return Record(1, v);
}

// DAM serves 0x10 (all opTypes) and 0x11 (no opType 1); FES serves 0x20.
ASOrchMergeMsg g_damMsgs[2] = {{0x10u, {ProcDam, ProcDam, ProcDam, ProcDam}},
                               {0x11u, {ProcDam, nullptr, ProcDam, ProcDam}}};
ASOrchMergeMsg g_fesMsgs[1] = {{0x20u, {ProcFes, ProcFes, ProcFes, ProcFes}}};

class MergeFlowTest : public rixtest::OrchTest {
protected:
    MergeFlowTest() { name_ = "mflow"; }
    void SetUp() override
    {
        OrchTest::SetUp();
        g_calls.clear();
        g_procResult = 0;
        base_.mergeMque[0] = {g_damMsgs, 2u, 0u, rixtest::MergeHash<0u>, 0u, 0u};
        base_.mergeMque[1] = {g_fesMsgs, 1u, 64u, rixtest::MergeHash<1u>, 0u, 0u};
    }
    uint32_t Write(uint32_t type, uint32_t msgId, uint32_t opType, uint32_t key, const char *data = "")
    {
        ASOrchMsgVec v{msgId, opType, &key, 4u, const_cast<char *>(data), static_cast<uint32_t>(std::strlen(data)),
                       0u,    nullptr};
        return ASOrchMsgMerge(h_, type, &v);
    }
    static std::vector<uint32_t> Keys()
    {
        std::vector<uint32_t> out;
        std::transform(g_calls.begin(), g_calls.end(), std::back_inserter(out), [](const Call &c) { return c.key; });
        return out;
    }
};

TEST_F(MergeFlowTest, RegistrationNamesQueuesAndFailuresLeaveNoState)
{
    const int64_t before = LiveAllocations();
    ASSERT_EQ(ASOrchRegMerge(h_, &base_), 0u) << DumpLines();
    MergeQueCb *fes = ASOrchGetReaderHdl(h_, 1u);
    ASSERT_NE(fes, nullptr);
    EXPECT_EQ(RIX_MergeQueNameTreeFind("mflow_FES"), fes);
    EXPECT_EQ(RIX_MergeQueNameTreeFind("mflow_DAM"), ASOrchGetReaderHdl(h_, 0u));
    EXPECT_EQ(fes->para.hashSize, 64u);
    EXPECT_EQ(h_->mergeHandle[0].hashSize, 8192u);
    EXPECT_EQ(fes->highWater - fes->lowWater, 65536u - 8192u);
    EXPECT_TRUE(HasLine("mflow, 1 Register Orch autosync FES MQUE Monitor ok")) << DumpLines();
    ASOrchFreeMergeHandle(h_);
    EXPECT_EQ(RIX_MergeQueNameTreeFind("mflow_FES"), nullptr);
    EXPECT_EQ(ASOrchGetReaderHdl(h_, 0u), nullptr);
    EXPECT_EQ(LiveAllocations(), before);

    // A duplicate msgId, a refused FES monitor (5000 is not above the default low mark 8192),
    // a failed queue creation, a second run on a registered handle: nothing stays.
    ASOrchMergeMsg dup[2] = {g_damMsgs[0], g_damMsgs[0]};
    const char *logs[] = {"mflow, merge failed to add hashNode(16)",
                          "mflow, 1 Register Orch autosync DAM MQUE Monitor fail",
                          "mflow, mflow_DAM Register Orch autosync create MQUE fail", nullptr};
    for (int i = 0; i < 4; ++i) {
        base_.mergeMque[0].mergeMsg = i == 0 ? dup : g_damMsgs;
        base_.mergeMque[1].highWater = i == 1 ? 5000u : 0u;
        if (i == 2) {
            RIX_TEST_FailNth("LITE_HASH_CreateWithLock", 1u);
        } else if (i == 3) {
            ASSERT_EQ(ASOrchRegMerge(h_, &base_), 0u);
        }
        EXPECT_EQ(ASOrchRegMerge(h_, &base_), 1u) << i;
        EXPECT_TRUE(logs[i] == nullptr || HasLine(logs[i])) << logs[i] << DumpLines();
        EXPECT_EQ(h_->mergeHandle, nullptr);
        EXPECT_EQ(RIX_MergeQueNameTreeFind("mflow_DAM"), nullptr);
        EXPECT_EQ(LiveAllocations(), before);
    }
    EXPECT_TRUE(HasLine("mflow, 0 init auto sync merge handle failed."));

    // Only FES: DAM merge types fail silently.
    base_.mergeMque[0].hashFunc = nullptr;
    ASSERT_EQ(ASOrchRegMerge(h_, &base_), 0u);
    const uint32_t lines = RIX_TEST_LogCount();
    EXPECT_EQ(Write(0u, 0x10u, 0u, 1u), 1u);
    EXPECT_EQ(Write(2u, 0x10u, 0u, 1u), 1u);
    EXPECT_EQ(RIX_TEST_LogCount(), lines);
    EXPECT_EQ(Write(3u, 0x20u, 0u, 1u), 0u);
}

TEST_F(MergeFlowTest, BurstIsMergedByRuleInQueueOrder)
{
    ASSERT_EQ(ASOrchRegMerge(h_, &base_), 0u);
    const int64_t idle = LiveAllocations();
    static char shared[] = "zz";
    uint32_t key4 = 4u;
    ASOrchMsgVec noData{0x10u, 0u, &key4, 4u, shared, 0u, 0u, nullptr};
    EXPECT_EQ(ASOrchMsgMerge(h_, 0u, &noData), 0u);
    // 1 then 0 gives 2 in place; 3 stays 3; on pending age information no rule applies.
    const std::tuple<uint32_t, uint32_t, const char *> burst[] = {{1, 1, "a"}, {2, 0, "b"}, {1, 0, "cc"}, {3, 0, "d"},
                                                                  {3, 3, "e"}, {5, 1, "f"}, {5, 3, "g"},  {5, 1, "h"}};
    for (const auto &[key, op, data] : burst) {
        EXPECT_EQ(Write(0u, 0x10u, op, key, data), 0u);
    }
    EXPECT_EQ(LiveAllocations(), idle + 5);  // one block per pending key
    EXPECT_EQ(g_calls.size(), 0u);
    RIX_TEST_EalRunUntilIdle(eal_, 0u);
    std::string got;
    for (const Call &c : g_calls) {
        got += std::to_string(c.key) + ":" + std::to_string(c.opType) + ":" + c.data + " ";
    }
    EXPECT_EQ(got, "4:0: 1:2:cc 2:0:b 3:3:e 5:1:h ") << DumpLines();
    ExpectLines({"Orch autosync merge notify is ageinfo error, msgId 16", "Orch autosync merge notify get rule error"});
    EXPECT_EQ(g_calls[0].dataPtr, shared);  // nothing copied for an empty body
    EXPECT_EQ(LiveAllocations(), idle);

    // Type 2 moves an update behind the others; type 0 leaves it in place.
    for (uint32_t type : {2u, 0u}) {
        g_calls.clear();
        for (uint32_t k : {1u, 2u, 3u, 1u}) {
            Write(type, 0x10u, 0u, k);
        }
        RIX_TEST_EalRunUntilIdle(eal_, 0u);
        EXPECT_EQ(Keys(), type == 2u ? (std::vector<uint32_t>{2u, 3u, 1u}) : (std::vector<uint32_t>{1u, 2u, 3u}));
    }
    g_calls.clear();
    for (uint32_t k = 0; k < 70u; ++k) {
        Write(1u, 0x20u, 0u, k);
    }
    RIX_TEST_LogClear();
    RIX_TEST_EalRunUntilIdle(eal_, 0u);
    std::vector<uint32_t> firstArrival(70u);
    std::iota(firstArrival.begin(), firstArrival.end(), 0u);
    EXPECT_EQ(Keys(), firstArrival);
    EXPECT_EQ(g_calls.back().table, 1);
    const std::vector<std::string> lines = rixtest::Lines();
    std::vector<std::string> counts;
    std::copy_if(lines.begin(), lines.end(), std::back_inserter(counts),
                 [](const std::string &l) { return l.find("read FES merge msg count") == 0u; });
    EXPECT_EQ(counts, (std::vector<std::string>{"read FES merge msg count 32 finished.",
                                                "read FES merge msg count 32 finished.",
                                                "read FES merge msg count 6 finished."}));
    EXPECT_EQ(LiveAllocations(), idle);
}

TEST_F(MergeFlowTest, ImmediateFailedHeldAndRefusedMessagesReleaseEverything)
{
    EXPECT_EQ(Write(4u, 0x10u, 0u, 1u), 1u);  // before registration
    EXPECT_TRUE(HasLine("[mflow] from broker ipc msg dispatch proc failed! mergeHandle is NULL"));
    EXPECT_EQ(ASOrchMergeBackPress(nullptr, 0u), 0u);
    base_.mergeMque[1].hashFunc = nullptr;
    ASSERT_EQ(ASOrchRegMerge(h_, &base_), 0u);
    // A back-pressed reader holds delivery until released; FES was never built.
    EXPECT_EQ(ASOrchMergeBackPress(h_, 1u), 1u);
    EXPECT_EQ(ASOrchMergeUnBackPress(h_, 7u), 1u);
    EXPECT_EQ(ASOrchMergeBackPress(h_, 0u), 0u);
    Write(0u, 0x10u, 0u, 1u);
    RIX_TEST_EalRunUntilIdle(eal_, 0u);
    EXPECT_EQ(g_calls.size(), 0u);
    EXPECT_EQ(ASOrchMergeUnBackPress(h_, 0u), 0u);
    EXPECT_EQ(ASOrchMergeUnBackPress(h_, 0u), 1u);
    RIX_TEST_EalRunUntilIdle(eal_, 0u);
    EXPECT_EQ(g_calls.size(), 1u);
    const int64_t idle = LiveAllocations();
    EXPECT_EQ(Write(4u, 0x10u, 2u, 1u), 0u);
    ASSERT_EQ(g_calls.size(), 2u);  // at once, nothing copied
    EXPECT_EQ(LiveAllocations(), idle);
    EXPECT_EQ(Write(9u, 0x20u, 0u, 1u), 1u);  // FES never built
    EXPECT_EQ(Write(4u, 0x11u, 1u, 1u), 1u);
    EXPECT_EQ(Write(4u, 0x10u, 4u, 1u), 1u);
    g_procResult = 7u;
    EXPECT_EQ(Write(4u, 0x10u, 0u, 1u), 1u);
    ExpectLines({"OrchGetMergeMsg unknown msgId 32.", "[mflow] msg proc Not merge failed! msgId:32, opType:0",
                 "mflow, Orch RecvDispatch process fail. msgid = 17, optType = 1. msgProc = 0",
                 "RecvDispatch fail. msgId 17, opType 1.", "RecvDispatch fail. msgId 16, opType 4.",
                 "mflow, Orch RecvDispatch process fail. msgid = 16, optType = 0. msgProc = 1"});

    // Queued vectors that fail are dropped with their blocks.
    RIX_TEST_LogClear();
    EXPECT_EQ(Write(0u, 0x10u, 0u, 1u), 0u);
    EXPECT_EQ(Write(0u, 0x20u, 0u, 2u), 0u);
    RIX_TEST_EalRunUntilIdle(eal_, 0u);
    ExpectLines({"[mflow 0] from broker ipc msg proc failed! msgId:16, opType:0",
                 "[mflow 0] from broker ipc msg proc failed! msgId:32, opType:0",
                 "mflow_DAM read 2 msgVec callBack proc failed!"});
    EXPECT_EQ(LiveAllocations(), idle);

    EXPECT_EQ(ASOrchMsgMerge(nullptr, 0u, nullptr), 1u);
    EXPECT_TRUE(HasLine("Orch autosync send merge msg handle is NULL"));

    // Refused writes release their copy; an empty key allocates nothing.
    const uint64_t allocs = rixtest::GetAllocStats().allocs;
    ASOrchMsgVec empty{0x10u, 0u, nullptr, 0u, nullptr, 0u, 0u, nullptr};
    EXPECT_EQ(ASOrchMsgMerge(h_, 0u, &empty), 1u);
    EXPECT_EQ(rixtest::GetAllocStats().allocs, allocs);
    rixtest::FailAllocNth(1u);
    EXPECT_EQ(Write(0u, 0x10u, 0u, 1u), 1u);
    RIX_TEST_FailNth("LITE_HASH_NewData", 1u);
    EXPECT_EQ(Write(0u, 0x10u, 0u, 1u), 1u);
    ExpectLines({"mflow, Orch auto sync merge msg failed. key size is 0",
                 "mflow, Orch auto sync merge msg failed. malloc fail",
                 "mflow, Orch auto sync merge msg failed. write mqueue fail"});
    EXPECT_EQ(LiveAllocations(), idle);

    // A batch from a sync group: one result per record, the empty one fails.
    uint32_t k1 = 1u, k3 = 3u;
    ASOrchSyncGrpData items[3] = {{&k1, 0u, 9u}, {nullptr, 0u, 9u}, {&k3, 0u, 9u}};
    ASOrchMsgVec vec{0x10u, 0u, nullptr, 4u, nullptr, 4u, 0u, nullptr};
    ASOrchMergeSyncGrpDatas(0u, items, &vec, 0u, h_);
    EXPECT_EQ(items[0].result, 9u);
    ASOrchMergeSyncGrpDatas(3u, items, &vec, 0u, h_);
    EXPECT_EQ(items[0].result, 0u);
    EXPECT_EQ(items[1].result, 0x10004u);
    EXPECT_EQ(items[2].result, 0u);
    EXPECT_TRUE(HasLine("MergeSyncGrpDatas error, i = 1. msgId 16."));
    // Left pending: destruction releases both blocks (checked in TearDown).
}

// The queue's copy of a merged vector fails: the write says so, the pending record is
// delivered as it was, and every block goes back once.
TEST_F(MergeFlowTest, AMergeWhoseCopyFailsKeepsThePendingRecordWhole)
{
    ASSERT_EQ(ASOrchRegMerge(h_, &base_), 0u);
    const int64_t idle = LiveAllocations();
    ASSERT_EQ(Write(0u, 0x10u, 0u, 7u, "old"), 0u);
    ASSERT_EQ(Write(0u, 0x10u, 0u, 8u, "x"), 0u);
    // The queue's own copy is the last bounded copy of a merge.
    const uint32_t before = RIX_TEST_CallCount("memcpy_s");
    ASSERT_EQ(Write(0u, 0x10u, 0u, 8u, "y"), 0u);
    const uint32_t perMerge = RIX_TEST_CallCount("memcpy_s") - before;
    ASSERT_GE(perMerge, 1u);
    RIX_TEST_FailNth("memcpy_s", perMerge);
    EXPECT_EQ(Write(0u, 0x10u, 1u, 7u, "new"), 1u);
    ExpectLines({"mflow_DAM failed to copy merged data", "mflow, Orch auto sync merge msg failed. write mqueue fail"});
    EXPECT_EQ(LiveAllocations(), idle + 2);
    RIX_TEST_EalRunUntilIdle(eal_, 0u);
    ASSERT_EQ(g_calls.size(), 2u);
    EXPECT_EQ(g_calls[0].key, 7u);
    EXPECT_EQ(g_calls[0].opType, 0u);
    EXPECT_EQ(g_calls[0].data, "old");
    EXPECT_EQ(g_calls[1].data, "y");
    EXPECT_EQ(LiveAllocations(), idle);
}

TEST_F(MergeFlowTest, WaterMarksThrottleChannelOrSyncGroup)
{
    base_.mergeMque[0].highWater = 3u;
    base_.mergeMque[0].lowWater = 2u;
    ASSERT_EQ(ASOrchRegMerge(h_, &base_), 0u);
    const char *warn = "mflow, mb mque high water. suggest config syncGrp sync thread";
    auto burst = [&] {
        for (uint32_t k = 0; k < 4u; ++k) {
            Write(0u, 0x10u, 0u, k);
        }
    };
    burst();
    EXPECT_EQ(RIX_TEST_ChanBackPressed(eal_, 0u), 1u);
    EXPECT_TRUE(HasLine(warn));
    EXPECT_TRUE(HasLine("Orch autosync MQUE monitor : 0, channelId 0."));
    RIX_TEST_EalRunUntilIdle(eal_, 0u);
    EXPECT_EQ(RIX_TEST_ChanBackPressed(eal_, 0u), 0u);
    h_->threadMask = 3u;  // with a SYNC thread only the back-press
    burst();
    EXPECT_EQ(RIX_TEST_ChanBackPressed(eal_, 0u), 1u);
    EXPECT_EQ(CountContaining(warn), 1u);
    RIX_TEST_EalRunUntilIdle(eal_, 0u);

    RIX_TEST_EalSetMbRole(eal_, 0u);
    burst();
    EXPECT_TRUE(HasLine("mflow, Monitor HighWater sync groupid Fail")) << DumpLines();
    RIX_TEST_EalRunUntilIdle(eal_, 0u);
    EXPECT_TRUE(HasLine("mflow, Monitor LowWater sync groupid Fail"));
    base_.threadMask = 1u;
    base_.syncGrpMsgSet[0] = 1u;
    ASSERT_EQ(ASOrchRegSyncGrpBase(h_, &base_), 0u) << DumpLines();
    const int32_t grp = ASOrchGetSyncGrpId(h_, 0u);
    burst();
    EXPECT_EQ(RIX_TEST_EalSyncBackPressed(eal_, static_cast<uint32_t>(grp)), 1u);
    RIX_TEST_EalRunUntilIdle(eal_, 0u);
    EXPECT_EQ(RIX_TEST_EalSyncBackPressed(eal_, static_cast<uint32_t>(grp)), 0u);
    EXPECT_EQ(g_calls.size(), 16u);
}

TEST_F(MergeFlowTest, StartedDataThreadDrainsWhatWasWritten)
{
    base_.threadMask = 1u;
    base_.syncGrpMsgSet[0] = 1u;
    base_.chanPort[0].realServerPort = 9000u;
    ASSERT_EQ(ASOrchRegBase(h_, &base_), 0u) << DumpLines();
    for (uint32_t k = 0; k < 40u; ++k) {
        Write(k % 2u, k % 2u ? 0x20u : 0x10u, 0u, k);
    }
    ASSERT_EQ(ASOrchInit(h_), 0u);
    ASSERT_EQ(ASOrchStart(h_), 0u);
    ASSERT_EQ(RIX_TEST_EalWaitIdle(eal_, 0u, 5000u), 0u);
    EXPECT_EQ(g_calls.size(), 40u);
}

}  // namespace
