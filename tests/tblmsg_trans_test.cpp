// Transfer messages: the TLV walk, plain and composite tables in both layouts, smoothing
// items reaching callbacks and entry points, and every malformed length kept inside the body.
#include <array>
#include <cstring>
#include <memory>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "test_support.h"

namespace {

using Bytes = std::vector<uint8_t>;

Bytes W(std::initializer_list<uint32_t> ws)
{
    Bytes b(ws.size() * 4);
    std::memcpy(b.data(), ws.begin(), b.size());
    return b;
}
Bytes operator+(Bytes a, const Bytes &b)
{
    return a.insert(a.end(), b.begin(), b.end()), a;
}
Bytes Tlv(uint32_t tableId, uint32_t type, const Bytes &v)
{
    return W({tableId, type, uint32_t(v.size())}) + v;
}
Bytes TransBody(const Bytes &area, uint32_t areaLen)
{
    return Bytes(8, 0xEE) + W({areaLen}) + area;
}
Bytes TransBody(const Bytes &area)
{
    return TransBody(area, uint32_t(area.size()));
}

// A tblMsgProc call: offset of the tables into the body (0: elsewhere), nums, size, version,
// procParam, tlvType.
using TblCall = std::array<uint32_t, 6>;
std::vector<TblCall> g_tbl;
uint32_t g_tblResult = 0;
std::unique_ptr<rixtest::GuardedBuffer> g_body;  // the message body
uint32_t TblProc(ASOrchHandle *, void *tables, uint32_t nums, uint32_t size, ASOrchTblProcInfo *info)
{
    const auto *t = static_cast<const uint8_t *>(tables), *b = g_body->data();
    const uint32_t off = t >= b && t < b + g_body->size() ? uint32_t(t - b) : 0;
    g_tbl.push_back({off, nums, size, info->version, info->procParam, info->tlvType});
    return g_tblResult;
}

// A smoothing callback: 'P' pre or 'S' smoothProc, tableId, optType, null record, record bytes.
using SmCall = std::tuple<char, uint32_t, uint32_t, bool, Bytes>;
std::vector<SmCall> g_sm;
uint32_t Record(char who, uint32_t tableId, uint32_t optType, void *rec, uint32_t size)
{
    const auto *p = static_cast<const uint8_t *>(rec);
    g_sm.emplace_back(who, tableId, optType, p == nullptr, p ? Bytes(p, p + size) : Bytes{});
    return 0;
}
uint32_t Pre(uint32_t t, uint32_t o, void *r, uint32_t s)
{
    return Record('P', t, o, r, s);
}
uint32_t Proc(uint32_t t, uint32_t o, void *r, uint32_t s)
{
    return Record('S', t, o, r, s);
}

std::vector<std::pair<std::string, Bytes>> Entries()
{
    std::vector<std::pair<std::string, Bytes>> out;
    const void *r = nullptr;
    uint32_t n = 0;
    for (uint32_t i = 0; i < RIX_TEST_EntryCount(); ++i) {
        const char *name = RIX_TEST_EntryCall(i, &r, &n);
        out.emplace_back(name, Bytes(static_cast<const uint8_t *>(r), static_cast<const uint8_t *>(r) + n));
    }
    return out;
}

// 100 DAM (tblSize 8), 200 FES (tblSize 4), 300 pre only, 301 both callbacks, 302 none,
// 400 tblSize 0, 500 and 600 without tblMsgProc.
ASOrchTblMsgTransReg g_dam[] = {{100, 8, nullptr, nullptr, 0xA1, TblProc}, {300, 0, Pre, nullptr, 0, TblProc},
                                {301, 0, Pre, Proc, 0, TblProc},           {302, 0, nullptr, nullptr, 0, nullptr},
                                {400, 0, nullptr, nullptr, 0, TblProc},    {500, 4, nullptr, nullptr, 0, nullptr}};
ASOrchTblMsgTransReg g_fes[] = {{200, 4, nullptr, nullptr, 0xB2, TblProc}, {600, 0, nullptr, nullptr, 0, nullptr}};

class TransTest : public rixtest::OrchTest {
protected:
    TransTest() { name_ = "tm"; }
    void SetUp() override
    {
        OrchTest::SetUp();
        g_tbl.clear();
        g_sm.clear();
        g_tblResult = 0;
        base_.transTblMsg[0] = {g_dam, std::size(g_dam)};
        base_.transTblMsg[1] = {g_fes, std::size(g_fes)};
        ASSERT_EQ(ASOrchRegTblMsg(h_, &base_), 0u);
        RIX_TEST_LogClear();
    }
    // The body sits at the very end of a guarded buffer: one byte past it faults.
    uint32_t Send(const Bytes &body)
    {
        g_body = std::make_unique<rixtest::GuardedBuffer>(body.size());
        std::memcpy(g_body->data(), body.data(), body.size());
        ASOrchMsg msg{g_body->data(), 0x7F7F7F75u, static_cast<uint32_t>(body.size())};
        return ASOrchMsgProc(h_, &msg);
    }
};

TEST_F(TransTest, EveryTlvTypeReachesItsConsumerByteForByte)
{
    const Bytes items = W({7, 16, 300, 41}) +                      // class begin
                        W({15, 20, 300, 42, 3}) +                  // pid state
                        W({9, 32, 300, 5, 6, 7, 8, 9}) +           // vrf state
                        W({10, 28, 300, 43, 1, 2, 3}) +            // vrf data begin
                        W({11, 28, 300, 44, 4, 5, 6}) +            // vrf data end
                        W({8, 16, 300, 45}) +                      // class end
                        W({16, 16, 300, 46}) +                     // LR: smoothProc only
                        W({190, 16, 300, 47});                     // DAM class
    const Bytes area = Tlv(100, 1, Bytes(20, 0x11))                // 0: DAM, 2 x 8, 4 ignored
                       + Tlv(200, 1, W({0xDEAD, 12, 1, 2, 3}))     // 1: FES, 12 bytes of 4
                       + Tlv(999, 1, Bytes(4, 0))                  // 2: unknown table
                       + Tlv(200, 2, W({0, 6, 0x22, 0x22, 0x22}))  // 3: FES, 2 x 6
                       + Tlv(100, 18, Bytes(4, 0x33))              // 4: composite
                       + Tlv(300, 0, items)                        // 5
                       + Tlv(301, 5, W({7, 16, 301, 51, 16, 16, 301, 52, 191, 16, 301, 53}))  // 6
                       + Tlv(100, 19, {})                                                     // 7
                       + Tlv(100, 2, Bytes(6, 0x44));                                         // 8: DAM single entry
    ASSERT_EQ(ASOrchIncTransTblMsgVersion(h_, 100, nullptr), 0u);
    ASSERT_EQ(Send(TransBody(area)), 0u) << rixtest::DumpLines();

    // Composite tables are handed whole, from their TLV header.
    const std::vector<TblCall> tbl = {{24, 2, 8, 1, 0xA1, 1},    {64, 3, 4, 0, 0xB2, 1},    {112, 2, 6, 0, 0xB2, 2},
                                      {124, 1, 16, 1, 0xA1, 18}, {384, 1, 12, 1, 0xA1, 19}, {408, 1, 6, 1, 0xA1, 2}};
    EXPECT_EQ(g_tbl, tbl);
    EXPECT_TRUE(rixtest::HasLine("tm, get tbl trans tbl failed.tableId = 999.")) << rixtest::DumpLines();
    EXPECT_TRUE(rixtest::HasLine("tm, proc feibrk trans msg 2 failed. tbl = 999, tlvType = 1, tlvLen = 4"));
    EXPECT_TRUE(rixtest::HasLine("tm, smooth state proc. tableId = 300, pidState = 3, srcPid = 42"));

    // Table 300 (pre only): pre sees every stateful record, then the entry point; 16 calls
    // nothing; 190 hands pre a null record. Table 301: smoothProc only, no entry point.
    const Bytes cls = W({300, 41, 0}), pid = W({300, 42, 3}), vrf = W({300, 5, 6, 7, 8, 9}) + Bytes(48, 0);
    const Bytes vdb = W({300, 43, 1, 2, 3, 0}), vde = W({300, 44, 4, 5, 6, 0}), cle = W({300, 45, 0});
    const std::vector<SmCall> sm = {{'P', 300, 7, false, cls},
                                    {'P', 300, 15, false, pid},
                                    {'P', 300, 9, false, vrf},
                                    {'P', 300, 10, false, vdb},
                                    {'P', 300, 11, false, vde},
                                    {'P', 300, 8, false, cle},
                                    {'P', 300, 190, true, {}},
                                    {'S', 301, 7, false, W({301, 51, 0})},
                                    {'S', 301, 16, false, W({301, 52, 0})},
                                    {'S', 301, 191, true, {}}};
    EXPECT_EQ(g_sm, sm);
    const std::vector<std::pair<std::string, Bytes>> entries = {{"RIX_ENTRY_ProcVrfStateBegin", cls},
                                                                {"RIX_ENTRY_ProcPidState", pid},
                                                                {"RIX_ENTRY_ProcVrfState", vrf},
                                                                {"RIX_ENTRY_ProcVrfDataBegin", vdb},
                                                                {"RIX_ENTRY_ProcVrfDataEnd", vde},
                                                                {"RIX_ENTRY_ProcVrfStateEnd", cle}};
    EXPECT_EQ(Entries(), entries);
}

TEST_F(TransTest, FailingTlvsAreLoggedAndTheWalkGoesOn)
{
    g_tblResult = 9;
    // Table TLVs 0..8 log one line each and no index. Smoothing TLVs 9..17 of table 300 log
    // why (if anything), then their index; a pid state item follows every failing entry point
    // and must never be reached.
    const Bytes pid = W({15, 20, 300, 1, 2});
    const std::pair<Bytes, std::string> tlvs[] = {
        {Tlv(400, 1, Bytes(8, 0)), "[error] tblSize is zero."},  // registered tblSize 0
        {Tlv(400, 2, Bytes(8, 0)), "tm, proc trans dam tbl failed. tbl nums = 1, tblsize = 8."},
        {Tlv(100, 2, {}), "[error] tblSize is zero."},
        {Tlv(500, 1, Bytes(8, 0)), "[error]tm, trans dam tblMsgProc is NULL, tbl:500."},
        {Tlv(600, 18, {}), "[error]tm, trans fes tblMsgProc is NULL, tbl:600."},
        {Tlv(200, 1, W({0})), "[error]tm, trans fes tbl shorter than its header, tbl:200, tlvLen = 4."},
        {Tlv(200, 1, W({0, 64, 1, 2})),
         "[error]tm, trans fes tbl exceeds tlv, tbl:200, tbl nums = 16, tblsize = 4, tlvLen = 16."},
        {Tlv(200, 2, W({0, 0})), "[error] tblSize is zero."},
        {Tlv(100, 19, Bytes(4, 0)), "tm, proc trans comp tbl failed. tbl = 100, tblType = 19."},
        {W({16, 16, 300, 1, 0xAB}), "tm, smooth item header exceeds tlv. tableId = 300, remain = 4, tlvLen = 20"},
        {W({9, 28, 300, 1, 2, 3, 4}),
         "smooth check msgSize failed. tableId = 300, optType = 9, length = 28, msgSize = 32"},
        {W({9, 32, 300, 1, 2}),  // the item runs past its TLV
         "smooth check msgSize failed. tableId = 300, optType = 9, length = 32, msgSize = 32"},
        {W({15, 20, 300, 7, 1, 12, 16, 300, 0}),  // handled (its line), then an empty slot
         "tm, smooth state proc. tableId = 300, pidState = 1, srcPid = 7"},
        {W({192, 16, 300, 0}), ""},  // beyond the table
        {W({7, 16, 300, 41}) + pid, "tm, smooth classitem proc failed. tableId = 300, optType = 7, srcPid = 41"},
        {W({8, 16, 300, 42}) + pid, "tm, smooth classitem proc failed. tableId = 300, optType = 8, srcPid = 42"},
        {W({9, 32, 300, 1, 2, 3, 77, 88}) + pid,
         "tm, smooth classState proc failed. tableId = 300, topologyId = 77, vrfState = 88"},
        {W({11, 28, 300, 43, 1, 2, 3}) + pid,
         "tm, smooth vrfClassitem proc failed. tableId = 300, optType = 11, srcPid = 43"},
    };
    Bytes area;
    std::vector<std::string> want;
    for (size_t i = 0; i < std::size(tlvs); ++i) {
        const auto &[value, line] = tlvs[i];
        area = area + (i < 9 ? value : Tlv(300, 0, value));
        if (!line.empty()) {
            want.push_back(line);
        }
        if (i >= 9) {
            const std::string len = ", tlvType = 0, tlvLen = " + std::to_string(value.size());
            want.push_back("tm, smooth tbl proc failed. tableId = 300" + len);
            want.push_back("tm, proc feibrk trans msg " + std::to_string(i) + " failed. tbl = 300" + len);
        }
    }
    for (const char *op : {"RIX_ENTRY_ProcVrfStateBegin", "RIX_ENTRY_ProcVrfStateEnd", "RIX_ENTRY_ProcVrfState",
                           "RIX_ENTRY_ProcVrfDataEnd"}) {
        RIX_TEST_FailNth(op, 1);
    }
    ASSERT_EQ(Send(TransBody(area + Tlv(302, 3, {}))), 0u);  // 18: an empty TLV succeeds
    EXPECT_EQ(g_tbl, (std::vector<TblCall>{{44, 1, 8, 0, 0, 2}, {160, 1, 16, 0, 0xA1, 19}}));
    EXPECT_EQ(rixtest::Lines(), want) << rixtest::DumpLines();
    EXPECT_EQ(g_sm.size(), 5u);
    EXPECT_EQ(RIX_TEST_CallCount("RIX_ENTRY_ProcPidState"), 1u);
}

TEST_F(TransTest, MalformedLengthsStopTheWalkInsideTheBody)
{
    const Bytes one = Tlv(100, 1, Bytes(8, 0));
    Bytes valueCut = one + one;
    valueCut.resize(valueCut.size() - 4);  // the second value runs 4 bytes past the area
    const std::tuple<Bytes, size_t, std::string> cases[] = {
        // body, tblMsgProc calls, line
        {Bytes(11, 0), 0, "tm, recv feibrk trans msg 2139062133 shorter than its header. len = 11."},
        {TransBody(Bytes(11, 0)), 0, "tm, recv feibrk trans msg is error."},
        {TransBody(one, 40), 0, "tm, recv feibrk trans msg 2139062133 tlv area exceeds body. tlvArea = 40, len = 32."},
        {TransBody(one + Bytes(8, 0)), 1,  // a second TLV header of 8 bytes only
         "tm, feibrk trans msg 2139062133 tlv 1 header exceeds area. offset = 20, tlvArea = 28."},
        {TransBody(valueCut), 1,
         "tm, feibrk trans msg 2139062133 tlv 1 exceeds area. tbl = 100, offset = 20, tlvLen = 8, tlvArea = 36."},
    };
    for (const auto &[body, calls, line] : cases) {
        g_tbl.clear();
        RIX_TEST_LogClear();
        EXPECT_EQ(Send(body), 1u) << line;
        EXPECT_EQ(g_tbl.size(), calls) << line;
        EXPECT_TRUE(rixtest::HasLine(line)) << line << "\n" << rixtest::DumpLines();
    }
    // An odd-sized body leaves every word unaligned; the walk still reads inside it.
    g_tbl.clear();
    ASSERT_EQ(Send(TransBody(Tlv(100, 1, Bytes(9, 0)) + Tlv(300, 0, W({15, 20, 300, 1, 2})))), 0u);
    EXPECT_EQ(g_tbl.size(), 1u);
    EXPECT_EQ(RIX_TEST_EntryCount(), 1u);
}

// Straight to the smoothing entry: an item of a slot without a handler, a word shorter or
// longer than its slot's size, or a header past what remains is refused before any callback;
// the pid state entry point's result is not used.
TEST_F(TransTest, SmoothItemsOfUnservedSlotsOrWrongLengthsAreRefusedUntouched)
{
    auto item = [this](uint32_t optType, uint32_t length, uint32_t slack, bool callbacks = true) {
        rixtest::GuardedBuffer buf(length + slack);
        std::memset(buf.data(), 0, buf.size());
        const uint32_t hdr[3] = {optType, length, 9};
        std::memcpy(buf.data(), hdr, length < sizeof(hdr) ? length : sizeof(hdr));
        return ASOrchSmoothMsgProc(h_, reinterpret_cast<const ASOrchSmoothItem *>(buf.data()),
                                   static_cast<int32_t>(length + slack), callbacks ? Pre : nullptr,
                                   callbacks ? Proc : nullptr);
    };
    for (uint32_t op : {0u, 6u, 12u, 14u, 18u, 189u, 192u, 255u}) {
        EXPECT_EQ(item(op, 16u, 4u), -1) << op;
    }
    EXPECT_EQ(item(7u, 8u, 0u), -1);  // not even a whole header
    // LR class 2 (16 bytes) and vrf state (32 bytes): smoothProc takes the right length only.
    for (auto [op, length] : {std::pair{17u, 16u}, {9u, 32u}}) {
        EXPECT_EQ(item(op, length - 4u, 8u), -1) << op;
        EXPECT_EQ(item(op, length + 4u, 0u), -1) << op;
        EXPECT_EQ(item(op, length, 4u), 4) << op;
    }
    ASSERT_EQ(g_sm.size(), 2u);
    EXPECT_EQ(std::make_tuple(std::get<0>(g_sm[0]), std::get<2>(g_sm[0]), std::get<4>(g_sm[0]).size()),
              std::make_tuple('S', 17u, size_t{12}));
    EXPECT_EQ(std::make_tuple(std::get<0>(g_sm[1]), std::get<2>(g_sm[1]), std::get<4>(g_sm[1]).size()),
              std::make_tuple('S', 9u, size_t{72}));
    EXPECT_EQ(RIX_TEST_EntryCount(), 0u);
    RIX_TEST_FailNth("RIX_ENTRY_ProcPidState", 1);
    EXPECT_EQ(item(15u, 20u, 0u, false), 0);
    EXPECT_TRUE(rixtest::HasLine("tm, smooth state proc. tableId = 9, pidState = 0, srcPid = 0"));
}

}  // namespace
