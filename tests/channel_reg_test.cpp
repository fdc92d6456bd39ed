// Thread masks and registration, channel records towards the broker.
#include <arpa/inet.h>

#include <cstddef>
#include <cstring>
#include <string>
#include <vector>

#include "test_support.h"

namespace {

using rixtest::Lines;
using Strings = std::vector<std::string>;

uint32_t WordAt(const void *rec, size_t off)
{
    uint32_t w;
    std::memcpy(&w, static_cast<const uint8_t *>(rec) + off, sizeof(w));
    return w;
}

class ChannelTest : public rixtest::PlatformTest {
protected:
    void SetUp() override
    {
        PlatformTest::SetUp();
        para_ = rixtest::CountingCreatePara();
        h_ = ASOrchCreate("DEMO", &para_);
        ASSERT_NE(nullptr, h_);
        eal_ = h_->ealHdl;
        RIX_TEST_LogClear();
    }
    void TearDown() override
    {
        ASOrchDestroy(h_);
        EXPECT_EQ(0, rixtest::LiveAllocations());
        PlatformTest::TearDown();
    }
    ASOrchCreatePara para_{};
    ASOrchHandle *h_ = nullptr;
    void *eal_ = nullptr;
    ASOrchBasePara base_{};
};

TEST_F(ChannelTest, ThreadsAreNamedAndPackedInIdOrder)
{
    uint32_t mask = 0u;
    EXPECT_EQ(0u, ASOrchThreadSet(&mask, 3u, 0u, 1u, 2u));
    EXPECT_EQ(7u, mask);
    EXPECT_EQ(0u, ASOrchThreadSet(&mask, 2u, 2u, 0u));
    EXPECT_EQ(5u, mask);
    EXPECT_EQ(1u, ASOrchThreadSet(&mask, 2u, 0u, 0u));
    EXPECT_EQ(1u, ASOrchThreadSet(&mask, 0u, 0u));
    EXPECT_EQ(1u, ASOrchThreadSet(&mask, 4u, 0u, 1u, 2u, 3u));
    EXPECT_EQ(1u, ASOrchThreadSet(&mask, 2u, 0u, 32u));
    EXPECT_EQ(5u, mask);  // refusals leave the mask alone

    base_.threadMask = mask | (1u << 5);  // DATA, EVENT, and an id without a thread
    ASSERT_EQ(0u, ASOrchRegThread(h_, &base_));
    ASSERT_EQ(2u, RIX_TEST_EalThreadCount(eal_));
    const RIX_EAL_ThreadCfg *t[2] = {RIX_TEST_EalThread(eal_, 0u), RIX_TEST_EalThread(eal_, 1u)};
    EXPECT_EQ(0u, WordAt(t[0], 0));
    EXPECT_STREQ("DEMO_DATA", reinterpret_cast<const char *>(t[0]) + 4);
    EXPECT_EQ(0u, WordAt(t[0], 36));
    EXPECT_EQ(2u, WordAt(t[1], 0));
    EXPECT_STREQ("DEMO_EVENT", reinterpret_cast<const char *>(t[1]) + 4);
    EXPECT_EQ(3u, WordAt(t[1], 36));
    EXPECT_EQ(base_.threadMask, h_->threadMask);  // kept whole
    EXPECT_EQ((Strings{"DEMO, thread DEMO_DATA id is 0", "DEMO, thread DEMO_EVENT id is 2", "DEMO, register 2 threads ok"}),
              Lines());

    ASOrchThreadCfg tooLong[1] = {{1u, "_ABCDEFGHIJKLMNOPQRSTUVWXYZ0", 1u}};  // 4 + 28 > 31
    EXPECT_EQ(1u, ASOrchSetThreadName(h_, tooLong, 1u));
}

TEST_F(ChannelTest, ThreadRegistrationFailuresStoreNothing)
{
    base_.threadMask = 6u;
    EXPECT_EQ(1u, ASOrchRegThread(h_, &base_));
    base_.threadMask = 3u;
    RIX_TEST_FailNth("RIX_EAL_RegThread", 1u);
    EXPECT_EQ(1u, ASOrchRegThread(h_, &base_));
    EXPECT_EQ((Strings{"DEMO, set threads fail, has not Data thread", "DEMO, thread DEMO_DATA id is 0",
                       "DEMO, thread DEMO_SYNC id is 1", "DEMO, register 2 threads fail"}),
              Lines());
    EXPECT_EQ(1u, RIX_TEST_CallCount("RIX_EAL_RegThread"));
    EXPECT_EQ(0u, h_->threadMask);
}

TEST_F(ChannelTest, ChannelRecordsCarryNamesPortsAndFixedWords)
{
    base_.chanPort[0] = {0x1F90u, 0xA0u};
    base_.chanPort[3] = {0xABCD1F91u, 0xA3u};  // only the low 16 bits count
    ASSERT_EQ(0u, ASOrchRegBaseChan(h_, &base_));
    ASSERT_EQ(2u, RIX_TEST_EalChanCount(eal_));
    const struct {
        uint32_t chanNo;
        const char *name;
        uint8_t port[2];
        uint32_t arg;
    } want[] = {{0u, "DEMO_DATA_DAM", {0x1F, 0x90}, 0xA0u}, {3u, "DEMO_EVT", {0x1F, 0x91}, 0xA3u}};
    in_addr local{};
    ASSERT_EQ(1, inet_pton(AF_INET, "127.0.0.1", &local));
    for (uint32_t i = 0; i < 2u; ++i) {
        SCOPED_TRACE(i);
        const RIX_EAL_ChanPara *c = RIX_TEST_EalChan(eal_, i);
        EXPECT_EQ(want[i].chanNo, c->chanNo);
        EXPECT_STREQ(want[i].name, c->chanName);
        EXPECT_EQ(0u, c->recvThreadId);  // no EVENT thread: EVT moves to DATA
        EXPECT_EQ(0u, c->word20 | c->word22);
        ASSERT_NE(nullptr, c->serverIpFunc);
        EXPECT_EQ(local.s_addr, c->serverIpFunc());
        const auto *bytes = reinterpret_cast<const uint8_t *>(c) + offsetof(RIX_EAL_ChanPara, serverPort);
        EXPECT_EQ(want[i].port[0], bytes[0]);
        EXPECT_EQ(want[i].port[1], bytes[1]);
        const size_t off[] = {offsetof(RIX_EAL_ChanPara, word1), offsetof(RIX_EAL_ChanPara, word18),
                              offsetof(RIX_EAL_ChanPara, word27), offsetof(RIX_EAL_ChanPara, word29)};
#if ASORCH_TARGET_32BIT
        EXPECT_EQ(96u, offsetof(RIX_EAL_ChanPara, serverPort));
        EXPECT_EQ((std::vector<size_t>{4u, 72u, 108u, 116u}), std::vector<size_t>(std::begin(off), std::end(off)));
#endif
        EXPECT_EQ((std::vector<uint32_t>{0x3FFFFFFFu, 3u, 25u, want[i].arg}),
                  (std::vector<uint32_t>{WordAt(c, off[0]), WordAt(c, off[1]), WordAt(c, off[2]), WordAt(c, off[3])}));
    }
    EXPECT_EQ(0u, RIX_TEST_LogCount());

    // With an EVENT thread EVT keeps it; the table itself never changes.
    ASOrchDestroy(h_);
    h_ = ASOrchCreate("DEMO", &para_);
    ASSERT_NE(nullptr, h_);
    eal_ = h_->ealHdl;
    base_.threadMask = 5u;
    ASSERT_EQ(0u, ASOrchRegThread(h_, &base_));
    base_.chanPort[0].realServerPort = 0u;
    base_.chanPort[2].realServerPort = 81u;
    ASSERT_EQ(0u, ASOrchRegBaseChan(h_, &base_));
    ASSERT_EQ(2u, RIX_TEST_EalChanCount(eal_));
    EXPECT_STREQ("DEMO_DATA_UP", RIX_TEST_EalChan(eal_, 0u)->chanName);
    EXPECT_EQ(9u, RIX_TEST_EalChan(eal_, 0u)->word27);
    EXPECT_EQ(2u, RIX_TEST_EalChan(eal_, 1u)->recvThreadId);
    EXPECT_STREQ("_EVT", g_ASOrchChanParam[3].chanName);
    EXPECT_STREQ("FES", ASGetChnlName(1u));
    EXPECT_EQ(nullptr, ASGetChnlName(4u));
}

TEST_F(ChannelTest, ChannelStepFailures)
{
    EXPECT_EQ(1u, ASOrchRegBaseChan(h_, &base_));
    // A port in a slot without a channel refuses the step before anything is registered.
    base_.chanPort[0].realServerPort = 1u;
    base_.chanPort[6].realServerPort = 2u;
    EXPECT_EQ(1u, ASOrchRegBaseChan(h_, &base_));
    EXPECT_EQ(0u, RIX_TEST_CallCount("RIX_EAL_RegUcChannel"));
    // The layer refuses FES: DAM stays, UP is not tried.
    base_.chanPort[6].realServerPort = 0u;
    base_.chanPort[1].realServerPort = 3u;
    base_.chanPort[2].realServerPort = 4u;
    RIX_TEST_FailNth("RIX_EAL_RegUcChannel", 2u);
    EXPECT_EQ(1u, ASOrchRegBaseChan(h_, &base_));
    EXPECT_EQ(2u, RIX_TEST_CallCount("RIX_EAL_RegUcChannel"));
    EXPECT_EQ(1u, RIX_TEST_EalChanCount(eal_));

    char name[32] = "_SIXTEEN_CHARS__";
    EXPECT_EQ(1u, ASOrchChanAddNamePrefix(h_, 0u, name));
    char fits[32] = "_FIFTEEN_CHARS_";
    EXPECT_EQ(0u, ASOrchChanAddNamePrefix(h_, 0u, fits));
    EXPECT_STREQ("DEMO_FIFTEEN_CHARS_", fits);
    EXPECT_EQ((Strings{"DEMO, no valid realServerPort.", "DEMO, chanPort slot 6 has no channel.",
                       "DEMO, RegUcChannel DEMO_DATA_FES fail.", "DEMO, chanName _SIXTEEN_CHARS__ over max name length."}),
              Lines());
}

}  // namespace
