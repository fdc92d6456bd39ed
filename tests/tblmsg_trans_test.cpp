// Transfer messages: the TLV walk, plain and composite tables in both layouts, smoothing
// items reaching callbacks and entry points, and every malformed length kept inside the body.
#include <cstring>
#include <string>
#include <vector>

#include "test_support.h"

namespace {

using Bytes = std::vector<uint8_t>;

void Put(Bytes &b, uint32_t v)
{
    const size_t o = b.size();
    b.resize(o + 4);
    std::memcpy(&b[o], &v, 4);
}

Bytes Words(std::initializer_list<uint32_t> ws)
{
    Bytes b;
    for (uint32_t w : ws) {
        Put(b, w);
    }
    return b;
}

void Tlv(Bytes &area, uint32_t tableId, uint32_t type, const Bytes &value)
{
    Put(area, tableId);
    Put(area, type);
    Put(area, static_cast<uint32_t>(value.size()));
    area.insert(area.end(), value.begin(), value.end());
}

Bytes TransBody(const Bytes &area, uint32_t areaLen)
{
    Bytes b(8, 0xEE);
    Put(b, areaLen);
    b.insert(b.end(), area.begin(), area.end());
    return b;
}
Bytes TransBody(const Bytes &area) { return TransBody(area, static_cast<uint32_t>(area.size())); }

struct TblCall {
    const uint8_t *tables;
    uint32_t nums;
    uint32_t size;
    ASOrchTblProcInfo info;
};
std::vector<TblCall> g_tbl;
uint32_t g_tblResult = 0;

uint32_t TblProc(ASOrchHandle *, void *tables, uint32_t nums, uint32_t size, ASOrchTblProcInfo *info)
{
    g_tbl.push_back({static_cast<const uint8_t *>(tables), nums, size, *info});
    return g_tblResult;
}

struct SmCall {
    char who;
    uint32_t tableId;
    uint32_t optType;
    bool nullRec;
    Bytes rec;
};
std::vector<SmCall> g_sm;

void Record(char who, uint32_t tableId, uint32_t optType, void *rec, uint32_t size)
{
    const auto *p = static_cast<const uint8_t *>(rec);
    g_sm.push_back({who, tableId, optType, rec == nullptr, p ? Bytes(p, p + size) : Bytes{}});
}
uint32_t Pre(uint32_t t, uint32_t o, void *r, uint32_t s) { return Record('P', t, o, r, s), 0; }
uint32_t Proc(uint32_t t, uint32_t o, void *r, uint32_t s) { return Record('S', t, o, r, s), 0; }

class TransTest : public rixtest::PlatformTest {
protected:
    void SetUp() override
    {
        PlatformTest::SetUp();
        g_tbl.clear();
        g_sm.clear();
        g_tblResult = 0;
        const ASOrchCreatePara para = rixtest::CountingCreatePara();
        handle_ = ASOrchCreate("tm", &para);
        ASSERT_NE(handle_, nullptr);
        // 100 DAM (tblSize 8), 200 FES (tblSize 4), 300 pre only, 301 both callbacks,
        // 302 none, 400 tblSize 0, 500 without tblMsgProc.
        dam_ = {{100, 8, nullptr, nullptr, 0xA1, TblProc},
                {300, 0, Pre, nullptr, 0, TblProc},
                {301, 0, Pre, Proc, 0, TblProc},
                {302, 0, nullptr, nullptr, 0, nullptr},
                {400, 0, nullptr, nullptr, 0, TblProc},
                {500, 4, nullptr, nullptr, 0, nullptr}};
        fes_ = {{200, 4, nullptr, nullptr, 0xB2, TblProc}, {600, 0, nullptr, nullptr, 0, nullptr}};
        ASOrchBasePara base{};
        base.transTblMsg[0] = {dam_.data(), static_cast<uint32_t>(dam_.size())};
        base.transTblMsg[1] = {fes_.data(), static_cast<uint32_t>(fes_.size())};
        ASSERT_EQ(ASOrchRegTblMsg(handle_, &base), 0u);
        RIX_TEST_LogClear();
    }
    void TearDown() override
    {
        ASOrchDestroy(handle_);
        EXPECT_EQ(rixtest::LiveAllocations(), 0);
        PlatformTest::TearDown();
    }
    // The body sits at the very end of a guarded buffer: one byte past it faults.
    uint32_t Send(const Bytes &body, uint32_t msgId = 0x7F7F7F75u)
    {
        guard_ = std::make_unique<rixtest::GuardedBuffer>(body.size());
        std::memcpy(guard_->data(), body.data(), body.size());
        ASOrchMsg msg{guard_->data(), msgId, static_cast<uint32_t>(body.size())};
        return ASOrchMsgProc(handle_, &msg);
    }
    const uint8_t *At(uint32_t off) const { return guard_->data() + off; }

