// Orchestrator creation and destruction, accessors, logging and the hot-patch hook.
#include <cstring>
#include <string>
#include <vector>

#include "test_support.h"

namespace {

using rixtest::HasLine;
using rixtest::Lines;
using Strings = std::vector<std::string>;

class LifecycleTest : public rixtest::PlatformTest {
protected:
    ASOrchCreatePara para_ = rixtest::CountingCreatePara();
};

// A failed creation leaves no name, no instance and no block behind.
void ExpectNothingLeft(const char *name, uint64_t allocs)
{
    EXPECT_EQ(0u, AutoSyncNameExisted(name));
    EXPECT_EQ(0u, RIX_TEST_EalLiveCount());
    EXPECT_EQ(allocs, rixtest::GetAllocStats().allocs);
    EXPECT_EQ(0, rixtest::LiveAllocations()) << rixtest::DumpLines();
}

TEST_F(LifecycleTest, CreateFillsHandleAndInstanceAndDestroyReturnsAll)
{
    RIX_TEST_SetOrchPub(RIX_TEST_ORCHPUB_OK, 3u, 5u, 0x35u);
    const char name[] = "ABCDEFGHIJKLMNO";  // 15 characters, the longest
    ASOrchHandle *h = ASOrchCreate(name, &para_);
    ASSERT_NE(nullptr, h) << rixtest::DumpLines();
    EXPECT_EQ(2, rixtest::LiveAllocations());  // name node and handle
    EXPECT_EQ(0xFFFFFFFFu, h->ondemandParam.word[0] & h->ondemandParam.word[1]);
    EXPECT_EQ(0u, h->threadMask);
    EXPECT_TRUE(h->syncGrpRes == nullptr && h->mergeHandle == nullptr && h->tblMsgRecvHash == nullptr &&
                h->tblMsgTransHash == nullptr);
    const RIX_EAL_CreatePara *cp = RIX_TEST_EalCreatePara(h->ealHdl);
    EXPECT_STREQ(name, RIX_TEST_EalName(h->ealHdl));
    EXPECT_EQ(0x35u, cp->orchId);
    EXPECT_EQ(0x11u, cp->para1);
    EXPECT_EQ(0x22u, cp->para2);
    EXPECT_EQ(reinterpret_cast<void *>(rixtest::CountingFree), reinterpret_cast<void *>(cp->memFree));
    EXPECT_EQ((Strings{"ABCDEFGHIJKLMNO, Create Orch autosync handle ok", "ABCDEFGHIJKLMNO, Create Orch autosync eal ok",
                       "ABCDEFGHIJKLMNO, Orch autosync create success"}),
              Lines());
    EXPECT_STREQ("AUTOSYNC_ORCH", RIX_TEST_LogTag(0u));

    // The name stays taken while the orchestrator lives, and is free again after it.
    EXPECT_EQ(nullptr, ASOrchCreate(name, &para_));
    EXPECT_TRUE(HasLine("ABCDEFGHIJKLMNO, Create Orch autosync Fail, add module fail"));
    RIX_TEST_LogClear();
    ASOrchDestroy(h);  // never registered: still a clean release
    EXPECT_EQ((Strings{"ABCDEFGHIJKLMNO, Orch auto sync free begin.", "Orch auto sync free ok."}), Lines());
    ExpectNothingLeft(name, 2u);
    h = ASOrchCreate(name, &para_);
    ASSERT_NE(nullptr, h);
    ASOrchDestroy(h);

    RIX_TEST_LogClear();
    ASOrchDestroy(nullptr);
    EXPECT_EQ(nullptr, ASOrchCreate(nullptr, &para_));
    EXPECT_EQ(nullptr, ASOrchCreate("ABCDEFGHIJKLMNOP", &para_));
    EXPECT_EQ((Strings{"Destroy Orch autosync Fail, handle or free func is NULL",
                       "Create Orch autosync Fail, Param is Null",
                       "ABCDEFGHIJKLMNOP, Create Orch autosync Fail,check not valid"}),
              Lines());
}

TEST_F(LifecycleTest, EveryCreationFailureGivesBackWhatItTook)
{
    struct Case {
        void (*arm)();
        uint64_t allocs;
        Strings lines;
    };
    const Case cases[] = {
        {[] { rixtest::FailAllocNth(1); }, 0u, {"M, Create Orch autosync Fail, add module fail"}},
        {[] { rixtest::FailAllocNth(2); }, 1u, {"M, Orch autosync Memory Alloc Fail"}},
        {[] { RIX_TEST_SetOrchPub(RIX_TEST_ORCHPUB_CALL_FAILS, 0u, 0u, 0u); }, 2u,
         {"M, Create Orch autosync handle ok", "failed to get orchpub vt table, ret = 5", "M, get orch id error"}},
        {[] { RIX_TEST_SetOrchPub(RIX_TEST_ORCHPUB_NO_TABLE, 0u, 0u, 0u); }, 2u,
         {"M, Create Orch autosync handle ok", "failed to get orchpub vt table, ret = 0", "M, get orch id error"}},
        {[] { RIX_TEST_SetOrchPub(RIX_TEST_ORCHPUB_NO_ENTRY18, 0u, 0u, 0u); }, 2u,
         {"M, Create Orch autosync handle ok", "getOrchIdBySlotAndCpu is null", "M, get orch id error"}},
        {[] { RIX_TEST_FailNth("RIX_EAL_Create", 1u); }, 2u,
         {"M, Create Orch autosync handle ok", "M, Create Orch autosync eal Fail"}},
    };
    for (const Case &c : cases) {
        SCOPED_TRACE(c.lines.back());
        SetUp();
        c.arm();
        EXPECT_EQ(nullptr, ASOrchCreate("M", &para_));
        EXPECT_EQ(c.lines, Lines());
        ExpectNothingLeft("M", c.allocs);
    }
}

TEST_F(LifecycleTest, AccessorsHandOnToTheInstance)
{
    ASOrchHandle *h = ASOrchCreate("DEMO", &para_);
    ASSERT_NE(nullptr, h);
    void *eal = h->ealHdl;
    RIX_TEST_LogClear();
    EXPECT_EQ(0u, ASOrchInit(h));
    EXPECT_EQ(0u, ASOrchStart(h));
    RIX_TEST_FailNth("RIX_EAL_Init", 1u);
    RIX_TEST_FailNth("RIX_EAL_Start", 1u);
    RIX_TEST_FailNth("RIX_TIMER_Create", 1u);
    EXPECT_EQ(1u, ASOrchInit(h));
    EXPECT_EQ(1u, ASOrchStart(h));
    EXPECT_EQ(1u, ASOrchTimerInit(h, 100u, 0u, 0u, 0u));
    EXPECT_EQ(1u, RIX_TEST_CallCount("RIX_TIMER_Create"));
    ASOrchModInitOk(h);
    EXPECT_EQ((Strings{"DEMO, Init Orch autosync ok", "DEMO, Start Orch autosync ok", "DEMO, Init Orch autosync Fail",
                       "DEMO, Start Orch autosync Fail", "DEMO, auto sync timer init Fail",
                       "DEMO, Orch auto sync ModInitOk."}),
              Lines());
    EXPECT_EQ(1u, RIX_TEST_EalModInitOkCount(eal));
    EXPECT_EQ(RIX_EAL_GetEpollFd(eal, 2u), ASOrchGetEpollFd(h, 2u));

    uint32_t w0 = 0, w1 = 0;
    EXPECT_EQ(0u, ASOrchSetOndemandParam(h, ASOrchOndemandPara{{4u, 9u}}));
    EXPECT_EQ(1u, RIX_TEST_EalOndemand(eal, &w0, &w1));
    EXPECT_EQ(4u, w0);
    EXPECT_EQ(4u, h->ondemandParam.word[0]);
    EXPECT_EQ(9u, w1);

    const ASOrchSynGrpFlowCtrl fc = {{1u, 2u, 3u, 4u, 5u, 6u, 7u, 8u, 9u, 10u, 11u, 12u}};
    EXPECT_EQ(1u, ASOrchAdvSetSynGrpFlowCtrl(h, 4u, &fc));
    EXPECT_EQ(1u, ASOrchAdvSetSynGrpVerifyInterVal(h, 4u, 5u));
    EXPECT_EQ(0u, ASOrchAdvSetSynGrpFlowCtrl(h, 3u, &fc));
    EXPECT_EQ(1u, h->synGrpAdv[3].flowCtrlValid);
    EXPECT_EQ(0, std::memcmp(&fc, &h->synGrpAdv[3].flowCtrl, sizeof(fc)));

    // Without an instance nothing reaches the layer.
    RIX_TEST_LogClear();
    h->ealHdl = nullptr;
    EXPECT_EQ(1u, ASOrchInit(h));
    EXPECT_EQ(1u, ASOrchStart(h));
    EXPECT_EQ(1u, ASOrchTimerInit(h, 100u, 0u, 0u, 0u));
    EXPECT_EQ((Strings{"DEMO, Init Orch autosync Fail, ealHdl is Null", "DEMO, Start Orch autosync Fail, ealHdl is Null",
                       "DEMO, auto sync timer init Fail, ealHdl is NULL"}),
              Lines());
    h->ealHdl = eal;
    ASOrchDestroy(h);
    EXPECT_EQ(0, rixtest::LiveAllocations());
}

TEST_F(LifecycleTest, LogLinesAreWrittenWholeOrNotAtAll)
{
    const std::string fits(255, 'x');
    RIX_AUTOSYNC_RixLog(0u, "%s", fits.c_str());
    RIX_AUTOSYNC_RixLog(1u, "%s", fits.c_str());
    RIX_AUTOSYNC_RixLog(1u, "%s", std::string(256, 'y').c_str());
    RIX_AUTOSYNC_RixLog(0u, "%s%u", std::string(254, 'z').c_str(), 10u);
    EXPECT_EQ((Strings{fits, fits}), Lines());
}

TEST_F(LifecycleTest, HotPatchHookActsOnlyForThisLibrary)
{
    constexpr size_t kNameOffset = 397;
    const char lib[] = "librix_autosync_orch.so";
    rixtest::GuardedBuffer desc(kNameOffset + sizeof(lib));  // ends right after the name
    std::memset(desc.data(), 0, desc.size());
    std::memcpy(desc.data() + kNameOffset, lib, sizeof(lib));
    uint32_t handled = 7u;
    EXPECT_EQ(0, librix_autosync_orch_PAT_C2HSyncHookFunc(0, 0u, desc.data(), &handled));
    EXPECT_EQ(0, librix_autosync_orch_PAT_C2HSyncHookFunc(1, 0u, desc.data(), &handled));
    EXPECT_EQ(1, librix_autosync_orch_PAT_C2HSyncHookFunc(2, 0u, desc.data(), &handled));
    EXPECT_EQ(1u, handled);
    EXPECT_EQ((Strings{"librix_autosync_orch reserved patch c2h active.",
                       "librix_autosync_orch reserved patch c2h deactive.",
                       "librix_autosync_orch c2h active or deactive oper failed, operCode 2"}),
              Lines());

    RIX_TEST_LogClear();
    desc.data()[kNameOffset + sizeof(lib) - 2u] = '\0';  // a prefix of the name is another library
    EXPECT_EQ(0, librix_autosync_orch_PAT_C2HSyncHookFunc(2, 0u, desc.data(), &handled));
    EXPECT_EQ(0u, handled);
    EXPECT_EQ(0u, RIX_TEST_LogCount());
}

}  // namespace
