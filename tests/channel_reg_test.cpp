// Thread masks and registration, channel records towards the broker.
#include <arpa/inet.h>

#include <string>
#include <vector>

#include "test_support.h"

namespace {

using rixtest::Lines;
using Strings = std::vector<std::string>;
using Rets = std::vector<uint32_t>;

using ChannelTest = rixtest::OrchTest;

TEST_F(ChannelTest, ThreadsAreNamedAndPackedInIdOrder)
{
    uint32_t mask = 0u;
    EXPECT_EQ(0u, ASOrchThreadSet(&mask, 3u, 0u, 1u, 2u));
    EXPECT_EQ(7u, mask);
    EXPECT_EQ(0u, ASOrchThreadSet(&mask, 2u, 2u, 0u));
    EXPECT_EQ(5u, mask);
    // A repeated id, no id, too many ids, an id past 31: refused, the mask untouched.
    EXPECT_EQ((Rets{1u, 1u, 1u, 1u}),
              (Rets{ASOrchThreadSet(&mask, 2u, 0u, 0u), ASOrchThreadSet(&mask, 0u, 0u),
                    ASOrchThreadSet(&mask, 4u, 0u, 1u, 2u, 3u), ASOrchThreadSet(&mask, 2u, 0u, 32u)}));
    EXPECT_EQ(5u, mask);

    // Failures store nothing: no DATA thread, then the layer refusing the batch.
    base_.threadMask = 6u;
    EXPECT_EQ(1u, ASOrchRegThread(h_, &base_));
    base_.threadMask = 3u;
    RIX_TEST_FailNth("RIX_EAL_RegThread", 1u);
    EXPECT_EQ(1u, ASOrchRegThread(h_, &base_));
    EXPECT_EQ(0u, h_->threadMask);

    base_.threadMask = mask | (1u << 5);  // DATA, EVENT, and an id without a thread
    ASSERT_EQ(0u, ASOrchRegThread(h_, &base_));
    EXPECT_EQ(base_.threadMask, h_->threadMask);             // kept whole
    EXPECT_EQ(2u, RIX_TEST_CallCount("RIX_EAL_RegThread"));  // one batch per attempt
    ASSERT_EQ(2u, RIX_TEST_EalThreadCount(eal_));
    const RIX_EAL_ThreadCfg want[2] = {{0u, "DEMO_DATA", 0u}, {2u, "DEMO_EVENT", 3u}};
    for (uint32_t i = 0; i < 2u; ++i) {
        const RIX_EAL_ThreadCfg *t = RIX_TEST_EalThread(eal_, i);
        EXPECT_EQ((Rets{want[i].threadId, want[i].threadAttr}), (Rets{t->threadId, t->threadAttr}));
        EXPECT_STREQ(want[i].threadName, t->threadName);
    }
    EXPECT_EQ((Strings{"DEMO, set threads fail, has not Data thread", "DEMO, thread DEMO_DATA id is 0",
                       "DEMO, thread DEMO_SYNC id is 1", "DEMO, register 2 threads fail",
                       "DEMO, thread DEMO_DATA id is 0", "DEMO, thread DEMO_EVENT id is 2",
                       "DEMO, register 2 threads ok"}),
              Lines());

    ASOrchThreadCfg tooLong[1] = {{1u, "_ABCDEFGHIJKLMNOPQRSTUVWXYZ0", 1u}};  // 4 + 28 > 31
    EXPECT_EQ(1u, ASOrchSetThreadName(h_, tooLong, 1u));
}

TEST_F(ChannelTest, ChannelRecordsCarryNamesPortsAndFixedWords)
{
    base_.chanPort[0] = {0x1F90u, 0xA0u};
    base_.chanPort[3] = {0xABCD1F91u, 0xA3u};  // only the low 16 bits count
    ASSERT_EQ(0u, ASOrchRegBaseChan(h_, &base_));
    ASSERT_EQ(2u, RIX_TEST_EalChanCount(eal_));
    // No EVENT thread: EVT is received on DATA. Ports go out in network byte order.
    const char *names[] = {"DEMO_DATA_DAM", "DEMO_EVT"};
    const Rets want[] = {{0u, 0x3FFFFFFFu, 3u, 0u, 0u, 0u, 25u, 0xA0u, 0x1Fu, 0x90u},
                         {3u, 0x3FFFFFFFu, 3u, 0u, 0u, 0u, 25u, 0xA3u, 0x1Fu, 0x91u}};
    for (uint32_t i = 0; i < 2u; ++i) {
        const RIX_EAL_ChanPara *c = RIX_TEST_EalChan(eal_, i);
        EXPECT_STREQ(names[i], c->chanName);
        const auto *port = reinterpret_cast<const uint8_t *>(&c->serverPort);
        EXPECT_EQ(want[i], (Rets{c->chanNo, c->word1, c->word18, c->recvThreadId, c->word20, c->word22, c->word27,
                                 c->word29, port[0], port[1]}));
        ASSERT_NE(nullptr, c->serverIpFunc);
        EXPECT_EQ(htonl(INADDR_LOOPBACK), c->serverIpFunc());  // 127.0.0.1
    }
    EXPECT_EQ(0u, RIX_TEST_LogCount());
}

TEST_F(ChannelTest, EvtKeepsTheEventThreadAndTheTableNeverChanges)
{
    base_.threadMask = 5u;
    ASSERT_EQ(0u, ASOrchRegThread(h_, &base_));
    base_.chanPort[2].realServerPort = 81u;
    base_.chanPort[3].realServerPort = 82u;
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

    char name[32] = "_SIXTEEN_CHARS__", fits[32] = "_FIFTEEN_CHARS_";
    EXPECT_EQ(1u, ASOrchChanAddNamePrefix(h_, 0u, name));
    EXPECT_EQ(0u, ASOrchChanAddNamePrefix(h_, 0u, fits));
    EXPECT_STREQ("DEMO_FIFTEEN_CHARS_", fits);
    EXPECT_EQ((Strings{"DEMO, no valid realServerPort.", "DEMO, chanPort slot 6 has no channel.",
                       "DEMO, RegUcChannel DEMO_DATA_FES fail.",
                       "DEMO, chanName _SIXTEEN_CHARS__ over max name length."}),
              Lines());
}

}  // namespace
