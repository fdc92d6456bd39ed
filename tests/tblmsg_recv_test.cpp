// Receive registry and recv messages: registration failures, lookups, both body forms, the
// user-defined and per-record paths, versions, the channel senders, and the whole road to
// msgProc through a merge queue drained on the DATA thread.
#include <arpa/inet.h>

#include <cstring>
#include <string>
#include <vector>

#include "test_support.h"

namespace {

using Bytes = std::vector<uint8_t>;
constexpr uint32_t kRec = 8;  // 4-byte key, 4-byte value

Bytes Body(std::initializer_list<std::pair<uint32_t, uint32_t>> recs)
{
    Bytes b(8, 0xEE);
    for (auto [k, v] : recs) {
        const size_t o = b.size();
        b.resize(o + kRec);
        std::memcpy(&b[o], &k, 4);
        std::memcpy(&b[o + 4], &v, 4);
    }
    return b;
}

struct Seen {
    uint32_t msgId, opType, key, value, keyLen, dataLen, version;
    const void *data;
};
std::vector<Seen> g_seen;

uint32_t MsgProc(ASOrchHandle *, ASOrchMsgVec *vec)
{
    uint32_t k = 0, v = 0;
    std::memcpy(&k, vec->key, 4);
    std::memcpy(&v, static_cast<uint8_t *>(vec->data) + 4, 4);
    g_seen.push_back({vec->msgId, vec->opType, k, v, vec->keyLen, vec->dataLen, vec->version, vec->data});
    return 0;
}

struct UserCall {
    const void *records;
    uint32_t num;
    ASOrchTblProcInfo info;
};
std::vector<UserCall> g_user;
uint32_t UserProc(ASOrchHandle *, void *records, uint32_t num, ASOrchTblProcInfo *info)
{
    g_user.push_back({records, num, *info});
    return num == 2 ? 5u : 0u;
}

// Serial form: the body is [opType][records...] after the header; the result points into it.
uint32_t g_unpacks = 0, g_frees = 0;
void Unpack(void *data, uint32_t len, ASOrchUnpackResult *res, ASOrchMsg *)
{
    ++g_unpacks;
    std::memcpy(&res->opType, static_cast<uint8_t *>(data) + 8, 4);
    res->ipcNum = (len - 12) / kRec;
    res->ipcBuf = static_cast<uint8_t *>(data) + 12;
}
void UnpackFree(ASOrchUnpackResult *) { ++g_frees; }

uint32_t KeyHash(const void *key)
{
    const auto *vec = static_cast<const ASOrchMsgVec *>(key);
    uint32_t k = 0;
    std::memcpy(&k, vec->key, 4);
    return k;
}

class RecvTest : public rixtest::PlatformTest {
protected:
    void SetUp() override
    {
        PlatformTest::SetUp();
        g_seen.clear();
        g_user.clear();
        g_unpacks = g_frees = 0;
        const ASOrchCreatePara para = rixtest::CountingCreatePara();
        handle_ = ASOrchCreate("rv", &para);
        ASSERT_NE(handle_, nullptr);
        base_ = rixtest::LiveAllocations();
    }
    void TearDown() override
    {
        if (handle_ != nullptr) {
            ASOrchDestroy(handle_);
        }
        EXPECT_EQ(rixtest::LiveAllocations(), 0);
        PlatformTest::TearDown();
    }
    uint32_t Register(std::vector<ASOrchTblMsgRecvReg> l0, std::vector<ASOrchTblMsgRecvReg> l1 = {})
    {
        lists_[0] = std::move(l0);
        lists_[1] = std::move(l1);
        ASOrchBasePara base{};
        base.recvTblMsg[0] = {lists_[0].data(), static_cast<uint32_t>(lists_[0].size())};
        base.recvTblMsg[1] = {lists_[1].data(), static_cast<uint32_t>(lists_[1].size())};
        base.mergeMque[0] = {mergeMsg_, 1, 64, KeyHash, 0, 0};
        const uint32_t r = ASOrchRegTblMsg(handle_, &base);
        if (r == 0) {
            EXPECT_EQ(ASOrchRegMerge(handle_, &base), 0u) << rixtest::DumpLines();
        }
        return r;
    }
    uint32_t Send(uint32_t msgId, const Bytes &body)
    {
        guard_ = std::make_unique<rixtest::GuardedBuffer>(body.size());
        std::memcpy(guard_->data(), body.data(), body.size());
        ASOrchMsg msg{guard_->data(), msgId, static_cast<uint32_t>(body.size())};
        return ASOrchMsgProc(handle_, &msg);
    }
    uint32_t Drain() { return RIX_TEST_EalRunUntilIdle(ASOrchGetEalHdl(handle_), 0); }

