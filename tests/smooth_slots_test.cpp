// The smoothing handler table slot by slot: which slots are served, the item length each
// demands and the record sizes handed to smoothProc.
#include <cstring>
#include <map>
#include <vector>

#include "test_support.h"

namespace {

struct Call {
    char who;
    uint32_t optType;
    uint32_t size;
    bool nullRec;
};
std::vector<Call> g_calls;
uint32_t Pre(uint32_t, uint32_t o, void *r, uint32_t s) { return g_calls.push_back({'P', o, s, r == nullptr}), 1; }
uint32_t Proc(uint32_t, uint32_t o, void *r, uint32_t s) { return g_calls.push_back({'S', o, s, r == nullptr}), 1; }

// Served slots: item length and record size.
const std::map<uint32_t, std::pair<uint32_t, uint32_t>> kSlots = {
    {7, {16, 12}},  {8, {16, 12}},  {9, {32, 72}}, {10, {28, 24}}, {11, {28, 24}},
    {15, {20, 12}}, {16, {16, 12}}, {17, {16, 12}}, {190, {16, 0}}, {191, {16, 0}}};

class SmoothSlotsTest : public rixtest::PlatformTest {
protected:
    void SetUp() override
    {
        PlatformTest::SetUp();
        g_calls.clear();
        const ASOrchCreatePara para = rixtest::CountingCreatePara();
        handle_ = ASOrchCreate("sm", &para);
        ASSERT_NE(handle_, nullptr);
    }
    void TearDown() override
    {
        ASOrchDestroy(handle_);
        PlatformTest::TearDown();
    }
    // One item at the end of a guarded buffer, with remain = its length plus slack.
    int32_t Run(uint32_t optType, uint32_t length, ASOrchSmoothCbFunc pre, ASOrchSmoothCbFunc proc,
                uint32_t slack = 0)
    {
        rixtest::GuardedBuffer buf(length + slack);
        std::memset(buf.data(), 0, buf.size());
        const uint32_t hdr[3] = {optType, length, 9};
        std::memcpy(buf.data(), hdr, sizeof(hdr));
        return ASOrchSmoothMsgProc(handle_, reinterpret_cast<const ASOrchSmoothItem *>(buf.data()),
                                   static_cast<int32_t>(length + slack), pre, proc);
    }
    ASOrchHandle *handle_ = nullptr;
};

TEST_F(SmoothSlotsTest, OnlyTheListedSlotsServeAndSmoothProcReplacesEverything)
{
    for (uint32_t op = 0; op < 200; ++op) {
        const auto it = kSlots.find(op);
        const uint32_t length = it != kSlots.end() ? it->second.first : 16;
        g_calls.clear();
        const int32_t left = Run(op, length, Pre, Proc, 4);
        if (it == kSlots.end()) {
            EXPECT_EQ(left, -1) << op;
            EXPECT_TRUE(g_calls.empty()) << op;
            continue;
        }
        EXPECT_EQ(left, 4) << op;
        ASSERT_EQ(g_calls.size(), 1u) << op;
        EXPECT_EQ(g_calls[0].who, 'S') << op;
        EXPECT_EQ(g_calls[0].size, it->second.second) << op;
        EXPECT_EQ(g_calls[0].nullRec, it->second.second == 0) << op;
        // A word short or long fails the size check.
        EXPECT_EQ(Run(op, length - 4, nullptr, nullptr, 8), -1) << op;
        EXPECT_EQ(Run(op, length + 4, nullptr, nullptr), -1) << op;
    }
    EXPECT_EQ(RIX_TEST_EntryCount(), 0u);
    // A header that does not fit what remains is never read.
    rixtest::GuardedBuffer tiny(8);
    EXPECT_EQ(ASOrchSmoothMsgProc(handle_, reinterpret_cast<const ASOrchSmoothItem *>(tiny.data()), 8, Pre, Proc),
              -1);
    // The pid state entry's result is not used: the item succeeds and its line follows.
    RIX_TEST_FailNth("RIX_ENTRY_ProcPidState", 1);
    EXPECT_EQ(Run(15, 20, nullptr, nullptr), 0);
    EXPECT_TRUE(rixtest::HasLine("sm, smooth state proc. tableId = 9, pidState = 0, srcPid = 0"));
}

}  // namespace
