// Receive registry and recv messages: registration failures, lookups, both body forms, the
// user-defined and per-record paths, versions, the channel senders, and the whole road to
// msgProc through a merge queue drained on the DATA thread.
#include <arpa/inet.h>

#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "test_support.h"

namespace {

using Bytes = std::vector<uint8_t>;
constexpr uint32_t kRec = 8;  // 4-byte key, 4-byte value

// An 8-byte header, then the words (records are key, value pairs).
Bytes Body(std::initializer_list<uint32_t> words)
{
    Bytes b(8, 0xEE);
    for (uint32_t w : words)
        b.insert(b.end(), reinterpret_cast<uint8_t *>(&w), reinterpret_cast<uint8_t *>(&w) + 4);
    return b;
}
uint32_t U32(const void *p, size_t off = 0)
{
    uint32_t v = 0;
    std::memcpy(&v, static_cast<const uint8_t *>(p) + off, 4);
    return v;
}

struct Seen {
    uint32_t msgId, opType, key, value, keyLen, dataLen, version;
    const void *data;
};
std::vector<Seen> g_seen;
uint32_t MsgProc(ASOrchHandle *, ASOrchMsgVec *v)
{
    g_seen.push_back({v->msgId, v->opType, U32(v->key), U32(v->data, 4), v->keyLen, v->dataLen, v->version, v->data});
    return 0;
}
uint32_t KeyHash(const void *key)
{
    return U32(static_cast<const ASOrchMsgVec *>(key)->key);
}

std::vector<std::tuple<const void *, uint32_t, ASOrchTblProcInfo>> g_user;  // records, num, info
uint32_t UserProc(ASOrchHandle *, void *records, uint32_t num, ASOrchTblProcInfo *info)
{
    g_user.emplace_back(records, num, *info);
    return num == 2 ? 5u : 0u;
}

// Serial form: the body is [opType][records...] after the header; the result points into it.
uint32_t g_unpacks = 0, g_frees = 0;
void Unpack(void *data, uint32_t len, ASOrchUnpackResult *res, ASOrchMsg *)
{
    ++g_unpacks;
    res->opType = U32(data, 8);
    res->ipcNum = (len - 12) / kRec;
    res->ipcBuf = static_cast<uint8_t *>(data) + 12;
}
void UnpackFree(ASOrchUnpackResult *)
{
    ++g_frees;
}

class RecvTest : public rixtest::OrchTest {
protected:
    RecvTest() { name_ = "rv"; }
    void SetUp() override
    {
        OrchTest::SetUp();
        g_seen.clear();
        g_user.clear();
        g_unpacks = g_frees = 0;
        held_ = rixtest::LiveAllocations();
    }
    uint32_t Register(std::vector<ASOrchTblMsgRecvReg> l0, std::vector<ASOrchTblMsgRecvReg> l1 = {})
    {
        lists_[0] = std::move(l0);
        lists_[1] = std::move(l1);
        ASOrchBasePara base{};
        for (int i = 0; i < 2; ++i)
            base.recvTblMsg[i] = {lists_[i].data(), uint32_t(lists_[i].size())};
        base.mergeMque[0] = {mergeMsg_, 1, 64, KeyHash, 0, 0};
        const uint32_t r = ASOrchRegTblMsg(h_, &base);
        if (r == 0) {
            EXPECT_EQ(ASOrchRegMerge(h_, &base), 0u) << rixtest::DumpLines();
        }
        return r;
    }
    uint32_t Send(uint32_t msgId, const Bytes &body)
    {
        guard_ = std::make_unique<rixtest::GuardedBuffer>(body.size());
        std::memcpy(guard_->data(), body.data(), body.size());
        ASOrchMsg msg{guard_->data(), msgId, static_cast<uint32_t>(body.size())};
        return ASOrchMsgProc(h_, &msg);
    }

