// The base registration pipeline on the stand-in platform.
#include <string>
#include <vector>

#include "test_support.h"

namespace {

using Strings = std::vector<std::string>;
using Rets = std::vector<uint32_t>;

const char *const kStepNames[] = {"RegThread", "ModStateRsp", "SyncGroup", "ReservePort",
                                  "channel",   "TblMsg",      "MergeMQue"};
const std::string kOk = "DEMO, Register Orch autosync base, ", kFail = "DEMO, Register Orch autosync base Fail, ";

Strings PipelineLines()
{
    Strings out;
    for (const std::string &l : rixtest::Lines()) {
        if (l.find("Register Orch autosync base") != std::string::npos ||
            l.find("register base success") != std::string::npos) {
            out.push_back(l);
        }
    }
    return out;
}

class PipelineTest : public rixtest::OrchTest {
protected:
    PipelineTest()
    {
        recv_.msgId = mergeMsg_.msgId = 0x100u;
        recv_.ipcSize = trans_.tblSize = 8u;
        trans_.tableId = 5u;
        base_ = {.threadMask = 7u,
                 .modStateRsp = {0x51u, 0x52u},
                 .syncGrpMsgSet = {0x60u, 0u, 0u, 0x63u},
                 .reservePort = {0x71u, 0x72u},
                 .chanPort = {{5000u, 1u}, {5001u, 2u}, {5002u, 3u}, {5003u, 4u}},
                 .recvTblMsg = {{&recv_, 1u}},
                 .transTblMsg = {{}, {&trans_, 1u}},
                 .mergeMque = {{&mergeMsg_, 1u, 64u, [](const void *) { return 0u; }, 100u, 10u}}};
    }
    ASOrchTblMsgRecvCtrl recv_{};
    ASOrchTblMsgTransCtrl trans_{};
    ASOrchMergeMsg mergeMsg_{};
};

// Platform refusals, and allocation failures (op null: the nth allocation of the pipeline, the
// last one of the sync-group step, of the receive registry and of the merge queues).
TEST_F(PipelineTest, StepsRunInOrderAndAFailingStepStopsThePipelineThere)
{
    const struct {
        size_t step;  // the failing step; 7: none
        const char *op;
        uint32_t nth;
        uint32_t mask;
    } cases[] = {{7, "", 0u, 7u},
                 {0, "", 0u, 6u},  // a complete record; no DATA thread
                 {0, "RIX_EAL_RegThread", 1u, 7u},
                 {1, "RIX_EAL_RegModStateRsp", 1u, 7u},
                 {2, "RIX_EAL_RegSyncGrpMsgSet", 2u, 7u},
                 {3, "RIX_EAL_ReservePort", 1u, 7u},
                 {4, "RIX_EAL_RegUcChannel", 3u, 7u},
                 {2, nullptr, 3u, 7u},
                 {5, nullptr, 7u, 7u},
                 {6, nullptr, 11u, 7u}};
    for (const auto &c : cases) {
        SCOPED_TRACE(c.step);
        Recreate();
        c.op != nullptr ? RIX_TEST_FailNth(c.op, c.nth) : rixtest::FailAllocNth(c.nth);
        base_.threadMask = c.mask;
        EXPECT_EQ(c.step < 7u ? 1u : 0u, ASOrchRegBase(h_, &base_));
        Strings want;
        for (size_t i = 0; i < c.step; ++i) {
            want.push_back(kOk + kStepNames[i] + " ok");
        }
        want.push_back(c.step < 7u ? kFail + kStepNames[c.step] + " fail"
                                   : "DEMO, Orch autosync register base success");
        EXPECT_EQ(want, PipelineLines()) << rixtest::DumpLines();
        uint32_t w0 = 0, w1 = 0;
        if (c.step == 7u) {
            EXPECT_EQ(1u, RIX_TEST_EalModStateRsp(eal_, &w0, &w1));
            EXPECT_EQ((Rets{3u, 0x51u, 0x52u, 2u, 4u}),
                      (Rets{RIX_TEST_EalThreadCount(eal_), w0, w1, RIX_TEST_EalSyncGrpCount(eal_),
                            RIX_TEST_EalChanCount(eal_)}));
        }
    }
    EXPECT_EQ(1u, ASOrchRegBase(nullptr, &base_));
    EXPECT_TRUE(rixtest::HasLine("Register Orch autosync base Fail, Param is Null"));
}

}  // namespace
