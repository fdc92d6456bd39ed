// Sync groups: rows handed to the layer, numbering, message sets, flow control, sending.
#include <cstring>
#include <string>
#include <vector>

#include "test_support.h"

namespace {

using rixtest::HasLine;

void Notify() {}

class SyncGrpTest : public rixtest::PlatformTest {
protected:
    void SetUp() override
    {
        PlatformTest::SetUp();
        para_ = rixtest::CountingCreatePara();
        h_ = ASOrchCreate("DEMO", &para_);
        ASSERT_NE(nullptr, h_);
        eal_ = h_->ealHdl;
        base_.threadMask = 7u;
        RIX_TEST_LogClear();
    }
    void TearDown() override
    {
        ASOrchDestroy(h_);
        EXPECT_EQ(0, rixtest::LiveAllocations()) << rixtest::DumpLines();
        PlatformTest::TearDown();
    }
    ASOrchCreatePara para_{};
    ASOrchHandle *h_ = nullptr;
    void *eal_ = nullptr;
    ASOrchBasePara base_{};
};

TEST_F(SyncGrpTest, SelectedGroupsAreRenumberedAndRegistered)
{
    base_.syncGrpMsgSet[0] = 0x50u;
    base_.syncGrpMsgSet[2] = 0x52u;
    ASSERT_EQ(0u, ASOrchRegSyncGrpBase(h_, &base_));
    ASSERT_NE(nullptr, h_->syncGrpRes);
    EXPECT_EQ(5u, h_->syncGrpRes->grpBitmap);
    EXPECT_EQ(2u, h_->syncGrpRes->grpNum);
    EXPECT_EQ((std::vector<int32_t>{0, -1, 1, -1}),
              (std::vector<int32_t>{ASOrchGetSyncGrpId(h_, 0u), ASOrchGetSyncGrpId(h_, 1u),
                                    ASOrchGetSyncGrpId(h_, 2u), ASOrchGetSyncGrpId(h_, 3u)}));

    ASSERT_EQ(2u, RIX_TEST_EalSyncGrpCount(eal_));
    // Row 1 carries the defaults of logical group 2 under the layer's id 1.
    ASOrchSyncGrpPara want = g_rixOrchAutoSyncGrpParam[2];
    want.grpId = 1u;
    EXPECT_EQ(0, std::memcmp(&want, RIX_TEST_EalSyncGrp(eal_, 1u), sizeof(want)));
#if ASORCH_TARGET_32BIT
    static_assert(sizeof(g_rixOrchAutoSyncGrpParam) == 224);
    const auto *raw = reinterpret_cast<const uint8_t *>(RIX_TEST_EalSyncGrp(eal_, 1u));
    const uint32_t words[14] = {1u, 1u, 30u, 2u, 1u, 0u, 0x3FFFFFFFu, 1u, 100u, 1u, 2000u, 50u, 50u, 0u};
    EXPECT_EQ(0, std::memcmp(words, raw, sizeof(words)));
#endif

    ASSERT_EQ(2u, RIX_TEST_EalMsgSetCount(eal_));
    uint32_t grp = 9u, set = 0u;
    RIX_TEST_EalMsgSet(eal_, 1u, &grp, &set);
    EXPECT_EQ(1u, grp);
    EXPECT_EQ(0x52u, set);

    // Without settings only group 0 gets flow control, the default record.
    ASSERT_EQ(1u, RIX_TEST_EalFlowCtlCount(eal_));
    const RIX_EAL_FlowCtl *fc = RIX_TEST_EalFlowCtl(eal_, 0u, &grp);
    EXPECT_EQ(0u, grp);
    const uint32_t def[12] = {0u, 0u, 0u, 0u, 0u, 0u, 65536u, 51200u, 25600u, 0u, 0u, 0u};
    EXPECT_EQ(0, std::memcmp(def, fc->word, sizeof(def)));

    EXPECT_EQ((std::vector<std::string>{
                  "DEMO, Register Orch autosync malloc syncGrpRes ok",
                  "Sync group id 0 set ok. logicThreadId = 0, commThreadId = 1",
                  "Sync group id 1 set ok. logicThreadId = 2, commThreadId = 1",
                  "DEMO, Sync group set base group ok.",
                  "DEMO, syncGrpId = 0, auto sync register SyncGroupMsgSet ok.",
                  "DEMO, syncGrpId = 1, auto sync register SyncGroupMsgSet ok.",
                  "DEMO, Orch auto sync Register SyncGroup base ok.",
              }),
              rixtest::Lines());

    // Sending by logical group and by position after the base groups.
    RIX_TEST_LogClear();
    RIX_EAL_SyncItem items[3] = {{"a", 1u}, {"b", 1u}, {"c", 1u}};
    uint32_t count = 0u;
    EXPECT_EQ(0u, ASOrchSyncMsg(h_, 2u, items));
    RIX_TEST_EalSyncMsgLast(eal_, &grp, &count);
    EXPECT_EQ(1u, grp);
    EXPECT_EQ(1u, count);
    EXPECT_EQ(0u, ASOrchSyncBatchMsg(h_, 0u, items, 3u));
    RIX_TEST_EalSyncMsgLast(eal_, &grp, &count);
    EXPECT_EQ(0u, grp);
    EXPECT_EQ(3u, count);
    EXPECT_EQ(0u, ASOrchSyncMsgToGrp(h_, 1u, items));  // the second id after the base groups
    RIX_TEST_EalSyncMsgLast(eal_, &grp, &count);
    EXPECT_EQ(3u, grp);
    EXPECT_EQ(3u, RIX_TEST_EalSyncMsgCount(eal_));
    EXPECT_EQ(1u, ASOrchSyncMsg(h_, 1u, items));
    EXPECT_EQ(1u, ASOrchSyncMsg(h_, 4u, items));
    EXPECT_EQ(3u, RIX_TEST_EalSyncMsgCount(eal_));
    EXPECT_EQ((std::vector<std::string>{"DEMO, Orch autosync msg Fail, sync groupid Fail msgType = 1",
                                         "DEMO, Orch autosync msg Fail, sync groupid Fail msgType = 4"}),
              rixtest::Lines());
}

TEST_F(SyncGrpTest, ThreadIdsFollowTheRegisteredThreads)
{
    const struct {
        uint32_t mask;
        uint32_t ids[4][2];
    } table[] = {
        {1u, {{0, 0}, {0, 0}, {0, 0}, {0, 0}}},
        {3u, {{0, 1}, {0, 1}, {0, 1}, {0, 2}}},
        {5u, {{0, 0}, {0, 0}, {2, 2}, {2, 2}}},
        {7u, {{0, 1}, {0, 1}, {2, 1}, {2, 2}}},
    };
    for (const auto &t : table) {
        SCOPED_TRACE(t.mask);
        base_.threadMask = t.mask;
        ASOrchSyncGrpPara *rows = ASOrchGetBaseSynGrpPara(h_, &base_);
        ASSERT_NE(nullptr, rows);
        for (uint32_t i = 0; i < 4u; ++i) {
            EXPECT_EQ(t.ids[i][0], rows[i].logicThreadId) << "row " << i;
            EXPECT_EQ(t.ids[i][1], rows[i].commThreadId) << "row " << i;
        }
        para_.memFree(rows);
    }
}

TEST_F(SyncGrpTest, ModuleSettingsOverrideDefaultsAndFlowControl)
{
    ASSERT_EQ(0u, ASOrchAdvSetSynGrpVerifyInterVal(h_, 1u, 77u));
    ASSERT_EQ(0u, ASOrchAdvSetSynGrpVerifyInterVal(h_, 0u, 0u));
    ASSERT_EQ(0u, ASOrchAdvSetSynGrpNotifyFunc(h_, 3u, Notify));
    const ASOrchSynGrpFlowCtrl mine0 = {{1u, 2u, 3u, 4u, 5u, 6u, 7u, 8u, 9u, 10u, 11u, 12u}};
    const ASOrchSynGrpFlowCtrl mine3 = {{31u}};
    const ASOrchSynGrpFlowCtrl mine2 = {{21u}};
    ASSERT_EQ(0u, ASOrchAdvSetSynGrpFlowCtrl(h_, 0u, &mine0));
    ASSERT_EQ(0u, ASOrchAdvSetSynGrpFlowCtrl(h_, 3u, &mine3));
    ASSERT_EQ(0u, ASOrchAdvSetSynGrpFlowCtrl(h_, 2u, &mine2));  // group 2 is not selected
    base_.syncGrpMsgSet[0] = 1u;
    base_.syncGrpMsgSet[1] = 2u;
    base_.syncGrpMsgSet[3] = 4u;
    ASSERT_EQ(0u, ASOrchRegSyncGrpBase(h_, &base_));

    ASSERT_EQ(3u, RIX_TEST_EalSyncGrpCount(eal_));
    EXPECT_EQ(2000u, RIX_TEST_EalSyncGrp(eal_, 0u)->verifyInterVal);
    EXPECT_EQ(77u, RIX_TEST_EalSyncGrp(eal_, 1u)->verifyInterVal);
    EXPECT_EQ(nullptr, RIX_TEST_EalSyncGrp(eal_, 1u)->notifyFunc);
    EXPECT_EQ(reinterpret_cast<void *>(Notify), reinterpret_cast<void *>(RIX_TEST_EalSyncGrp(eal_, 2u)->notifyFunc));
    EXPECT_EQ(2u, RIX_TEST_EalSyncGrp(eal_, 2u)->grpId);
    EXPECT_EQ(6u, RIX_TEST_EalSyncGrp(eal_, 2u)->attr1);

    ASSERT_EQ(2u, RIX_TEST_EalFlowCtlCount(eal_));
    uint32_t grp = 9u;
    EXPECT_EQ(0, std::memcmp(&mine0, RIX_TEST_EalFlowCtl(eal_, 0u, &grp), sizeof(mine0)));
    EXPECT_EQ(0u, grp);
    EXPECT_EQ(0, std::memcmp(&mine3, RIX_TEST_EalFlowCtl(eal_, 1u, &grp), sizeof(mine3)));
    EXPECT_EQ(2u, grp);
}

TEST_F(SyncGrpTest, StepFailuresReleaseTheResources)
{
    // No message set for group 0.
    base_.syncGrpMsgSet[1] = 1u;
    EXPECT_EQ(1u, ASOrchRegSyncGrpBase(h_, &base_));
    EXPECT_EQ(nullptr, h_->syncGrpRes);
    EXPECT_TRUE(HasLine("Calc SyncGroup Fail."));
    EXPECT_TRUE(HasLine("DEMO, Sync group free res ok."));
    EXPECT_EQ(0u, RIX_TEST_CallCount("RIX_EAL_RegSyncGroup"));
    EXPECT_EQ(2, rixtest::LiveAllocations());

    // The layer refuses the rows: reported, and the step goes on.
    base_.syncGrpMsgSet[0] = 1u;
    RIX_TEST_LogClear();
    RIX_TEST_FailNth("RIX_EAL_RegSyncGroup", 1u);
    EXPECT_EQ(0u, ASOrchRegSyncGrpBase(h_, &base_));
    EXPECT_TRUE(HasLine("RIX_EAL reg SyncGroup Fail."));
    EXPECT_TRUE(HasLine("DEMO, Sync group set base group fail."));
    EXPECT_EQ(2u, RIX_TEST_EalMsgSetCount(eal_));
    ASOrchFreeGrpRes(h_);

    // A refused message set stops the step at that group.
    RIX_TEST_LogClear();
    RIX_TEST_FailNth("RIX_EAL_RegSyncGrpMsgSet", 2u);
    EXPECT_EQ(1u, ASOrchRegSyncGrpBase(h_, &base_));
    EXPECT_TRUE(HasLine("DEMO, syncGrpId = 1, auto sync reg SyncGroupMsgSet Fail."));
    EXPECT_EQ(nullptr, h_->syncGrpRes);

    // Each allocation of the step in turn.
    const char *allocLines[] = {"DEMO, Register Orch autosync malloc syncGrpRes fail", "DEMO, malloc SyncGroup Fail.",
                                "malloc SyncGroup Fail."};
    for (uint32_t n = 1; n <= 3u; ++n) {
        SCOPED_TRACE(n);
        RIX_TEST_LogClear();
        rixtest::FailAllocNth(n);
        EXPECT_EQ(1u, ASOrchRegSyncGrpBase(h_, &base_));
        EXPECT_TRUE(HasLine(allocLines[n - 1u])) << rixtest::DumpLines();
        EXPECT_EQ(nullptr, h_->syncGrpRes);
        EXPECT_EQ(2, rixtest::LiveAllocations());
    }
    EXPECT_TRUE(HasLine("DEMO, GetBaseSynGrpPara Fail."));
}

TEST_F(SyncGrpTest, SendingWithoutResourcesIsRefused)
{
    int msg = 0;
    EXPECT_EQ(1u, ASOrchSyncMsgToGrp(h_, 0u, &msg));
    EXPECT_EQ(1u, ASOrchSyncMsg(h_, 0u, &msg));
    EXPECT_EQ(-1, ASOrchGetSyncGrpId(nullptr, 0u));
    EXPECT_EQ((std::vector<std::string>{
                  "DEMO, Orch autosync msg Fail, syncGrpRes is Null",
                  "DEMO, Orch autosync msg Fail, sync group res is NULL",
                  "DEMO, Orch autosync msg Fail, syncGrpRes is Null",
                  "DEMO, Orch autosync sync group res is NULL",
                  "DEMO, Orch autosync msg Fail, sync groupid Fail msgType = 0",
                  "UNKONWN, Orch autosync msg Fail, handle is Null",
                  "UNKONWN, Orch autosync sync group res is NULL",
              }),
              rixtest::Lines());
    EXPECT_EQ(0u, RIX_TEST_CallCount("RIX_EAL_SyncMsg"));
}

}  // namespace
