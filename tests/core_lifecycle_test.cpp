// Orchestrator creation and destruction, accessors, logging and the hot-patch hook.
#include <cstring>
#include <string>
#include <vector>

#include "test_support.h"

namespace {

using rixtest::Lines;
using Strings = std::vector<std::string>;
using Rets = std::vector<uint32_t>;

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
    const RIX_EAL_CreatePara *cp = RIX_TEST_EalCreatePara(h->ealHdl);
    EXPECT_STREQ(name, RIX_TEST_EalName(h->ealHdl));
    EXPECT_EQ((Rets{0x35u, 0x11u, 0x22u}), (Rets{cp->orchId, cp->para1, cp->para2}));
    EXPECT_EQ(reinterpret_cast<void *>(rixtest::CountingFree), reinterpret_cast<void *>(cp->memFree));
    EXPECT_EQ((Strings{"ABCDEFGHIJKLMNO, Create Orch autosync handle ok",
                       "ABCDEFGHIJKLMNO, Create Orch autosync eal ok",
                       "ABCDEFGHIJKLMNO, Orch autosync create success"}),
              Lines());
    EXPECT_STREQ("AUTOSYNC_ORCH", RIX_TEST_LogTag(0u));

    // The name stays taken while the orchestrator lives, and is free again after it.
    EXPECT_EQ(nullptr, ASOrchCreate(name, &para_));
    EXPECT_TRUE(rixtest::HasLine("ABCDEFGHIJKLMNO, Create Orch autosync Fail, add module fail"));
    RIX_TEST_LogClear();
    ASOrchDestroy(h);  // never registered: still a clean release
    EXPECT_EQ((Strings{"ABCDEFGHIJKLMNO, Orch auto sync free begin.", "Orch auto sync free ok."}), Lines());
    ExpectNothingLeft(name, 2u);

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
    const std::string handleOk = "M, Create Orch autosync handle ok", noId = "M, get orch id error";
    const struct {
        void (*arm)();
        uint64_t allocs;
        Strings lines;
    } cases[] = {
        {[] { rixtest::FailAllocNth(1); }, 0u, {"M, Create Orch autosync Fail, add module fail"}},
        {[] { rixtest::FailAllocNth(2); }, 1u, {"M, Orch autosync Memory Alloc Fail"}},
        {[] { RIX_TEST_SetOrchPub(RIX_TEST_ORCHPUB_CALL_FAILS, 0u, 0u, 0u); },
         2u,
         {handleOk, "failed to get orchpub vt table, ret = 5", noId}},
        {[] { RIX_TEST_SetOrchPub(RIX_TEST_ORCHPUB_NO_TABLE, 0u, 0u, 0u); },
         2u,
         {handleOk, "failed to get orchpub vt table, ret = 0", noId}},
        {[] { RIX_TEST_SetOrchPub(RIX_TEST_ORCHPUB_NO_ENTRY18, 0u, 0u, 0u); },
         2u,
         {handleOk, "getOrchIdBySlotAndCpu is null", noId}},
        {[] { RIX_TEST_FailNth("RIX_EAL_Create", 1u); }, 2u, {handleOk, "M, Create Orch autosync eal Fail"}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.lines.back());
        SetUp();
        c.arm();
        EXPECT_EQ(nullptr, ASOrchCreate("M", &para_));
        EXPECT_EQ(c.lines, Lines());
        ExpectNothingLeft("M", c.allocs);
    }
}

using AccessorTest = rixtest::OrchTest;

TEST_F(AccessorTest, AccessorsHandOnToTheInstance)
{
    auto calls = [this] { return Rets{ASOrchInit(h_), ASOrchStart(h_), ASOrchTimerInit(h_, 100u, 1u, 0u, 0u)}; };
    RIX_TEST_FailNth("RIX_TIMER_Create", 1u);
    EXPECT_EQ((Rets{0u, 0u, 1u}), calls());
    h_->ealHdl = nullptr;  // without an instance nothing reaches the layer
    EXPECT_EQ((Rets{1u, 1u, 1u}), calls());
    h_->ealHdl = eal_;
    ASOrchModInitOk(h_);
    EXPECT_EQ((Strings{"DEMO, Init Orch autosync ok", "DEMO, Start Orch autosync ok", "DEMO, auto sync timer init Fail",
                       "DEMO, Init Orch autosync Fail, ealHdl is Null",
                       "DEMO, Start Orch autosync Fail, ealHdl is Null",
                       "DEMO, auto sync timer init Fail, ealHdl is NULL", "DEMO, Orch auto sync ModInitOk."}),
              Lines());
    EXPECT_EQ(1u, RIX_TEST_CallCount("RIX_TIMER_Create"));
    EXPECT_EQ(1u, RIX_TEST_EalModInitOkCount(eal_));
    EXPECT_EQ(RIX_EAL_GetEpollFd(eal_, 2u), ASOrchGetEpollFd(h_, 2u));

    uint32_t w0 = 0, w1 = 0;
    EXPECT_EQ(0u, ASOrchSetOndemandParam(h_, ASOrchOndemandPara{{4u, 9u}}));
    EXPECT_EQ(1u, RIX_TEST_EalOndemand(eal_, &w0, &w1));
    EXPECT_EQ((Rets{4u, 9u, 4u}), (Rets{w0, w1, h_->ondemandParam.word[0]}));
    const ASOrchSynGrpFlowCtrl fc = {{1u}};  // group 4 is past the last
    EXPECT_EQ((Rets{1u, 1u, 1u}),
              (Rets{ASOrchAdvSetSynGrpFlowCtrl(h_, 4u, &fc), ASOrchAdvSetSynGrpVerifyInterVal(h_, 4u, 5u),
                    ASOrchAdvSetSynGrpNotifyFunc(h_, 4u, nullptr)}));
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
    auto hook = [&](int op) { return librix_autosync_orch_PAT_C2HSyncHookFunc(op, 0u, desc.data(), &handled); };
    EXPECT_EQ((std::vector<int>{0, 0, 1}), (std::vector<int>{hook(0), hook(1), hook(2)}));
    EXPECT_EQ(1u, handled);
    EXPECT_EQ((Strings{"librix_autosync_orch reserved patch c2h active.",
                       "librix_autosync_orch reserved patch c2h deactive.",
                       "librix_autosync_orch c2h active or deactive oper failed, operCode 2"}),
              Lines());

    RIX_TEST_LogClear();
    desc.data()[kNameOffset + sizeof(lib) - 2u] = '\0';  // a prefix of the name is another library
    EXPECT_EQ(0, hook(2));
    EXPECT_EQ(0u, handled);
    EXPECT_EQ(0u, RIX_TEST_LogCount());
}

}  // namespace
