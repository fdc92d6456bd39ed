#include "scenario_module.h"

#include <cstring>

namespace rixtest::scen {

Rec MakeRec(uint32_t key, uint32_t ver)
{
    return Seal(key, ver, Mix(key, ver));
}

uint32_t Rd32(const void *p)
{
    uint32_t v;
    std::memcpy(&v, p, 4);
    return v;
}

void Put32(Bytes &b, std::initializer_list<uint32_t> words)
{
    for (uint32_t v : words) {
        const auto *p = reinterpret_cast<const uint8_t *>(&v);
        b.insert(b.end(), p, p + 4);
    }
}
void PutRec(Bytes &b, const Rec &r)
{
    Put32(b, {r.key, r.ver, r.state, r.check});
}

Books g_books;

void Fault(const std::string &what)
{
    if (g_books.report != nullptr && g_books.report->faults.size() < 20u) {
        g_books.report->faults.push_back(what);
    }
}

uint32_t Checked(const char *call, uint32_t r)
{
    if (r > 1u) {
        Fault(std::string(call) + " returned " + std::to_string(r));
    }
    return r;
}

void CollectSync(void *, uint32_t grpId, const RIX_EAL_SyncItem *items, uint32_t count)
{
    for (uint32_t i = 0; i < count; ++i) {
        const auto *p = static_cast<const uint8_t *>(items[i].data);
        g_books.synced.emplace_back(grpId, Bytes(p, p + items[i].len));
    }
}

namespace {

// A callback of a live orchestrator of the scenario: *idx 0 for the mb role, 1 for the peer.
bool CheckedCallback(ASOrchHandle *h, const char *what, int *idx)
{
    *idx = h == nullptr ? -1 : h == g_books.mod ? 0 : h == g_books.peer ? 1 : -1;
    if (*idx < 0 || (*idx == 0 ? g_books.modGone : g_books.peerGone)) {
        Fault(std::string(what) +
              (*idx < 0 ? " called with an unknown handle" : " called after ASOrchDestroy returned"));
        return false;
    }
    return true;
}

uint32_t Merged(ASOrchHandle *h, ASOrchMsgVec *v, uint32_t slot)
{
    int o = 0;
    if (!CheckedCallback(h, "msgProc", &o)) {
        return 1u;
    }
    const int q = v->msgId == kMmDam ? 0 : v->msgId == kMmFes ? 1 : -1;
    Rec r{};
    if (const std::string why = q < 0 ? "msgId " + std::to_string(v->msgId) : TakeRecord(v, slot, &r); !why.empty()) {
        Fault(why);
        return 1u;
    }
    if (const std::string why = g_books.queues[o][q].Deliver(r, v->opType, g_books.strict); !why.empty()) {
        Fault(why);
    }
    // What comes out is synced on: the mb role to the other orchestrator, the other back.
    uint8_t item[4 + kRecSize];
    std::memcpy(item, &v->opType, 4);
    std::memcpy(item + 4, v->data, kRecSize);
    RIX_EAL_SyncItem sync{item, sizeof(item)};
    Checked("ASOrchSyncMsg", ASOrchSyncMsg(h, q == 0 ? 0u : 2u, &sync));
    return 0u;
}

uint32_t Immediate(ASOrchHandle *h, ASOrchMsgVec *v)
{
    int o = 0;
    if (!CheckedCallback(h, "immediate msgProc", &o)) {
        return 1u;
    }
    Rec r{};
    if (v->data == nullptr || v->dataLen != kRecSize) {
        Fault("malformed immediate vector");
        return 1u;
    }
    std::memcpy(&r, v->data, sizeof(r));
    if (!Intact(r)) {
        Fault("corrupt immediate record");
    }
    ++g_books.immediate;
    return 0u;
}

uint32_t UserDef(ASOrchHandle *h, void *records, uint32_t num, ASOrchTblProcInfo *)
{
    int o = 0;
    if (!CheckedCallback(h, "userDefProc", &o) || (num != 0u && records == nullptr)) {
        return 1u;
    }
    g_books.userDef += num;
    return 0u;
}

uint32_t TableProc(ASOrchHandle *h, void *tables, uint32_t nums, uint32_t tblSize, ASOrchTblProcInfo *)
{
    int o = 0;
    if (!CheckedCallback(h, "tblMsgProc", &o) || tables == nullptr) {
        return 1u;
    }
    if (tblSize == kEntry) {
        g_books.tableEntries += nums;
    } else {
        ++g_books.compTables;
    }
    return 0u;
}

uint32_t SmoothPre(uint32_t, uint32_t, void *, uint32_t)
{
    return ++g_books.smoothPre, 0u;
}
uint32_t SmoothOwn(uint32_t, uint32_t, void *, uint32_t)
{
    return ++g_books.smoothOwn, 0u;
}

// Serial form: {msgId, count} {opType, 0} then records; the result points into the body.
void Unpack(void *data, uint32_t len, ASOrchUnpackResult *res, ASOrchMsg *)
{
    ++g_books.unpacks;
    res->opType = Rd32(static_cast<uint8_t *>(data) + 8);
    res->ipcNum = (len - 16u) / kRecSize;
    res->ipcBuf = static_cast<uint8_t *>(data) + 16;
}
void UnpackFree(ASOrchUnpackResult *)
{
    ++g_books.unpackFrees;
}

void Notify() {}

void TimerTick(uintptr_t)
{
    Fault("the timer came due");
}

// ---- Registration ----

ASOrchTblMsgRecvReg Recv(uint32_t mergeMsgId, uint32_t msgId, uint32_t mergeType, uint32_t mergeOpType = 0u,
                         ASOrchRecvProcFunc userDef = nullptr)
{
    return {mergeMsgId, msgId, 0u, nullptr, nullptr, kRecSize, mergeType, userDef, mergeOpType, kKeySize};
}

void AdvSettings(ASOrchHandle *h)
{
    ASOrchSynGrpFlowCtrl fc{};
    fc.word[6] = 0x8000u;
    fc.word[7] = 0x6000u;
    Checked("ASOrchAdvSetSynGrpVerifyInterVal", ASOrchAdvSetSynGrpVerifyInterVal(h, 2u, 500u));
    Checked("ASOrchAdvSetSynGrpNotifyFunc", ASOrchAdvSetSynGrpNotifyFunc(h, 0u, Notify));
    Checked("ASOrchAdvSetSynGrpFlowCtrl", ASOrchAdvSetSynGrpFlowCtrl(h, 2u, &fc));
    Checked("ASOrchSetOndemandParam", ASOrchSetOndemandParam(h, ASOrchOndemandPara{{3u, 4u}}));
}

ASOrchBasePara Base(Regs &r, bool mb)
{
    ASOrchBasePara bp{};
    if (mb) {
        Checked("ASOrchThreadSet", ASOrchThreadSet(&bp.threadMask, 2u, ASORCH_THREAD_DATA, ASORCH_THREAD_EVENT));
    } else {
        Checked("ASOrchThreadSet", ASOrchThreadSet(&bp.threadMask, 2u, ASORCH_THREAD_DATA, ASORCH_THREAD_SYNC));
    }
    bp.modStateRsp[0] = 1u;
    bp.syncGrpMsgSet[0] = 0x0101u;
    bp.syncGrpMsgSet[2] = 0x0202u;
    bp.reservePort[0] = 0x2F00u;
    bp.reservePort[1] = 1u;
    for (uint32_t c = 0; c < ASORCH_CHAN_NUM; ++c) {
        if (mb || c == ASORCH_CHAN_UP) {
            bp.chanPort[c] = {0x1F90u + c, c};
        }
    }
    r.recv0[0] = Recv(kMmDam, kMsgRouteAdd, 0u);
    r.recv0[1] = Recv(kMmDam, kMsgRouteDel, 0u, 1u);
    r.recv0[2] = Recv(kMmArp, kMsgArp, 4u);
    r.recv0[3] = Recv(kMmFes, kMsgNhp, 3u);  // FES, an update moves behind the others
    r.recv0[3].opType = kNhpOpType;
    r.recv0[3].unpackFunc = Unpack;
    r.recv0[3].unpackFreeFunc = UnpackFree;
    r.recv0[4] = Recv(kMmFesNow, kMsgFesNow, 5u);
    r.recv1[0] = Recv(0u, kMsgStats, 5u, 0u, UserDef);
    bp.recvTblMsg[0] = {r.recv0, 5u};
    bp.recvTblMsg[1] = {r.recv1, 1u};
    r.trans0[0] = {kTblDam, kEntry, nullptr, nullptr, 0xD0u, TableProc};
    r.trans0[1] = {kTblComp, 0u, nullptr, nullptr, 0xC0u, TableProc};
    r.trans0[2] = {kTblSmoothPlat, 0u, SmoothPre, nullptr, 0u, nullptr};
    r.trans1[0] = {kTblFes, kEntry, nullptr, nullptr, 0xF0u, TableProc};
    r.trans1[1] = {kTblSmoothOwn, 0u, SmoothPre, SmoothOwn, 0u, nullptr};
    bp.transTblMsg[0] = {r.trans0, 3u};
    bp.transTblMsg[1] = {r.trans1, 2u};
    r.dam[0] = MergeMsgOf<Merged>(kMmDam);
    r.dam[1] = {kMmArp, {Immediate, nullptr, nullptr, nullptr}};
    r.fes[0] = MergeMsgOf<Merged>(kMmFes);
    r.fes[1] = {kMmFesNow, {Immediate, nullptr, nullptr, nullptr}};
    // Water marks low enough that a handful of records passes them.
    bp.mergeMque[0] = {r.dam, 2u, 64u, MergeHash<0u>, 4u, 2u};
    bp.mergeMque[1] = {r.fes, 2u, 32u, MergeHash<1u>, 3u, 1u};
    return bp;
}

}  // namespace

ASOrchHandle *Create(const char *name, bool mb, Regs &regs, bool *registered)
{
    RIX_TEST_SetDefaultMbRole(mb ? 1u : 0u);
    const ASOrchCreatePara para = CountingCreatePara();
    ASOrchHandle *h = ASOrchCreate(name, &para);
    RIX_TEST_SetDefaultMbRole(1u);
    *registered = false;
    if (h == nullptr) {
        return nullptr;
    }
    AdvSettings(h);
    ASOrchBasePara bp = Base(regs, mb);
    const uint32_t reg = Checked("ASOrchRegBase", ASOrchRegBase(h, &bp));
    if (reg == 0u) {
        *registered = true;
        for (uint32_t chan = 0; chan < 2u; ++chan) {
            if (ASOrchGetReaderHdl(h, chan) == nullptr) {
                Fault("ASOrchRegBase succeeded without merge queue " + std::to_string(chan));
            }
        }
        // A timer that never comes due here: its descriptor must go with the instance.
        Checked("ASOrchTimerInit",
                ASOrchTimerInit(h, 600000u, reinterpret_cast<uintptr_t>(&TimerTick), 0u, ASORCH_THREAD_DATA));
        if (Checked("ASOrchInit", ASOrchInit(h)) == 0u) {
            Checked("ASOrchModInitOk", ASOrchModInitOk(h));
        }
    }
    return h;
}

}  // namespace rixtest::scen
