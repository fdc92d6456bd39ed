// Sync groups: rows handed to the layer, numbering, message sets, flow control, sending.
#include <cstring>
#include <string>
#include <vector>

#include "test_support.h"

namespace {

using rixtest::HasLine;
using rixtest::Lines;
using Strings = std::vector<std::string>;
using Rets = std::vector<uint32_t>;

void Notify() {}

class SyncGrpTest : public rixtest::OrchTest {
protected:
    void SetUp() override
    {
        OrchTest::SetUp();
        base_.threadMask = 7u;
    }
};

TEST_F(SyncGrpTest, SelectedGroupsAreRenumberedRegisteredAndAddressed)
{
    base_.syncGrpMsgSet[0] = 0x50u;
    base_.syncGrpMsgSet[2] = 0x52u;
    ASSERT_EQ(0u, ASOrchRegSyncGrpBase(h_, &base_));
    ASSERT_NE(nullptr, h_->syncGrpRes);
    EXPECT_EQ((Rets{5u, 2u}), (Rets{h_->syncGrpRes->grpBitmap, h_->syncGrpRes->grpNum}));
    EXPECT_EQ((std::vector<int32_t>{0, -1, 1, -1}),
              (std::vector<int32_t>{ASOrchGetSyncGrpId(h_, 0u), ASOrchGetSyncGrpId(h_, 1u), ASOrchGetSyncGrpId(h_, 2u),
                                    ASOrchGetSyncGrpId(h_, 3u)}));

    // Row 1 carries the defaults of logical group 2 under the layer's id 1.
    ASSERT_EQ(2u, RIX_TEST_EalSyncGrpCount(eal_));
    const RIX_EAL_SyncGrpPara *r = RIX_TEST_EalSyncGrp(eal_, 1u);
    EXPECT_EQ((Rets{1u, 1u, 30u, 2u, 1u, 0u, 0x3FFFFFFFu, 1u, 100u, 1u, 2000u, 50u, 50u}),
              (Rets{r->grpId, r->attr1, r->attr2, r->logicThreadId, r->commThreadId, r->attr5, r->attr6, r->attr7,
                    r->attr8, r->attr9, r->verifyInterVal, r->attr11, r->attr12}));
    EXPECT_EQ(nullptr, r->notifyFunc);
    ASSERT_EQ(2u, RIX_TEST_EalMsgSetCount(eal_));
    uint32_t grp = 9u, set = 0u, count = 0u;
    RIX_TEST_EalMsgSet(eal_, 1u, &grp, &set);
    EXPECT_EQ((Rets{1u, 0x52u}), (Rets{grp, set}));

    // Without settings only group 0 gets flow control, the default record.
    ASSERT_EQ(1u, RIX_TEST_EalFlowCtlCount(eal_));
    const RIX_EAL_FlowCtl *fc = RIX_TEST_EalFlowCtl(eal_, 0u, &grp);
    EXPECT_EQ(0u, grp);
    const uint32_t def[12] = {0u, 0u, 0u, 0u, 0u, 0u, 65536u, 51200u, 25600u, 0u, 0u, 0u};
    EXPECT_EQ(0, std::memcmp(def, fc->word, sizeof(def)));
    EXPECT_EQ((Strings{"DEMO, Register Orch autosync malloc syncGrpRes ok",
                       "Sync group id 0 set ok. logicThreadId = 0, commThreadId = 1",
                       "Sync group id 1 set ok. logicThreadId = 2, commThreadId = 1",
                       "DEMO, Sync group set base group ok.",
                       "DEMO, syncGrpId = 0, auto sync register SyncGroupMsgSet ok.",
                       "DEMO, syncGrpId = 1, auto sync register SyncGroupMsgSet ok.",
                       "DEMO, Orch auto sync Register SyncGroup base ok."}),
              Lines());

    // Sending by logical group, and by position after the base groups.
    RIX_TEST_LogClear();
    RIX_EAL_SyncItem items[3] = {{"a", 1u}, {"b", 1u}, {"c", 1u}};
    auto last = [&] {
        RIX_TEST_EalSyncMsgLast(eal_, &grp, &count);
        return Rets{grp, count};
    };
    EXPECT_EQ(0u, ASOrchSyncMsg(h_, 2u, items));
    EXPECT_EQ((Rets{1u, 1u}), last());
    EXPECT_EQ(0u, ASOrchSyncBatchMsg(h_, 0u, items, 3u));
    EXPECT_EQ((Rets{0u, 3u}), last());
    EXPECT_EQ(0u, ASOrchSyncMsgToGrp(h_, 1u, items));
    EXPECT_EQ((Rets{3u, 1u}), last());
    EXPECT_EQ((Rets{1u, 1u}), (Rets{ASOrchSyncMsg(h_, 1u, items), ASOrchSyncMsg(h_, 4u, items)}));
    EXPECT_EQ(3u, RIX_TEST_EalSyncMsgCount(eal_));
    EXPECT_EQ((Strings{"DEMO, Orch autosync msg Fail, sync groupid Fail msgType = 1",
                       "DEMO, Orch autosync msg Fail, sync groupid Fail msgType = 4"}),
              Lines());
}

TEST_F(SyncGrpTest, ThreadIdsFollowTheRegisteredThreads)
{
    const struct {
        uint32_t mask;
        Rets ids;  // logic, comm for rows 0..3
    } table[] = {{1u, {0, 0, 0, 0, 0, 0, 0, 0}},
                 {3u, {0, 1, 0, 1, 0, 1, 0, 2}},
                 {5u, {0, 0, 0, 0, 2, 2, 2, 2}},
                 {7u, {0, 1, 0, 1, 2, 1, 2, 2}}};
    for (const auto &t : table) {
        base_.threadMask = t.mask;
        ASOrchSyncGrpPara *rows = ASOrchGetBaseSynGrpPara(h_, &base_);
        ASSERT_NE(nullptr, rows);
        Rets got;
        for (uint32_t i = 0; i < 4u; ++i) {
            got.insert(got.end(), {rows[i].logicThreadId, rows[i].commThreadId});
        }
        EXPECT_EQ(t.ids, got) << "mask " << t.mask;
        para_.memFree(rows);
    }
}

TEST_F(SyncGrpTest, ModuleSettingsOverrideDefaultsAndFlowControl)
{
    const ASOrchSynGrpFlowCtrl mine0 = {{1u, 2u, 3u, 4u, 5u, 6u, 7u, 8u, 9u, 10u, 11u, 12u}}, mine3 = {{31u}},
                               mine2 = {{21u}};
    EXPECT_EQ((Rets{0u, 0u, 0u, 0u, 0u, 0u}),
              (Rets{ASOrchAdvSetSynGrpVerifyInterVal(h_, 1u, 77u), ASOrchAdvSetSynGrpVerifyInterVal(h_, 0u, 0u),
                    ASOrchAdvSetSynGrpNotifyFunc(h_, 3u, Notify), ASOrchAdvSetSynGrpFlowCtrl(h_, 0u, &mine0),
                    ASOrchAdvSetSynGrpFlowCtrl(h_, 3u, &mine3),
                    ASOrchAdvSetSynGrpFlowCtrl(h_, 2u, &mine2)}));  // group 2 is not selected
    base_.syncGrpMsgSet[0] = 1u;
    base_.syncGrpMsgSet[1] = 2u;
    base_.syncGrpMsgSet[3] = 4u;
    ASSERT_EQ(0u, ASOrchRegSyncGrpBase(h_, &base_));

    ASSERT_EQ(3u, RIX_TEST_EalSyncGrpCount(eal_));
    const RIX_EAL_SyncGrpPara *r[3] = {RIX_TEST_EalSyncGrp(eal_, 0u), RIX_TEST_EalSyncGrp(eal_, 1u),
                                       RIX_TEST_EalSyncGrp(eal_, 2u)};
    EXPECT_EQ((Rets{2000u, 77u, 2u, 6u}), (Rets{r[0]->verifyInterVal, r[1]->verifyInterVal, r[2]->grpId, r[2]->attr1}));
    EXPECT_EQ(nullptr, r[1]->notifyFunc);
    EXPECT_EQ(reinterpret_cast<void *>(Notify), reinterpret_cast<void *>(r[2]->notifyFunc));

    ASSERT_EQ(2u, RIX_TEST_EalFlowCtlCount(eal_));
    uint32_t grp[2] = {9u, 9u};
    EXPECT_EQ(0, std::memcmp(&mine0, RIX_TEST_EalFlowCtl(eal_, 0u, &grp[0]), sizeof(mine0)));
    EXPECT_EQ(0, std::memcmp(&mine3, RIX_TEST_EalFlowCtl(eal_, 1u, &grp[1]), sizeof(mine3)));
    EXPECT_EQ((Rets{0u, 2u}), (Rets{grp[0], grp[1]}));
}

TEST_F(SyncGrpTest, WithoutResourcesSendingIsRefusedAndStepFailuresReleaseThem)
{
    int msg = 0;
    EXPECT_EQ((Rets{1u, 1u}), (Rets{ASOrchSyncMsgToGrp(h_, 0u, &msg), ASOrchSyncMsg(h_, 0u, &msg)}));
    EXPECT_EQ(-1, ASOrchGetSyncGrpId(nullptr, 0u));
    EXPECT_EQ((Strings{"DEMO, Orch autosync msg Fail, syncGrpRes is Null",
                       "DEMO, Orch autosync msg Fail, sync group res is NULL",
                       "DEMO, Orch autosync msg Fail, syncGrpRes is Null", "DEMO, Orch autosync sync group res is NULL",
                       "DEMO, Orch autosync msg Fail, sync groupid Fail msgType = 0",
                       "UNKONWN, Orch autosync msg Fail, handle is Null",
                       "UNKONWN, Orch autosync sync group res is NULL"}),
              Lines());
    EXPECT_EQ(0u, RIX_TEST_CallCount("RIX_EAL_SyncMsg"));

    base_.syncGrpMsgSet[1] = 1u;  // no message set for group 0
    EXPECT_EQ(1u, ASOrchRegSyncGrpBase(h_, &base_));
    EXPECT_TRUE(HasLine("Calc SyncGroup Fail.") && HasLine("DEMO, Sync group free res ok."));
    EXPECT_EQ(0u, RIX_TEST_CallCount("RIX_EAL_RegSyncGroup"));
    EXPECT_TRUE(h_->syncGrpRes == nullptr && rixtest::LiveAllocations() == 2);

    // The layer refusing the rows is reported and the step goes on.
    base_.syncGrpMsgSet[0] = 1u;
    RIX_TEST_FailNth("RIX_EAL_RegSyncGroup", 1u);
    EXPECT_EQ(0u, ASOrchRegSyncGrpBase(h_, &base_));
    EXPECT_TRUE(HasLine("RIX_EAL reg SyncGroup Fail.") && HasLine("DEMO, Sync group set base group fail."));
    EXPECT_EQ(2u, RIX_TEST_EalMsgSetCount(eal_));
    ASOrchFreeGrpRes(h_);

    // A refused message set, then each allocation of the step in turn.
    const Strings failLines = {"DEMO, syncGrpId = 1, auto sync reg SyncGroupMsgSet Fail.",
                               "DEMO, Register Orch autosync malloc syncGrpRes fail", "DEMO, malloc SyncGroup Fail.",
                               "malloc SyncGroup Fail."};
    for (uint32_t n = 0; n < failLines.size(); ++n) {
        SCOPED_TRACE(n);
        RIX_TEST_LogClear();
        if (n == 0u) {
            RIX_TEST_FailNth("RIX_EAL_RegSyncGrpMsgSet", 2u);
        } else {
            rixtest::FailAllocNth(n);
        }
        EXPECT_EQ(1u, ASOrchRegSyncGrpBase(h_, &base_));
        EXPECT_TRUE(HasLine(failLines[n])) << rixtest::DumpLines();
        EXPECT_EQ(nullptr, h_->syncGrpRes);
        EXPECT_EQ(2, rixtest::LiveAllocations());
    }
    EXPECT_TRUE(HasLine("DEMO, GetBaseSynGrpPara Fail."));
}

}  // namespace
