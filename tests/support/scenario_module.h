// The module side of the scenario (scenario_module.cpp): its records and ids, the books its
// callbacks keep, and two orchestrators' creation and registration. scenario.cpp drives them.
#ifndef RIX_TEST_SCENARIO_MODULE_H
#define RIX_TEST_SCENARIO_MODULE_H

#include <cstdint>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

#include "records.h"
#include "scenario.h"
#include "test_support.h"

namespace rixtest::scen {

// ---- Records ----
constexpr uint32_t kRecSize = 16u;
constexpr uint32_t kKeySize = 4u;

Rec MakeRec(uint32_t key, uint32_t ver);
uint32_t Rd32(const void *p);

using Bytes = std::vector<uint8_t>;
void Put32(Bytes &b, std::initializer_list<uint32_t> words);
void PutRec(Bytes &b, const Rec &r);

// ---- Ids ----
constexpr uint32_t kMsgRouteAdd = 0x10001u;  // DAM, plain, merged
constexpr uint32_t kMsgRouteDel = 0x10002u;  // DAM, plain, merged as deletes
constexpr uint32_t kMsgArp = 0x10003u;       // processed at once in the DAM table
constexpr uint32_t kMsgNhp = 0x10011u;       // FES, serially packed, merged moving behind
constexpr uint32_t kMsgFesNow = 0x10012u;    // processed at once in the FES table
constexpr uint32_t kMsgStats = 0x10021u;     // the module's own function, whole run
constexpr uint32_t kMmDam = 0x20001u, kMmArp = 0x20003u, kMmFes = 0x20011u, kMmFesNow = 0x20012u;
constexpr uint32_t kNhpOpType = 0x11u;
constexpr uint32_t kTblDam = 0x101u, kTblComp = 0x103u, kTblFes = 0x201u;
constexpr uint32_t kTblSmoothPlat = 0x301u, kTblSmoothOwn = 0x302u;
constexpr uint32_t kTransTables = 0x7F7F7F71u, kTransSmooth = 0x7F7F7F72u;
constexpr uint32_t kEntry = 16u;

// ---- The books, shared with the callbacks ----
struct Books {
    ScenarioReport *report = nullptr;
    bool strict = false;
    ASOrchHandle *mod = nullptr;
    ASOrchHandle *peer = nullptr;
    bool modGone = false, peerGone = false;
    QueueBook queues[2][2];  // [mod, peer][DAM, FES]
    uint32_t immediate = 0, userDef = 0, tableEntries = 0, compTables = 0, smoothPre = 0, smoothOwn = 0;
    uint32_t unpacks = 0, unpackFrees = 0;
    std::vector<std::pair<uint32_t, Bytes>> synced;  // layer group id, item
};
extern Books g_books;

// A broken promise, kept in the report (the first 20).
void Fault(const std::string &what);
// A result the interface can give: 0 or 1.
uint32_t Checked(const char *call, uint32_t r);
// The abstraction layer's sync peer: what the orchestrators sync goes to g_books.synced.
void CollectSync(void *, uint32_t grpId, const RIX_EAL_SyncItem *items, uint32_t count);

// What registration points into: it must outlive the instance.
struct Regs {
    ASOrchTblMsgRecvReg recv0[5];
    ASOrchTblMsgRecvReg recv1[1];
    ASOrchTblMsgTransReg trans0[3];
    ASOrchTblMsgTransReg trans1[2];
    ASOrchMergeMsg dam[2];
    ASOrchMergeMsg fes[2];
};

// Created on the mb role or the other, settings made, registered and initialised; *registered
// tells whether registration succeeded (the rest of the scenario needs it).
ASOrchHandle *Create(const char *name, bool mb, Regs &regs, bool *registered);

}  // namespace rixtest::scen

#endif
