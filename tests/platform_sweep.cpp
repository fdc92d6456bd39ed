// Platform-failure sweep: every stand-in operation the scenario calls, failed at each of its
// calls in turn, each run in its own process. No run may crash, leak or break a promise.
// RIX_SWEEP_SITE=memcpy_s:40 repeats one run in the test's own process.
//
// Left out: ZUL_AVL3_Find and ZUL_AVL3_Delete. A find that misses a name that is in the tree,
// or a delete that leaves a freed queue's node linked, corrupts the platform's own tree; the
// library cannot tell such a failure from the truth and has nothing to defend with.
// A failing LITE_HASH_DeleteHash keeps its own table: exactly that one table (with the blocks in
// it) may stay, and nothing else (the library has asked for its release and holds no other way
// to free it).
#include <cstdlib>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "scenario.h"
#include "test_support.h"

namespace {

const char *const kOps[] = {"memcpy_s",
                            "memset_s",
                            "strcpy_s",
                            "strcat_s",
                            "sprintf_s",
                            "vsprintf_s",
                            "FRM_DiagLogWrite",
                            "COMP_GetVTable",
                            "LITE_HASH_CreateWithLock",
                            "LITE_HASH_DeleteHash",
                            "LITE_HASH_NewData",
                            "LITE_HASH_FreeData",
                            "LITE_HASH_AddNode",
                            "LITE_HASH_FindNodeFromFirst",
                            "LITE_HASH_RemoveNodeByKey",
                            "LITE_HASH_GetListCntByKey",
                            "LITE_HASH_GetHashCnt",
                            "ZUL_AVL3_Insert_Or_Find",
                            "ZUL_AVL3_First",
                            "ZUL_AVL3_Next",
                            "RIX_EPOLL_Add",
                            "RIX_EPOLL_DEL",
                            "eventfd_s",
                            "RIX_TIMER_Create",
                            "RIX_EAL_Create",
                            "RIX_EAL_Init",
                            "RIX_EAL_Start",
                            "RIX_EAL_ModInitOk",
                            "RIX_EAL_Destroy",
                            "RIX_EAL_GetEpollFd",
                            "RIX_EAL_SetOndemandParam",
                            "RIX_EAL_RegModStateRsp",
                            "RIX_EAL_RegUcChannel",
                            "RIX_EAL_RegThread",
                            "RIX_EAL_SelfRoleIsMb",
                            "RIX_EAL_ReservePort",
                            "RIX_EAL_GetChannelHdl",
                            "RIX_EAL_RegSyncGroup",
                            "RIX_EAL_RegSyncGrpMsgSet",
                            "RIX_EAL_SetSyncGrpFlowCtl",
                            "RIX_EAL_SyncMsg",
                            "RIX_EAL_SyncBackPress",
                            "RIX_EAL_SyncUnBackPress",
                            "RIX_CHAN_USendMsg",
                            "RIX_CHAN_BackPress",
                            "RIX_CHAN_UnBackPress",
                            "RIX_ENTRY_ProcVrfStateBegin",
                            "RIX_ENTRY_ProcVrfStateEnd",
                            "RIX_ENTRY_ProcVrfState",
                            "RIX_ENTRY_ProcVrfDataBegin",
                            "RIX_ENTRY_ProcVrfDataEnd",
                            "RIX_ENTRY_ProcPidState"};

TEST(PlatformSweep, EveryPlatformCallFailingInTurnLeavesNothing)
{
    // RIX_SWEEP_SITE=op:n repeats one run in this process, for a debugger.
    if (const char *site = std::getenv("RIX_SWEEP_SITE"); site != nullptr) {
        const std::string s(site);
        const std::string op = s.substr(0, s.find(':'));
        const uint32_t n = static_cast<uint32_t>(std::stoul(s.substr(s.find(':') + 1)));
        EXPECT_EQ(rixtest::RunScenarioHere([&] { RIX_TEST_FailNth(op.c_str(), n); }), 0);
        return;
    }
    const rixtest::ChildOutcome base = rixtest::RunScenarioInChild([] {}, true,
                                                                   [] {
                                                                       std::ostringstream out;
                                                                       for (const char *op : kOps)
                                                                           out << RIX_TEST_CallCount(op) << ' ';
                                                                       return out.str();
                                                                   });
    ASSERT_EQ(base.kind, rixtest::ChildOutcome::Ok) << "the scenario without failures:\n" << base.detail;
    std::istringstream in(base.payload);
    std::vector<uint32_t> calls;
    for (uint32_t c; in >> c;)
        calls.push_back(c);
    ASSERT_EQ(calls.size(), std::size(kOps));

    rixtest::SweepTally tally;
    uint32_t sites = 0, ops = 0;
    for (size_t i = 0; i < calls.size(); ++i) {
        ops += calls[i] != 0u;
        for (uint32_t n = 1; n <= calls[i]; ++n, ++sites) {
            const char *op = kOps[i];
            const uint32_t kept = std::string(op) == "LITE_HASH_DeleteHash" ? 1u : 0u;
            tally.Add(rixtest::RunScenarioInChild([op, n] { RIX_TEST_FailNth(op, n); }, false, {}, kept),
                      std::string(op) + " call " + std::to_string(n) + " failing");
        }
    }
    const std::string found = std::to_string(sites) + " sites (" + std::to_string(ops) + " operations)";
    EXPECT_TRUE(tally.Report("platform sweep", found));
    EXPECT_GT(ops, 30u) << "the scenario reaches too few platform operations";
}

}  // namespace