    int64_t held_ = 0;  // what the orchestrator itself holds
    std::vector<ASOrchTblMsgRecvReg> lists_[2];
    ASOrchMergeMsg mergeMsg_[1] = {{77, {MsgProc, MsgProc, MsgProc, MsgProc}}};
    std::unique_ptr<rixtest::GuardedBuffer> guard_;
};

// mergeMsgId, msgId, opType, unpack, free, ipcSize, mergeType, userDef, mergeOpType, keySize
ASOrchTblMsgRecvReg Plain(uint32_t msgId, uint32_t mergeType, uint32_t mergeOpType = 0)
{
    return {77, msgId, 0, nullptr, nullptr, kRec, mergeType, nullptr, mergeOpType, 4};
}

TEST_F(RecvTest, RegistryRefusesDuplicatesAndGivesEverythingBack)
{
    // The same msgId in both lists: the step fails and the registry is dropped whole.
    ASSERT_EQ(Register({Plain(5, 4), Plain(133, 4)}, {Plain(7, 4), Plain(5, 4)}), 1u);
    EXPECT_TRUE(rixtest::HasLine("Orch autosync recv add HashNode(5) fail")) << rixtest::DumpLines();
    EXPECT_TRUE(rixtest::HasLine("rv, Orch auto sync creat tblmsg hash Fail"));
    EXPECT_EQ(h_->tblMsgRecvHash, nullptr);
    EXPECT_EQ(ASOrchGetTblMsgRecv(h_, 5), nullptr);
    EXPECT_TRUE(rixtest::HasLine("hashTble is null, unknown key 5."));
    EXPECT_EQ(rixtest::LiveAllocations(), held_) << "nothing of the registry is left";

    // A failing node block leaves nothing behind either.
    rixtest::FailAllocNth(2);
    ASSERT_EQ(Register({Plain(5, 4)}), 1u);
    EXPECT_TRUE(rixtest::HasLine("Orch auto sync recv tbl msg failed to new HashNode"));
    EXPECT_EQ(rixtest::LiveAllocations(), held_);
    // Nor a bounded copy failing on the first node, before any node of the block is hashed.
    for (const char *op : {"memset_s", "memcpy_s"}) {
        RIX_TEST_FailNth(op, 1);
        ASSERT_EQ(Register({Plain(5, 4), Plain(6, 4)}), 1u) << op;
        EXPECT_EQ(rixtest::LiveAllocations(), held_) << op;
    }
    RIX_TEST_Reset();

    // Keys equal modulo 128 share a bucket and are all found; no mb role, no registry.
    ASSERT_EQ(Register({Plain(5, 4), Plain(133, 4)}, {Plain(261, 4)}), 0u);
    for (uint32_t k : {5u, 133u, 261u}) {
        const auto *r = ASOrchGetTblMsgRecv(h_, k);
        EXPECT_EQ(r ? r->msgId : 0, k);
    }
    ASOrchFreeTblMsg(h_);
    ASOrchFreeMergeHandle(h_);
    ASOrchFreeTblMsg(h_);
    EXPECT_EQ(rixtest::LiveAllocations(), held_);
    RIX_TEST_EalSetMbRole(ASOrchGetEalHdl(h_), 0);
    ASSERT_EQ(Register({Plain(5, 4)}), 0u);
    EXPECT_EQ(h_->tblMsgRecvHash, nullptr);
}

// Registrations that can never work are accepted, and said once, by name and id.
TEST_F(RecvTest, RegistrationsThatCannotWorkAreNamedOnce)
{
    ASOrchTblMsgRecvReg noRecord = Plain(5, 4), longKey = Plain(6, 0), noKey = Plain(7, 1), fine = Plain(8, 0);
    noRecord.ipcSize = 0;
    longKey.keySize = kRec + 1;
    noKey.keySize = 0;
    ASSERT_EQ(Register({noRecord, longKey, noKey, fine}), 0u);
    EXPECT_TRUE(rixtest::HasLine("rv, recv msgId 5: record size 0, key size 4, its messages will be refused."));
    EXPECT_TRUE(rixtest::HasLine("rv, recv msgId 6: record size " + std::to_string(kRec) + ", key size " +
                                 std::to_string(kRec + 1) + ", its messages will be refused."));
    EXPECT_TRUE(rixtest::HasLine("rv, recv msgId 7: key size is 0, its records cannot be merged."));
    EXPECT_EQ(rixtest::CountContaining("rv, recv msgId"), 3u) << rixtest::DumpLines();
}

TEST_F(RecvTest, BodiesGoRecordByRecordInOrderOrAsOneRunWithTheirVersions)
{
    ASOrchTblMsgRecvReg user = Plain(20, 9), zero = Plain(30, 4);
    ASOrchTblMsgRecvReg serial{77, 40, 1, Unpack, UnpackFree, kRec, 4, nullptr, 0, 4}, noFree = serial;
    user.userDefProc = UserProc;
    zero.ipcSize = 0;
    noFree.msgId = 41;
    noFree.unpackFreeFunc = nullptr;
    ASSERT_EQ(Register({Plain(10, 4, 1), user, zero, serial, noFree}, {Plain(0x7F7F7F70u, 4), Plain(0x7F7F7F6Fu, 4)}),
              0u);
    uint32_t v1 = 0, v2 = 0;
    ASSERT_EQ(ASOrchIncTblMsgVersion(h_, 10, &v1), 0u);
    ASSERT_EQ(ASOrchIncTblMsgVersion(h_, 20, &v2), 0u);
    ASSERT_EQ(ASOrchIncTblMsgVersion(h_, 20, &v2), 0u);
    EXPECT_EQ(std::pair(v1, v2), std::pair(1u, 2u));

    ASSERT_EQ(Send(10, Body({1, 100, 2, 200, 3, 300})), 0u);
    ASSERT_EQ(g_seen.size(), 3u);
    for (uint32_t i = 0; i < 3; ++i) {
        const Seen &s = g_seen[i];
        EXPECT_EQ(std::tuple(s.key, s.value, s.msgId, s.opType, s.keyLen, s.dataLen, s.version),
                  std::tuple(i + 1, 100 * (i + 1), 77u, 1u, 4u, kRec, 1u))
            << i;
        EXPECT_EQ(s.data, guard_->data() + 8 + i * kRec) << "records are not copied";
    }
    ASSERT_EQ(Send(0x7F7F7F6Fu, Body({9, 9})), 0u);
    EXPECT_EQ(g_seen.size(), 4u);

    // The user-defined path: one call per message, even without records, never the merge layer.
    ASSERT_EQ(Send(20, Body({1, 1, 2, 2})), 0u);
    ASSERT_EQ(Send(20, Body({})), 0u);
    ASSERT_EQ(g_user.size(), 2u);
    const auto &[rec0, num0, info] = g_user[0];
    const auto &[rec1, num1, info1] = g_user[1];
    EXPECT_EQ(std::tuple(num0, num1, rec1), std::tuple(2u, 0u, static_cast<const void *>(guard_->data() + 8)));
    EXPECT_EQ(std::tuple(info.procParam, info.tlvType, info.version), std::tuple(9u, 0u, 2u));
    EXPECT_TRUE(rixtest::HasLine("ORCH_ASMsgProc fail, ret 5!"));
    // Serial bodies are unpacked once, opType checked, and always released.
    ASSERT_EQ(Send(40, Body({1, 0, 0, 1, 0, 2, 0})), 0u);  // opType 1, keys 0..2
    ASSERT_EQ(g_seen.size(), 7u);
    EXPECT_EQ(std::pair(g_seen[4].key, g_seen[6].key), std::pair(0u, 2u));

    // Refused bodies, each read only inside itself, and unknown version keys.
    RIX_TEST_LogClear();
    EXPECT_EQ(Send(10, Bytes(8 + kRec + 1, 0)), 1u);
    EXPECT_EQ(Send(10, Bytes(5, 0)), 1u);
    EXPECT_EQ(Send(30, Bytes(16, 0)), 1u);
    EXPECT_EQ(Send(99, Body({1, 1})), 0u);
    EXPECT_EQ(Send(40, Body({2, 0, 0})), 1u);  // an opType other than registered
    EXPECT_EQ(Send(41, Body({1, 0, 0})), 1u);
    EXPECT_EQ(std::pair(g_unpacks, g_frees), std::pair(2u, 2u));
    EXPECT_EQ(ASOrchIncTblMsgVersion(h_, 11, &v1), 1u);
    EXPECT_EQ(ASOrchIncTransTblMsgVersion(h_, 10, &v1), 1u);
    const std::vector<std::string> want = {"msgLen is not multi of ipcSize, len = 9, size = 8.",
                                           "msgLen is not multi of ipcSize, len = 5, size = 8.",
                                           "msgLen is not multi of ipcSize, len = 8, size = 0.",
                                           "OrchGetTblMsgCtrl from hash failed, unknown key 99.",
                                           "msg proc unknown msg! msgId:99",
                                           "ipc unpack msgId = 40 opType = 2 is error.",
                                           "unpack para is null.",
                                           "OrchGetTblMsgCtrl from hash failed, unknown key 11.",
                                           "Orch set tblmsg version failed. msgId:11",
                                           "hashTble is null, unknown key 10.",
                                           "Orch set tblmsg version failed. tableId:10"};
    EXPECT_EQ(rixtest::Lines(), want) << rixtest::DumpLines();
    EXPECT_EQ(g_seen.size(), 7u);
}

TEST_F(RecvTest, SendersUseTheirChannelAndLoopbackAndNullArgumentsAreRefused)
{
    uint8_t buf[6] = {1, 2, 3, 4, 5, 6};
    void *eal = ASOrchGetEalHdl(h_);
    EXPECT_EQ(ASOrchFesChanMsgVec(h_, buf, sizeof(buf)), 0u);
    EXPECT_EQ(ASOrchDamChanMsgVec(h_, buf, 4), 0u);
    uint32_t len = 0, addr = 0;  // FES goes on channel 1 to loopback, DAM on channel 0
    ASSERT_NE(RIX_TEST_ChanLastSent(eal, 1, &len, &addr), nullptr);
    EXPECT_EQ(std::tuple(len, addr, RIX_TEST_ChanSendCount(eal, 0), RIX_TEST_ChanSendCount(eal, 1)),
              std::tuple(6u, htonl(0x7F000001u), 1u, 1u));
    RIX_TEST_LogClear();
    RIX_TEST_FailNth("RIX_EAL_GetChannelHdl", 1);
    EXPECT_EQ(ASOrchDamChanMsgVec(h_, buf, 4), 1u);
    EXPECT_EQ(ASOrchMsgProc(nullptr, nullptr), 1u);
    ASOrchMsg empty{nullptr, 1, 0};
    EXPECT_EQ(ASOrchMsgProc(h_, &empty), 1u);
    EXPECT_EQ(ASOrchMsgInfoProc(h_, nullptr), 1u);
    EXPECT_EQ(ASOrchSmoothMsgProc(h_, nullptr, 16, nullptr, nullptr), -1);
    const std::vector<std::string> want = {"rv, send chan 0 msg failed, no channel. len = 4.",
                                           "recv feibrk channel msg handle is null.",
                                           "recv feibrk channel msg is null.", "ASOrchMsgInfoProc, null argument.",
                                           "ASOrchSmoothMsgProc, null argument."};
    EXPECT_EQ(rixtest::Lines(), want) << rixtest::DumpLines();
}

TEST_F(RecvTest, BurstsCoalescePerKeyAndDrainOldestFirst)
{
    // mergeType 0: DAM queue, an update keeps its place.
    ASSERT_EQ(Register({Plain(10, 0, 0), Plain(11, 0, 1)}), 0u);
    using Kov = std::vector<std::tuple<uint32_t, uint32_t, uint32_t>>;  // key, opType, value
    auto drain = [this] {
        RIX_TEST_EalRunUntilIdle(ASOrchGetEalHdl(h_), 0);
        Kov got;
        for (const Seen &s : g_seen)
            got.emplace_back(s.key, s.opType, s.value);
        return g_seen.clear(), got;
    };
    for (int round = 0; round < 2; ++round) {
        ASSERT_EQ(Send(11, Body({2, 1})), 0u);
        ASSERT_EQ(Send(10, Body({1, 2, 2, 3, 3, 4})), 0u);
        ASSERT_EQ(Send(11, Body({1, 5})), 0u);
        EXPECT_TRUE(g_seen.empty()) << "nothing reaches msgProc before the DATA thread runs";
        // Key 2: update then add -> 2; key 1: add then update -> 1; key 3: add -> 0.
        EXPECT_EQ(drain(), (Kov{{2, 2, 3}, {1, 1, 5}, {3, 0, 4}})) << round << rixtest::DumpLines();
    }
    ASSERT_EQ(Send(10, Body({1, 1, 2, 2})), 0u);  // pending copies go with the orchestrator
}

}  // namespace