    ASOrchHandle *handle_ = nullptr;
    std::vector<ASOrchTblMsgTransReg> dam_, fes_;
    std::unique_ptr<rixtest::GuardedBuffer> guard_;
};

void ExpectEntry(uint32_t i, const char *name, const Bytes &rec)
{
    const void *r = nullptr;
    uint32_t size = 0;
    const char *got = RIX_TEST_EntryCall(i, &r, &size);
    ASSERT_NE(got, nullptr);
    EXPECT_STREQ(got, name);
    ASSERT_EQ(size, rec.size()) << name;
    EXPECT_EQ(Bytes(static_cast<const uint8_t *>(r), static_cast<const uint8_t *>(r) + size), rec) << name;
}

Bytes Pad(Bytes b, size_t to)
{
    b.resize(to, 0);
    return b;
}

TEST_F(TransTest, EveryTlvTypeReachesItsConsumerByteForByte)
{
    Bytes area;
    Tlv(area, 100, 1, Bytes(20, 0x11));                                   // 0: DAM, 2 x 8, 4 ignored
    Tlv(area, 200, 1, Words({0xDEAD, 12, 1, 2, 3}));                      // 1: FES, 12 bytes of 4
    Tlv(area, 999, 1, Bytes(4, 0));                                       // 2: unknown table
    Bytes fes2 = Words({0, 6});
    fes2.resize(8 + 12, 0x22);
    Tlv(area, 200, 2, fes2);                                              // 3: FES, 2 x 6
    Tlv(area, 100, 18, Bytes(4, 0x33));                                   // 4: composite
    Bytes items = Words({7, 16, 300, 41});                                // class begin
    for (uint32_t w : {15u, 20u, 300u, 42u, 3u}) Put(items, w);           // pid state
    for (uint32_t w : {9u, 32u, 300u, 5u, 6u, 7u, 8u, 9u}) Put(items, w); // vrf state
    for (uint32_t w : {10u, 28u, 300u, 43u, 1u, 2u, 3u}) Put(items, w);   // vrf data begin
    for (uint32_t w : {11u, 28u, 300u, 44u, 4u, 5u, 6u}) Put(items, w);   // vrf data end
    for (uint32_t w : {8u, 16u, 300u, 45u}) Put(items, w);                // class end
    for (uint32_t w : {16u, 16u, 300u, 46u}) Put(items, w);               // LR: smoothProc only
    for (uint32_t w : {190u, 16u, 300u, 47u}) Put(items, w);              // DAM class
    Tlv(area, 300, 0, items);                                             // 5
    Tlv(area, 301, 5, Words({7, 16, 301, 51, 16, 16, 301, 52, 191, 16, 301, 53}));  // 6
    Tlv(area, 100, 19, {});                                               // 7
    Tlv(area, 100, 2, Bytes(6, 0x44));                                    // 8: DAM single entry
    ASSERT_EQ(ASOrchIncTransTblMsgVersion(handle_, 100, nullptr), 0u);

    ASSERT_EQ(Send(TransBody(area)), 0u) << rixtest::DumpLines();

    ASSERT_EQ(g_tbl.size(), 6u);
    const uint32_t base = 12;
    struct Want { uint32_t off, nums, size, version, param, type; };
    const Want want[] = {{base + 12, 2, 8, 1, 0xA1, 1},   {base + 32 + 20, 3, 4, 0, 0xB2, 1},
                         {base + 64 + 16 + 20, 2, 6, 0, 0xB2, 2}, {base + 112, 1, 16, 1, 0xA1, 18},
                         {0, 1, 12, 1, 0xA1, 19},        {0, 1, 6, 1, 0xA1, 2}};
    for (size_t i = 0; i < 6; ++i) {
        if (want[i].off != 0) {
            EXPECT_EQ(g_tbl[i].tables, At(want[i].off)) << i;
        }
        EXPECT_EQ(g_tbl[i].nums, want[i].nums) << i;
        EXPECT_EQ(g_tbl[i].size, want[i].size) << i;
        EXPECT_EQ(g_tbl[i].info.version, want[i].version) << i;
        EXPECT_EQ(g_tbl[i].info.procParam, want[i].param) << i;
        EXPECT_EQ(g_tbl[i].info.tlvType, want[i].type) << i;
    }
    EXPECT_TRUE(rixtest::HasLine("tm, get tbl trans tbl failed.tableId = 999.")) << rixtest::DumpLines();
    EXPECT_TRUE(rixtest::HasLine("tm, proc feibrk trans msg 2 failed. tbl = 999, tlvType = 1, tlvLen = 4"));
    EXPECT_TRUE(rixtest::HasLine("tm, smooth state proc. tableId = 300, pidState = 3, srcPid = 42"));

    // Table 300 (pre only): pre sees every stateful record, then the entry point; 16 calls
    // nothing; 190 hands pre a null record. Table 301: smoothProc only, no entry point.
    const Bytes cls = Words({300, 41, 0}), pid = Words({300, 42, 3});
    const Bytes vrf = Pad(Words({300, 5, 6, 7, 8, 9}), 72);
    const Bytes vdb = Words({300, 43, 1, 2, 3, 0}), vde = Words({300, 44, 4, 5, 6, 0});
    const Bytes cle = Words({300, 45, 0});
    ASSERT_EQ(g_sm.size(), 10u);
    const SmCall exp[] = {{'P', 300, 7, false, cls},  {'P', 300, 15, false, pid}, {'P', 300, 9, false, vrf},
                          {'P', 300, 10, false, vdb}, {'P', 300, 11, false, vde}, {'P', 300, 8, false, cle},
                          {'P', 300, 190, true, {}},  {'S', 301, 7, false, Words({301, 51, 0})},
                          {'S', 301, 16, false, Words({301, 52, 0})}, {'S', 301, 191, true, {}}};
    for (size_t i = 0; i < 10; ++i) {
        EXPECT_EQ(g_sm[i].who, exp[i].who) << i;
        EXPECT_EQ(g_sm[i].tableId, exp[i].tableId) << i;
        EXPECT_EQ(g_sm[i].optType, exp[i].optType) << i;
        EXPECT_EQ(g_sm[i].nullRec, exp[i].nullRec) << i;
        EXPECT_EQ(g_sm[i].rec, exp[i].rec) << i;
    }
    ASSERT_EQ(RIX_TEST_EntryCount(), 6u);
    ExpectEntry(0, "RIX_ENTRY_ProcVrfStateBegin", cls);
    ExpectEntry(1, "RIX_ENTRY_ProcPidState", pid);
    ExpectEntry(2, "RIX_ENTRY_ProcVrfState", vrf);
    ExpectEntry(3, "RIX_ENTRY_ProcVrfDataBegin", vdb);
    ExpectEntry(4, "RIX_ENTRY_ProcVrfDataEnd", vde);
    ExpectEntry(5, "RIX_ENTRY_ProcVrfStateEnd", cle);
}

TEST_F(TransTest, TableParsingRefusalsAndFailuresAreLoggedAndTheWalkGoesOn)
{
    g_tblResult = 9;
    Bytes area;
    Tlv(area, 400, 1, Bytes(8, 0));          // 0: registered tblSize 0
    Tlv(area, 400, 2, Bytes(8, 0));          // 1: type 2 of the same table passes (fails in proc)
    Tlv(area, 100, 2, {});                   // 2: DAM type 2 with tlvLen 0
    Tlv(area, 500, 1, Bytes(8, 0));          // 3: no tblMsgProc (DAM)
    Tlv(area, 600, 18, {});                  // 4: no tblMsgProc (composite)
    Tlv(area, 200, 1, Words({0}));           // 5: FES value shorter than its header
    Tlv(area, 200, 1, Words({0, 64, 1, 2})); // 6: FES entries beyond tlvLen
    Tlv(area, 200, 2, Words({0, 0}));        // 7: FES type 2 with entry size 0
    Tlv(area, 100, 19, Bytes(4, 0));         // 8: composite, proc fails
    ASSERT_EQ(Send(TransBody(area)), 0u);
    ASSERT_EQ(g_tbl.size(), 2u);
    EXPECT_EQ(g_tbl[0].nums, 1u);
    EXPECT_EQ(g_tbl[0].size, 8u);
    const std::vector<std::string> want = {
        "[error] tblSize is zero.",
        "tm, proc trans dam tbl failed. tbl nums = 1, tblsize = 8.",
        "[error] tblSize is zero.",
        "[error]tm, trans dam tblMsgProc is NULL, tbl:500.",
        "[error]tm, trans fes tblMsgProc is NULL, tbl:600.",
        "[error]tm, trans fes tbl shorter than its header, tbl:200, tlvLen = 4.",
        "[error]tm, trans fes tbl exceeds tlv, tbl:200, tbl nums = 16, tblsize = 4, tlvLen = 16.",
        "[error] tblSize is zero.",
        "tm, proc trans comp tbl failed. tbl = 100, tblType = 19.",
    };
    EXPECT_EQ(rixtest::Lines(), want) << rixtest::DumpLines();
}

TEST_F(TransTest, MalformedLengthsStopTheWalkInsideTheBody)
{
    struct Case {
        const char *what;
        Bytes body;
        uint32_t result;
        size_t tblCalls;
        std::string line;
    };
    Bytes one;
    Tlv(one, 100, 1, Bytes(8, 0));
    Bytes headerCut = one;
    headerCut.resize(one.size() + 8, 0);     // a second TLV header of 8 bytes only
    Bytes valueCut = one;
    Tlv(valueCut, 100, 1, Bytes(8, 0));
    valueCut.resize(valueCut.size() - 4);    // its value runs 4 bytes past the area
    std::vector<Case> cases;
    cases.push_back({"body below 12", Bytes(11, 0), 1, 0,
                     "tm, recv feibrk trans msg 2139062133 shorter than its header. len = 11."});
    cases.push_back({"area 11", TransBody(Bytes(11, 0)), 1, 0, "tm, recv feibrk trans msg is error."});
    cases.push_back({"area beyond body", TransBody(one, 40), 1, 0,
                     "tm, recv feibrk trans msg 2139062133 tlv area exceeds body. tlvArea = 40, len = 32."});
    cases.push_back({"header cut", TransBody(headerCut), 1, 1,
                     "tm, feibrk trans msg 2139062133 tlv 1 header exceeds area. offset = 20, tlvArea = 28."});
    cases.push_back({"value cut", TransBody(valueCut), 1, 1,
                     "tm, feibrk trans msg 2139062133 tlv 1 exceeds area. tbl = 100, offset = 20, tlvLen = 8, "
                     "tlvArea = 36."});
    for (const Case &c : cases) {
        g_tbl.clear();
        RIX_TEST_LogClear();
        EXPECT_EQ(Send(c.body), c.result) << c.what;
        EXPECT_EQ(g_tbl.size(), c.tblCalls) << c.what;
        EXPECT_TRUE(rixtest::HasLine(c.line)) << c.what << "\n" << rixtest::DumpLines();
    }
    // An odd-sized body leaves every word unaligned; the walk still reads inside it.
    g_tbl.clear();
    Bytes odd;
    Tlv(odd, 100, 1, Bytes(9, 0));
    Tlv(odd, 300, 0, Words({15, 20, 300, 1, 2}));
    ASSERT_EQ(Send(TransBody(odd)), 0u);
    EXPECT_EQ(g_tbl.size(), 1u);
    EXPECT_EQ(RIX_TEST_EntryCount(), 1u);
}

TEST_F(TransTest, SmoothingItemsThatDoNotFitFailTheirTlvOnly)
{
    Bytes area;
    Tlv(area, 300, 0, Words({7, 16, 300, 1, 0xAB}));                 // 0: 4 bytes left over
    Tlv(area, 300, 0, Words({9, 28, 300, 1, 2, 3, 4}));              // 1: type 9 must be 32
    Tlv(area, 300, 0, Words({9, 32, 300, 1, 2}));                    // 2: item beyond its TLV
    Tlv(area, 300, 0, Words({15, 20, 300, 7, 1, 12, 16, 300, 0}));   // 3: handled, then empty slot
    Tlv(area, 300, 0, Words({192, 16, 300, 0}));                     // 4: beyond the table
    Tlv(area, 302, 3, {});                                           // 5: empty TLV succeeds
    Tlv(area, 100, 1, Bytes(8, 0));                                  // 6: the walk went on
    ASSERT_EQ(Send(TransBody(area)), 0u);
    EXPECT_EQ(g_tbl.size(), 1u);
    // Items before a failing one stay handled.
    EXPECT_EQ(g_sm.size(), 2u);
    EXPECT_EQ(RIX_TEST_EntryCount(), 2u);
    EXPECT_TRUE(rixtest::HasLine("tm, smooth item header exceeds tlv. tableId = 300, remain = 4, tlvLen = 20"));
    EXPECT_TRUE(rixtest::HasLine("smooth check msgSize failed. tableId = 300, optType = 9, length = 28, msgSize = 32"));
    EXPECT_TRUE(rixtest::HasLine("smooth check msgSize failed. tableId = 300, optType = 9, length = 32, msgSize = 32"));
    for (uint32_t i : {0u, 1u, 2u, 3u, 4u}) {
        EXPECT_EQ(rixtest::CountContaining("tm, proc feibrk trans msg " + std::to_string(i) + " failed."), 1u) << i;
    }
    EXPECT_EQ(rixtest::CountContaining("tm, smooth tbl proc failed. tableId = 300, tlvType = 0"), 5u);
    EXPECT_EQ(rixtest::CountContaining("proc feibrk trans msg 5 failed"), 0u);
}

TEST_F(TransTest, FailingEntryPointsEndTheirTlvWithTheHandlersLine)
{
    struct Case {
        Bytes item;
        const char *op;
        std::string line;
    };
    const std::vector<Case> cases = {
        {Words({7, 16, 300, 41}), "RIX_ENTRY_ProcVrfStateBegin",
         "tm, smooth classitem proc failed. tableId = 300, optType = 7, srcPid = 41"},
        {Words({8, 16, 300, 41}), "RIX_ENTRY_ProcVrfStateEnd",
         "tm, smooth classitem proc failed. tableId = 300, optType = 8, srcPid = 41"},
        {Words({9, 32, 300, 1, 2, 3, 77, 88}), "RIX_ENTRY_ProcVrfState",
         "tm, smooth classState proc failed. tableId = 300, topologyId = 77, vrfState = 88"},
        {Words({11, 28, 300, 43, 1, 2, 3}), "RIX_ENTRY_ProcVrfDataEnd",
         "tm, smooth vrfClassitem proc failed. tableId = 300, optType = 11, srcPid = 43"},
    };
    for (const Case &c : cases) {
        RIX_TEST_LogClear();
        RIX_TEST_FailNth(c.op, 1);
        Bytes items = c.item;
        for (uint32_t w : {15u, 20u, 300u, 1u, 2u}) Put(items, w);  // never reached
        Bytes area;
        Tlv(area, 300, 0, items);
        const uint32_t before = RIX_TEST_EntryCount();
        ASSERT_EQ(Send(TransBody(area)), 0u);
        EXPECT_TRUE(rixtest::HasLine(c.line)) << c.op << "\n" << rixtest::DumpLines();
        EXPECT_EQ(RIX_TEST_CallCount("RIX_ENTRY_ProcPidState"), 0u) << c.op;
        EXPECT_LE(RIX_TEST_EntryCount() - before, 1u);
        EXPECT_EQ(rixtest::CountContaining("tm, proc feibrk trans msg 0 failed. tbl = 300, tlvType = 0"), 1u);
    }
}

}  // namespace