    ASOrchHandle *handle_ = nullptr;
    int64_t base_ = 0;  // what the orchestrator itself holds
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
    EXPECT_EQ(handle_->tblMsgRecvHash, nullptr);
    RIX_TEST_LogClear();
    EXPECT_EQ(ASOrchGetTblMsgRecv(handle_, 5), nullptr);
    EXPECT_TRUE(rixtest::HasLine("hashTble is null, unknown key 5."));
    EXPECT_EQ(rixtest::LiveAllocations(), base_) << "nothing of the registry is left";

    // A failing node block leaves nothing behind either.
    rixtest::FailAllocNth(2);
    ASSERT_EQ(Register({Plain(5, 4)}), 1u);
    EXPECT_TRUE(rixtest::HasLine("Orch auto sync recv tbl msg failed to new HashNode"));
    EXPECT_EQ(rixtest::LiveAllocations(), base_);

    // Keys equal modulo 128 share a bucket and are all found; no mb role, no registry.
    ASSERT_EQ(Register({Plain(5, 4), Plain(133, 4)}, {Plain(261, 4)}), 0u);
    for (uint32_t k : {5u, 133u, 261u}) {
        ASSERT_NE(ASOrchGetTblMsgRecv(handle_, k), nullptr) << k;
        EXPECT_EQ(ASOrchGetTblMsgRecv(handle_, k)->msgId, k);
    }
    ASOrchFreeTblMsg(handle_);
    ASOrchFreeMergeHandle(handle_);
    ASOrchFreeTblMsg(handle_);
    EXPECT_EQ(rixtest::LiveAllocations(), base_);
    RIX_TEST_EalSetMbRole(ASOrchGetEalHdl(handle_), 0);
    ASSERT_EQ(Register({Plain(5, 4)}), 0u);
    EXPECT_EQ(handle_->tblMsgRecvHash, nullptr);
}

TEST_F(RecvTest, PlainBodiesGoRecordByRecordInOrderOrAsOneRun)
{
    ASOrchTblMsgRecvReg user = Plain(20, 9);
    user.userDefProc = UserProc;
    ASOrchTblMsgRecvReg zero = Plain(30, 4);
    zero.ipcSize = 0;
    ASSERT_EQ(Register({Plain(10, 4, 1), user, zero}, {Plain(0x7F7F7F70u, 4), Plain(0x7F7F7F6Fu, 4)}), 0u);

    ASSERT_EQ(Send(10, Body({{1, 100}, {2, 200}, {3, 300}})), 0u);
    ASSERT_EQ(g_seen.size(), 3u);
    for (uint32_t i = 0; i < 3; ++i) {
        EXPECT_EQ(g_seen[i].key, i + 1);
        EXPECT_EQ(g_seen[i].value, 100 * (i + 1));
        EXPECT_EQ(g_seen[i].msgId, 77u);
        EXPECT_EQ(g_seen[i].opType, 1u);
        EXPECT_EQ(g_seen[i].keyLen, 4u);
        EXPECT_EQ(g_seen[i].dataLen, kRec);
        EXPECT_EQ(g_seen[i].data, guard_->data() + 8 + i * kRec) << "records are not copied";
    }
    ASSERT_EQ(Send(0x7F7F7F6Fu, Body({{9, 9}})), 0u);
    EXPECT_EQ(g_seen.size(), 4u);

    // The user-defined path: one call per message, even without records, never the merge layer.
    ASSERT_EQ(Send(20, Body({{1, 1}, {2, 2}})), 0u);
    ASSERT_EQ(Send(20, Body({})), 0u);
    ASSERT_EQ(g_user.size(), 2u);
    EXPECT_EQ(g_user[0].num, 2u);
    EXPECT_EQ(g_user[1].num, 0u);
    EXPECT_EQ(g_user[1].records, guard_->data() + 8);
    EXPECT_EQ(g_user[0].info.procParam, 9u);
    EXPECT_EQ(g_user[0].info.tlvType, 0u);
    EXPECT_TRUE(rixtest::HasLine("ORCH_ASMsgProc fail, ret 5!"));
    EXPECT_EQ(g_seen.size(), 4u);

    // Refused bodies, each read only inside itself.
    RIX_TEST_LogClear();
    EXPECT_EQ(Send(10, Bytes(8 + kRec + 1, 0)), 1u);
    EXPECT_EQ(Send(10, Bytes(5, 0)), 1u);
    EXPECT_EQ(Send(30, Bytes(16, 0)), 1u);
    EXPECT_EQ(Send(99, Body({{1, 1}})), 0u);
    const std::vector<std::string> want = {
        "msgLen is not multi of ipcSize, len = 9, size = 8.", "msgLen is not multi of ipcSize, len = 5, size = 8.",
        "msgLen is not multi of ipcSize, len = 8, size = 0.", "OrchGetTblMsgCtrl from hash failed, unknown key 99.",
        "msg proc unknown msg! msgId:99"};
    EXPECT_EQ(rixtest::Lines(), want) << rixtest::DumpLines();
    EXPECT_EQ(g_seen.size(), 4u);
}

TEST_F(RecvTest, SerialBodiesAreUnpackedOnceAndAlwaysReleased)
{
    ASOrchTblMsgRecvReg serial{77, 40, 1, Unpack, UnpackFree, kRec, 4, nullptr, 0, 4};
    ASOrchTblMsgRecvReg noFree = serial;
    noFree.msgId = 41;
    noFree.unpackFreeFunc = nullptr;
    ASSERT_EQ(Register({serial, noFree}), 0u);
    auto body = [](uint32_t op, uint32_t n) {
        Bytes b = Body({});
        b.resize(12 + n * kRec, 0);
        std::memcpy(&b[8], &op, 4);
        for (uint32_t i = 0; i < n; ++i) std::memcpy(&b[12 + i * kRec], &i, 4);
        return b;
    };
    ASSERT_EQ(Send(40, body(1, 3)), 0u);
    EXPECT_EQ(g_seen.size(), 3u);
    EXPECT_EQ(g_seen[2].key, 2u);
    EXPECT_EQ(Send(40, body(2, 3)), 1u);
    EXPECT_TRUE(rixtest::HasLine("ipc unpack msgId = 40 opType = 2 is error."));
    EXPECT_EQ(g_seen.size(), 3u);
    EXPECT_EQ(g_unpacks, 2u);
    EXPECT_EQ(g_frees, 2u);
    EXPECT_EQ(Send(41, body(1, 1)), 1u);
    EXPECT_TRUE(rixtest::HasLine("unpack para is null."));
    EXPECT_EQ(g_unpacks, 2u);
}

TEST_F(RecvTest, VersionsTravelIntoVectorsAndInfos)
{
    ASOrchTblMsgRecvReg user = Plain(20, 9);
    user.userDefProc = UserProc;
    ASSERT_EQ(Register({Plain(10, 4), user}), 0u);
    uint32_t v = 0;
    ASSERT_EQ(ASOrchIncTblMsgVersion(handle_, 10, &v), 0u);
    EXPECT_EQ(v, 1u);
    ASSERT_EQ(ASOrchIncTblMsgVersion(handle_, 20, &v), 0u);
    ASSERT_EQ(ASOrchIncTblMsgVersion(handle_, 20, &v), 0u);
    EXPECT_EQ(v, 2u);
    ASSERT_EQ(Send(10, Body({{1, 1}})), 0u);
    ASSERT_EQ(Send(20, Body({{1, 1}})), 0u);
    ASSERT_EQ(g_seen.size(), 1u);
    EXPECT_EQ(g_seen[0].version, 1u);
    ASSERT_EQ(g_user.size(), 1u);
    EXPECT_EQ(g_user[0].info.version, 2u);
    EXPECT_EQ(ASOrchIncTblMsgVersion(handle_, 11, &v), 1u);
    EXPECT_TRUE(rixtest::HasLine("Orch set tblmsg version failed. msgId:11"));
    EXPECT_EQ(ASOrchIncTransTblMsgVersion(handle_, 10, &v), 1u);
    EXPECT_TRUE(rixtest::HasLine("hashTble is null, unknown key 10."));
    EXPECT_TRUE(rixtest::HasLine("Orch set tblmsg version failed. tableId:10"));
}

TEST_F(RecvTest, SendersUseTheirChannelAndLoopback)
{
    uint8_t buf[6] = {1, 2, 3, 4, 5, 6};
    void *eal = ASOrchGetEalHdl(handle_);
    EXPECT_EQ(ASOrchFesChanMsgVec(handle_, buf, sizeof(buf)), 0u);
    EXPECT_EQ(ASOrchDamChanMsgVec(handle_, buf, 4), 0u);
    uint32_t len = 0, addr = 0;
    ASSERT_NE(RIX_TEST_ChanLastSent(eal, 1, &len, &addr), nullptr);
    EXPECT_EQ(len, 6u);
    EXPECT_EQ(addr, htonl(0x7F000001u));
    EXPECT_EQ(RIX_TEST_ChanSendCount(eal, 0), 1u);
    EXPECT_EQ(RIX_TEST_ChanSendCount(eal, 1), 1u);
    RIX_TEST_FailNth("RIX_EAL_GetChannelHdl", 1);
    EXPECT_EQ(ASOrchDamChanMsgVec(handle_, buf, 4), 1u);
    EXPECT_TRUE(rixtest::HasLine("rv, send chan 0 msg failed, no channel. len = 4.")) << rixtest::DumpLines();
    EXPECT_EQ(ASOrchMsgProc(nullptr, nullptr), 1u);
    ASOrchMsg empty{nullptr, 1, 0};
    EXPECT_EQ(ASOrchMsgProc(handle_, &empty), 1u);
    EXPECT_TRUE(rixtest::HasLine("recv feibrk channel msg handle is null."));
    EXPECT_TRUE(rixtest::HasLine("recv feibrk channel msg is null."));
    EXPECT_EQ(ASOrchMsgInfoProc(handle_, nullptr), 1u);
    EXPECT_EQ(ASOrchSmoothMsgProc(handle_, nullptr, 16, nullptr, nullptr), -1);
    EXPECT_TRUE(rixtest::HasLine("ASOrchMsgInfoProc, null argument."));
    EXPECT_TRUE(rixtest::HasLine("ASOrchSmoothMsgProc, null argument."));
}

TEST_F(RecvTest, BurstsCoalescePerKeyAndDrainOldestFirst32PerWakeUp)
{
    // mergeType 0: DAM queue, an update keeps its place.
    ASSERT_EQ(Register({Plain(10, 0, 0), Plain(11, 0, 1)}), 0u);
    for (int round = 0; round < 2; ++round) {
        g_seen.clear();
        ASSERT_EQ(Send(11, Body({{2, 1}})), 0u);
        ASSERT_EQ(Send(10, Body({{1, 2}, {2, 3}, {3, 4}})), 0u);
        ASSERT_EQ(Send(11, Body({{1, 5}})), 0u);
        EXPECT_TRUE(g_seen.empty()) << "nothing reaches msgProc before the DATA thread runs";
        Drain();
        ASSERT_EQ(g_seen.size(), 3u) << rixtest::DumpLines();
        // key 2: update then add -> 2; key 1: add then update -> 1; key 3: add -> 0.
        const uint32_t keys[] = {2, 1, 3}, ops[] = {2, 1, 0}, vals[] = {3, 5, 4};
        for (size_t i = 0; i < 3; ++i) {
            EXPECT_EQ(g_seen[i].key, keys[i]) << round << "/" << i;
            EXPECT_EQ(g_seen[i].opType, ops[i]) << round << "/" << i;
            EXPECT_EQ(g_seen[i].value, vals[i]) << round << "/" << i;
        }
    }
    g_seen.clear();
    RIX_TEST_LogClear();
    for (uint32_t k = 0; k < 40; ++k) {
        ASSERT_EQ(Send(10, Body({{k + 100, k}})), 0u);
    }
    Drain();
    ASSERT_EQ(g_seen.size(), 40u);
    for (uint32_t k = 0; k < 40; ++k) {
        EXPECT_EQ(g_seen[k].key, k + 100);
    }
    EXPECT_TRUE(rixtest::HasLine("read DAM merge msg count 32 finished.")) << rixtest::DumpLines();
    EXPECT_TRUE(rixtest::HasLine("read DAM merge msg count 8 finished."));
    // Pending copies are released with the orchestrator as well.
    ASSERT_EQ(Send(10, Body({{1, 1}, {2, 2}})), 0u);
    ASOrchDestroy(handle_);
    handle_ = nullptr;
}

}  // namespace
