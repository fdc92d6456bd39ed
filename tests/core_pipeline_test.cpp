// The base registration pipeline on the stand-in platform.
#include <set>
#include <string>
#include <vector>

#include "test_support.h"

namespace {

using rixtest::HasLine;

const char *const kStepNames[] = {"RegThread", "ModStateRsp", "SyncGroup", "ReservePort",
                                  "channel",   "TblMsg",      "MergeMQue"};

std::vector<std::string> PipelineLines()
{
    std::vector<std::string> out;
    for (const std::string &l : rixtest::Lines()) {
        if (l.find("Register Orch autosync base") != std::string::npos ||
            l.find("register base success") != std::string::npos) {
            out.push_back(l);
        }
    }
    return out;
}

class PipelineTest : public rixtest::PlatformTest {
protected:
    void SetUp() override
    {
        PlatformTest::SetUp();
        para_ = rixtest::CountingCreatePara();
        base_.threadMask = 7u;
        base_.modStateRsp[0] = 0x51u;
        base_.modStateRsp[1] = 0x52u;
        base_.syncGrpMsgSet[0] = 0x60u;
        base_.syncGrpMsgSet[3] = 0x63u;
        base_.reservePort[0] = 0x71u;
        base_.reservePort[1] = 0x72u;
        base_.chanPort[0] = {5000u, 1u};
        base_.chanPort[1] = {5001u, 2u};
        base_.chanPort[2] = {5002u, 3u};
        base_.chanPort[3] = {5003u, 4u};
        recv_.msgId = 0x100u;
        recv_.ipcSize = 8u;
        trans_.tableId = 5u;
        trans_.tblSize = 8u;
        mergeMsg_.msgId = 0x100u;
        base_.recvTblMsg[0] = {&recv_, 1u};
        base_.transTblMsg[1] = {&trans_, 1u};
        base_.mergeMque[0].mergeMsg = &mergeMsg_;
        base_.mergeMque[0].mergeMsgNum = 1u;
        base_.mergeMque[0].hashSize = 64u;
        base_.mergeMque[0].hashFunc = [](const void *) -> uint32_t { return 0u; };
        base_.mergeMque[0].highWater = 100u;
        base_.mergeMque[0].lowWater = 10u;
    }
    ASOrchHandle *Create()
    {
        ASOrchHandle *h = ASOrchCreate("DEMO", &para_);
        RIX_TEST_LogClear();
        return h;
    }
    // Destruction returns everything whatever the pipeline left.
    void DestroyAndCheck(ASOrchHandle *h)
    {
        ASOrchDestroy(h);
        EXPECT_EQ(0, rixtest::LiveAllocations()) << rixtest::DumpLines();
        EXPECT_EQ(0u, RIX_TEST_EalLiveCount());
        EXPECT_EQ(0u, AutoSyncNameExisted("DEMO"));
    }
    ASOrchCreatePara para_{};
    ASOrchBasePara base_{};
    ASOrchTblMsgRecvCtrl recv_{};
    ASOrchTblMsgTransCtrl trans_{};
    ASOrchMergeMsg mergeMsg_{};
};

TEST_F(PipelineTest, CompleteRecordRegistersEverythingInOrder)
{
    ASOrchHandle *h = Create();
    ASSERT_NE(nullptr, h);
    void *eal = h->ealHdl;
    ASSERT_EQ(0u, ASOrchRegBase(h, &base_)) << rixtest::DumpLines();
    std::vector<std::string> want;
    for (const char *step : kStepNames) {
        want.push_back(std::string("DEMO, Register Orch autosync base, ") + step + " ok");
    }
    want.push_back("DEMO, Orch autosync register base success");
    EXPECT_EQ(want, PipelineLines());

    EXPECT_EQ(3u, RIX_TEST_EalThreadCount(eal));
    EXPECT_EQ(7u, h->threadMask);
    uint32_t w0 = 0, w1 = 0;
    EXPECT_EQ(1u, RIX_TEST_EalModStateRsp(eal, &w0, &w1));
    EXPECT_EQ(0x51u, w0);
    EXPECT_EQ(0x52u, w1);
    ASSERT_EQ(2u, RIX_TEST_EalSyncGrpCount(eal));
    EXPECT_EQ(1u, RIX_TEST_EalSyncGrp(eal, 1u)->grpId);
    EXPECT_EQ(2u, RIX_TEST_EalSyncGrp(eal, 1u)->commThreadId);  // row 3's defaults
    ASSERT_EQ(4u, RIX_TEST_EalChanCount(eal));
    const char *names[] = {"DEMO_DATA_DAM", "DEMO_DATA_FES", "DEMO_DATA_UP", "DEMO_EVT"};
    for (uint32_t i = 0; i < 4u; ++i) {
        EXPECT_STREQ(names[i], RIX_TEST_EalChan(eal, i)->chanName);
        EXPECT_EQ(i + 1u, RIX_TEST_EalChan(eal, i)->word29);
    }
    EXPECT_EQ(2u, RIX_TEST_EalChan(eal, 3u)->recvThreadId);
    DestroyAndCheck(h);
}

TEST_F(PipelineTest, AFailingStepStopsThePipelineThere)
{
    struct Case {
        size_t step;
        const char *op;
        uint32_t nth;
    } cases[] = {{0, "RIX_EAL_RegThread", 1u},     {1, "RIX_EAL_RegModStateRsp", 1u},
                 {2, "RIX_EAL_RegSyncGrpMsgSet", 2u}, {3, "RIX_EAL_ReservePort", 1u},
                 {4, "RIX_EAL_RegUcChannel", 3u}};
    for (const Case &c : cases) {
        SCOPED_TRACE(kStepNames[c.step]);
        RIX_TEST_Reset();
        RIX_TEST_LogCapture(1);
        rixtest::ResetAllocStats();
        ASOrchHandle *h = Create();
        ASSERT_NE(nullptr, h);
        RIX_TEST_FailNth(c.op, c.nth);
        EXPECT_EQ(1u, ASOrchRegBase(h, &base_));
        std::vector<std::string> want;
        for (size_t i = 0; i < c.step; ++i) {
            want.push_back(std::string("DEMO, Register Orch autosync base, ") + kStepNames[i] + " ok");
        }
        want.push_back(std::string("DEMO, Register Orch autosync base Fail, ") + kStepNames[c.step] + " fail");
        EXPECT_EQ(want, PipelineLines()) << rixtest::DumpLines();
        DestroyAndCheck(h);
    }

    // Ordinary input that fails: no DATA thread; nothing else runs or logs.
    RIX_TEST_Reset();
    RIX_TEST_LogCapture(1);
    ASOrchHandle *h = Create();
    base_.threadMask = 6u;
    EXPECT_EQ(1u, ASOrchRegBase(h, &base_));
    EXPECT_EQ((std::vector<std::string>{"DEMO, set threads fail, has not Data thread",
                                         "DEMO, Register Orch autosync base Fail, RegThread fail"}),
              rixtest::Lines());
    DestroyAndCheck(h);

    EXPECT_EQ(1u, ASOrchRegBase(nullptr, &base_));
    EXPECT_TRUE(HasLine("Register Orch autosync base Fail, Param is Null"));
}

TEST_F(PipelineTest, EveryAllocationFailureLeavesAReleasableHandle)
{
    // Fail each allocation of the pipeline in turn until one run needs no more.
    std::set<std::string> failedSteps;
    for (uint64_t n = 1; n < 200u; ++n) {
        SCOPED_TRACE(n);
        RIX_TEST_Reset();
        RIX_TEST_LogCapture(1);
        rixtest::ResetAllocStats();
        ASOrchHandle *h = Create();
        ASSERT_NE(nullptr, h);
        rixtest::FailAllocNth(n);
        const uint32_t ret = ASOrchRegBase(h, &base_);
        const bool allocFailed = rixtest::GetAllocStats().failed != 0u;
        rixtest::FailAllocNth(0);
        const std::vector<std::string> lines = PipelineLines();
        ASSERT_FALSE(lines.empty());
        if (ret == 0u) {
            EXPECT_EQ("DEMO, Orch autosync register base success", lines.back());
        } else {
            const std::string prefix = "DEMO, Register Orch autosync base Fail, ";
            ASSERT_EQ(0u, lines.back().rfind(prefix, 0)) << lines.back();
            failedSteps.insert(lines.back().substr(prefix.size()));
        }
        DestroyAndCheck(h);
        if (!allocFailed) {
            break;
        }
    }
    EXPECT_EQ((std::set<std::string>{"SyncGroup fail", "TblMsg fail", "MergeMQue fail"}), failedSteps);
}

}  // namespace
