// Drives the scenario (scenario.h): the mb role's traffic, what the peer is fed, the books' checks
// and what must be gone after destroy. The module side is in scenario_module.cpp.
#include <cstring>
#include <string>
#include <vector>

#include "scenario.h"
#include "scenario_module.h"

namespace rixtest {
namespace {

using namespace scen;

// ---- Traffic of the mb role ----
uint32_t g_ver[2][64];  // [queue][key]: versions offered

Rec Next(uint32_t q, uint32_t key)
{
    return MakeRec(key, ++g_ver[q][key]);
}

uint32_t Send(ASOrchHandle *h, uint32_t msgId, Bytes body)
{
    ASOrchMsg msg{body.data(), msgId, static_cast<uint32_t>(body.size())};
    return Checked("ASOrchMsgProc", ASOrchMsgProc(h, &msg));
}

// Keyed records: routes into the DAM queue (a plain body, deletes as opType 1), next hops
// into FES (serial, an update moves behind). The book is kept before the write.
void SendKeyed(ASOrchHandle *h, uint32_t msgId, std::initializer_list<uint32_t> keys)
{
    const uint32_t q = msgId == kMsgNhp ? 1u : 0u;
    Bytes b;
    Put32(b, {msgId, static_cast<uint32_t>(keys.size())});
    if (q == 1u) {
        Put32(b, {kNhpOpType, 0u});
    }
    for (uint32_t k : keys) {
        const Rec r = Next(q, k);
        PutRec(b, r);
        g_books.queues[0][q].Offer(r, msgId == kMsgRouteDel ? 1u : 0u, q == 1u);
    }
    Send(h, msgId, b);
}

void SendUnkeyed(ASOrchHandle *h, uint32_t msgId, uint32_t n)
{
    Bytes b;
    Put32(b, {msgId, n});
    for (uint32_t i = 0; i < n; ++i)
        PutRec(b, MakeRec(1000u + i, 1u));
    Send(h, msgId, b);
}

void PutEntries(Bytes &b, uint32_t n, uint32_t size)
{
    for (uint32_t i = 0; i < n * size / 4u; ++i)
        Put32(b, {Mix(i, size)});
}

Bytes Trans(uint32_t msgId, uint32_t tlvs, const Bytes &area)
{
    Bytes b;
    Put32(b, {msgId, tlvs, static_cast<uint32_t>(area.size())});
    b.insert(b.end(), area.begin(), area.end());
    return b;
}

// A DAM table (3 entries), a FES table (2 entries) and a composite table.
void SendTables(ASOrchHandle *h)
{
    Bytes a;
    Put32(a, {kTblDam, 1u, 3u * kEntry});
    PutEntries(a, 3u, kEntry);
    Put32(a, {kTblFes, 1u, 8u + 2u * kEntry});
    Put32(a, {0u, 2u * kEntry});
    PutEntries(a, 2u, kEntry);
    Put32(a, {kTblComp, 18u, 2u * kEntry});
    PutEntries(a, 2u, kEntry);
    Send(h, kTransTables, Trans(kTransTables, 3u, a));
}

void PutItem(Bytes &b, uint32_t type, uint32_t len, uint32_t tableId)
{
    Put32(b, {type, len, tableId});
    for (uint32_t off = 12u; off < len; off += 4u)
        Put32(b, {Mix(type, off)});
}

// Smoothing for the platform's entry points (pre-callback) and for the module's own.
void SendSmoothing(ASOrchHandle *h)
{
    const std::pair<uint32_t, uint32_t> plat[] = {{ASORCH_SMOOTH_CLASS_BEGIN, 16u},
                                                  {ASORCH_SMOOTH_PID_STATE, 20u},
                                                  {ASORCH_SMOOTH_VRF_STATE, 32u},
                                                  {ASORCH_SMOOTH_VRF_DATA_BEGIN, 28u},
                                                  {ASORCH_SMOOTH_VRF_DATA_END, 28u},
                                                  {ASORCH_SMOOTH_CLASS_END, 16u},
                                                  {ASORCH_SMOOTH_DAM_CLASS, 16u}};
    const uint32_t own[] = {ASORCH_SMOOTH_CLASS_BEGIN, ASORCH_SMOOTH_LR_CLASS, ASORCH_SMOOTH_LR_CLASS2,
                            ASORCH_SMOOTH_DAM_CLASS2, ASORCH_SMOOTH_CLASS_END};
    Bytes p, o, a;
    for (const auto &[type, len] : plat)
        PutItem(p, type, len, kTblSmoothPlat);
    for (uint32_t type : own)
        PutItem(o, type, 16u, kTblSmoothOwn);
    Put32(a, {kTblSmoothPlat, 5u, static_cast<uint32_t>(p.size())});
    a.insert(a.end(), p.begin(), p.end());
    Put32(a, {kTblSmoothOwn, 6u, static_cast<uint32_t>(o.size())});
    a.insert(a.end(), o.begin(), o.end());
    Send(h, kTransSmooth, Trans(kTransSmooth, 2u, a));
}

// Age information goes in through the merge path itself.
void OfferAgeInfo(ASOrchHandle *h, uint32_t key)
{
    const Rec r = Next(0u, key);
    ASOrchMsgVec v{kMmDam, 3u, const_cast<Rec *>(&r), kKeySize, const_cast<Rec *>(&r), kRecSize, 0u, nullptr};
    g_books.queues[0][0].Offer(r, 3u);
    Checked("ASOrchMsgMerge", ASOrchMsgMerge(h, 0u, &v));
}

void Drain(ASOrchHandle *h)
{
    (void)RIX_TEST_EalRunUntilIdle(ASOrchGetEalHdl(h), ASORCH_THREAD_DATA);
}

// The peer takes what the mb role synced, in runs of one operation type, into its merge path.
void FeedPeer(ASOrchHandle *peer)
{
    const auto synced = g_books.synced;
    g_books.synced.clear();
    for (const auto &[grp, item] : synced) {
        if (item.size() != 4u + kRecSize) {
            Fault("synced item of " + std::to_string(item.size()) + " bytes");
            continue;
        }
        const uint32_t q = grp == 0u ? 0u : 1u;
        Rec r{};
        std::memcpy(&r, item.data() + 4, sizeof(r));
        ASOrchMsgVec
            vec{q == 0u ? kMmDam : kMmFes, Rd32(item.data()), nullptr, kKeySize, nullptr, kRecSize, 0u, nullptr};
        ASOrchSyncGrpData data{const_cast<uint8_t *>(item.data() + 4), 0u, 7u};
        g_books.queues[1][q].Offer(r, vec.opType);
        ASOrchMergeSyncGrpDatas(1u, &data, &vec, q, peer);
        if (data.result != 0u && data.result != ASORCH_SYNCGRP_DATA_FAILED) {
            Fault("ASOrchMergeSyncGrpDatas item result " + std::to_string(data.result));
        }
    }
}

void Expect(bool ok, const std::string &what)
{
    if (g_books.strict && !ok) {
        Fault(what);
    }
}

}  // namespace

void RunScenario(ScenarioReport &report, bool strict)
{
    g_books = Books{};
    g_books.report = &report;
    g_books.strict = strict;
    std::memset(g_ver, 0, sizeof(g_ver));
    static Regs modRegs, peerRegs;

    bool modReg = false, peerReg = false;
    ASOrchHandle *mod = Create("SWEEPMB", true, modRegs, &modReg);
    g_books.mod = mod;
    ASOrchHandle *peer = Create("SWEEPPEER", false, peerRegs, &peerReg);
    g_books.peer = peer;
    Expect(mod != nullptr && peer != nullptr && modReg && peerReg, "creation or registration failed");

    uint32_t chanPress[2] = {0, 0}, chanRelease[2] = {0, 0}, grpPress = 0, grpRelease = 0;
    if (modReg) {
        void *eal = ASOrchGetEalHdl(mod);
        RIX_TEST_EalSetSyncPeer(eal, CollectSync, nullptr);
        // Past both high water marks: key 1 twice (coalesced), then deletes over pending adds.
        SendKeyed(mod, kMsgRouteAdd, {0u, 1u, 2u, 1u, 3u, 4u, 5u});
        SendKeyed(mod, kMsgRouteDel, {2u, 6u});
        OfferAgeInfo(mod, 3u);
        SendKeyed(mod, kMsgNhp, {0u, 1u, 2u, 0u, 3u});
        Expect(RIX_TEST_ChanBackPressed(eal, 0u) == 1u && RIX_TEST_ChanBackPressed(eal, 1u) == 1u,
               "channels not back-pressed above the high water marks");
        SendUnkeyed(mod, kMsgArp, 2u);
        SendUnkeyed(mod, kMsgFesNow, 1u);
        SendUnkeyed(mod, kMsgStats, 3u);
        SendTables(mod);
        SendSmoothing(mod);
        Bytes out(24u, 0x5Au);
        Checked("ASOrchDamChanMsgVec", ASOrchDamChanMsgVec(mod, out.data(), 24u));
        Checked("ASOrchFesChanMsgVec", ASOrchFesChanMsgVec(mod, out.data(), 24u));
        Drain(mod);
        Expect(RIX_TEST_ChanBackPressed(eal, 0u) == 0u && RIX_TEST_ChanBackPressed(eal, 1u) == 0u,
               "channels still back-pressed after the drain");
        // Left pending for destroy: a route after the drain.
        SendKeyed(mod, kMsgRouteAdd, {7u});
        for (uint32_t c = 0; c < 2u; ++c)
            chanPress[c] = RIX_TEST_ChanBackPressCount(eal, c, &chanRelease[c]);
    }
    if (peerReg) {
        FeedPeer(peer);
        void *eal = ASOrchGetEalHdl(peer);
        const int32_t grp = ASOrchGetSyncGrpId(peer, 0u);
        Expect(grp >= 0 && RIX_TEST_EalSyncBackPressed(eal, static_cast<uint32_t>(grp)) == 1u,
               "sync group 0 not back-pressed above the high water mark");
        RIX_EAL_SyncItem batch[2] = {{"ab", 2u}, {"cd", 2u}};
        Checked("ASOrchSyncBatchMsg", ASOrchSyncBatchMsg(peer, 0u, batch, 2u));
        Drain(peer);
        if (grp >= 0) {
            Expect(RIX_TEST_EalSyncBackPressed(eal, static_cast<uint32_t>(grp)) == 0u,
                   "sync group 0 still back-pressed after the drain");
            grpPress = RIX_TEST_EalSyncBackPressCount(eal, static_cast<uint32_t>(grp), &grpRelease);
        }
    }

    if (strict) {
        const QueueBook(&q)[2][2] = g_books.queues;
        for (int o = 0; o < 2; ++o) {
            for (int c = 0; c < 2; ++c) {
                const uint32_t left = static_cast<uint32_t>(q[o][c].pending.size());
                Expect(q[o][c].delivered + q[o][c].coalesced + left == q[o][c].offered,
                       "queue " + std::to_string(o) + "/" + std::to_string(c) + ": offered " +
                           std::to_string(q[o][c].offered) + ", delivered " + std::to_string(q[o][c].delivered) +
                           ", coalesced " + std::to_string(q[o][c].coalesced) + ", pending " + std::to_string(left));
            }
        }
        Expect(q[0][0].pending.size() == 1u && q[0][0].pending.count(7u) == 1u, "one route left pending");
        Expect(g_books.immediate == 3u && g_books.userDef == 3u, "immediate or user-defined records missing");
        Expect(g_books.tableEntries == 5u && g_books.compTables == 1u, "table entries missing");
        Expect(g_books.smoothPre == 7u && g_books.smoothOwn == 5u && RIX_TEST_EntryCount() == 6u,
               "smoothing calls: pre " + std::to_string(g_books.smoothPre) + ", own " +
                   std::to_string(g_books.smoothOwn) + ", platform " + std::to_string(RIX_TEST_EntryCount()));
        Expect(g_books.unpacks == 1u && g_books.unpackFrees == 1u, "unpack not paired with its release");
        Expect(chanPress[0] >= 1u && chanPress[0] == chanRelease[0] && chanPress[1] >= 1u &&
                   chanPress[1] == chanRelease[1] && grpPress >= 1u && grpPress == grpRelease,
               "back-press cycles: DAM " + std::to_string(chanPress[0]) + "/" + std::to_string(chanRelease[0]) +
                   ", FES " + std::to_string(chanPress[1]) + "/" + std::to_string(chanRelease[1]) + ", group " +
                   std::to_string(grpPress) + "/" + std::to_string(grpRelease));
    }

    ASOrchDestroy(mod);
    g_books.modGone = true;
    ASOrchDestroy(peer);
    g_books.peerGone = true;
    // The pending route is dropped, and an operator is told.
    Expect(RIX_TEST_LogFind("[RIX_MERGE_QUE Destory] SWEEPMB_DAM reader list is not empty!") == 1u &&
               RIX_TEST_LogFind("reader list is not empty!") == 1u,
           "destroy did not report the queue it dropped records from");
    g_books.report = nullptr;
}

std::string LeftBehind(int fdsOpened, uint32_t hashTablesBefore, bool tableKept)
{
    std::string out;
    auto add = [&out](bool bad, const std::string &what) {
        if (bad) {
            out += (out.empty() ? "" : "; ") + what;
        }
    };
    const AllocStats s = GetAllocStats();
    add(s.allocs != s.frees || s.liveBytes != 0,
        std::to_string(s.allocs - s.frees) + " blocks (" + std::to_string(s.liveBytes) + " bytes) not given back");
    add(RIX_TEST_EalLiveCount() != 0u, std::to_string(RIX_TEST_EalLiveCount()) + " abstraction-layer instances");
    add(RIX_TEST_HashTableCount() != hashTablesBefore,
        std::to_string(RIX_TEST_HashTableCount() - hashTablesBefore) + " hash tables");
    add(RIX_TEST_HashBlocksInUse() != 0u && !tableKept, std::to_string(RIX_TEST_HashBlocksInUse()) + " hash blocks");
    add(fdsOpened != 0, std::to_string(fdsOpened) + " descriptors");
    add(g_AutoSyncCtrlBlkNameHead.count != 0u, std::to_string(g_AutoSyncCtrlBlkNameHead.count) + " module names");
    for (const char *q : {"SWEEPMB_DAM", "SWEEPMB_FES", "SWEEPPEER_DAM", "SWEEPPEER_FES"}) {
        add(RIX_MergeQueNameTreeFind(q) != nullptr, std::string("queue name ") + q);
    }
    return out;
}

}  // namespace rixtest
