// The smoothing handler table slot by slot: which slots are served, the item length each
// demands and the record sizes handed to smoothProc.
#include <cstring>
#include <map>
#include <tuple>
#include <vector>

#include "test_support.h"

namespace {

using Calls = std::vector<std::tuple<char, uint32_t, bool>>;  // callback, record size, null record
Calls g_calls;
uint32_t Pre(uint32_t, uint32_t, void *r, uint32_t s) { return g_calls.emplace_back('P', s, r == nullptr), 1; }
uint32_t Proc(uint32_t, uint32_t, void *r, uint32_t s) { return g_calls.emplace_back('S', s, r == nullptr), 1; }

// Served slots: item length and record size.
const std::map<uint32_t, std::pair<uint32_t, uint32_t>> kSlots = {
    {7, {16, 12}},  {8, {16, 12}},  {9, {32, 72}}, {10, {28, 24}}, {11, {28, 24}},
    {15, {20, 12}}, {16, {16, 12}}, {17, {16, 12}}, {190, {16, 0}}, {191, {16, 0}}};

// One item at the end of a guarded buffer, with remain = its length plus slack.
int32_t RunItem(ASOrchHandle *h, uint32_t optType, uint32_t length, ASOrchSmoothCbFunc pre, ASOrchSmoothCbFunc proc,
                uint32_t slack = 0)
{
    rixtest::GuardedBuffer buf(length + slack);
    std::memset(buf.data(), 0, buf.size());
    const uint32_t hdr[3] = {optType, length, 9};
    std::memcpy(buf.data(), hdr, sizeof(hdr));
    return ASOrchSmoothMsgProc(h, reinterpret_cast<const ASOrchSmoothItem *>(buf.data()),
                               static_cast<int32_t>(length + slack), pre, proc);
}

using SmoothSlotsTest = rixtest::PlatformTest;

TEST_F(SmoothSlotsTest, OnlyTheListedSlotsServeAndSmoothProcReplacesEverything)
{
    const ASOrchCreatePara para = rixtest::CountingCreatePara();
    ASOrchHandle *h = ASOrchCreate("sm", &para);
    ASSERT_NE(h, nullptr);
    for (uint32_t op = 0; op < 200; ++op) {
        const auto it = kSlots.find(op);
        g_calls.clear();
        if (it == kSlots.end()) {
            EXPECT_EQ(RunItem(h, op, 16, Pre, Proc, 4), -1) << op;
            EXPECT_TRUE(g_calls.empty()) << op;
            continue;
        }
        const auto [length, recSize] = it->second;
        EXPECT_EQ(RunItem(h, op, length, Pre, Proc, 4), 4) << op;
        EXPECT_EQ(g_calls, (Calls{{'S', recSize, recSize == 0}})) << op;
        // A word short or long fails the size check.
        EXPECT_EQ(RunItem(h, op, length - 4, nullptr, nullptr, 8), -1) << op;
        EXPECT_EQ(RunItem(h, op, length + 4, nullptr, nullptr), -1) << op;
    }
    EXPECT_EQ(RIX_TEST_EntryCount(), 0u);
    // A header that does not fit what remains is never read.
    rixtest::GuardedBuffer tiny(8);
    EXPECT_EQ(ASOrchSmoothMsgProc(h, reinterpret_cast<const ASOrchSmoothItem *>(tiny.data()), 8, Pre, Proc), -1);
    // The pid state entry's result is not used: the item succeeds and its line follows.
    RIX_TEST_FailNth("RIX_ENTRY_ProcPidState", 1);
    EXPECT_EQ(RunItem(h, 15, 20, nullptr, nullptr), 0);
    EXPECT_TRUE(rixtest::HasLine("sm, smooth state proc. tableId = 9, pidState = 0, srcPid = 0"));
    ASOrchDestroy(h);
}

}  // namespace
