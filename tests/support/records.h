// The self-checking records that the scenario and the soak push through the merge path, and
// the module's books of one merge queue: what must come out, in which order, as what.
#ifndef RIX_TEST_RECORDS_H
#define RIX_TEST_RECORDS_H

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <deque>
#include <map>
#include <string>

#include "rix_autosync_orch.h"

namespace rixtest {

// Key, version of the key, state, check word over the three.
struct Rec {
    uint32_t key, ver, state, check;
};

inline uint32_t Mix(uint32_t a, uint32_t b)
{
    uint32_t h = a * 0x9E3779B1u ^ (b + 0x7F4A7C15u + (a << 6) + (a >> 2));
    h ^= h >> 15;
    h *= 0x2C1B3C6Du;
    return h ^ (h >> 12);
}

inline Rec Seal(uint32_t key, uint32_t ver, uint32_t state)
{
    return {key, ver, state, Mix(Mix(key, ver), state)};
}
inline bool Intact(const Rec &r)
{
    return r.check == Mix(Mix(r.key, r.ver), r.state);
}

// The record a vector handed to the msgProc of slot carries: empty when the vector is well
// formed (4-byte key, one record) and key and record are intact, else why not.
inline std::string TakeRecord(const ASOrchMsgVec *v, uint32_t slot, Rec *r)
{
    if (v->opType != slot || v->keyLen != 4u || v->dataLen != sizeof(Rec) || v->key == nullptr || v->data == nullptr) {
        return "malformed vector msgId " + std::to_string(v->msgId) + " opType " + std::to_string(v->opType);
    }
    uint32_t key = 0;
    std::memcpy(&key, v->key, 4);
    std::memcpy(r, v->data, sizeof(*r));
    return Intact(*r) && key == r->key ? std::string() : "corrupt record delivered, key " + std::to_string(key);
}

// Age information (3) is never combined; other pairs by the rules, else the arriving type.
inline uint32_t Combine(uint32_t pending, uint32_t arriving)
{
    uint32_t merged = arriving;
    if (arriving != 3u) {
        (void)ASOrchGetMergeRule(pending, arriving, &merged);
    }
    return merged;
}

// One merge queue seen from the module: each key offered and not yet delivered, first arrival
// first, with the version and the combined operation type it must come out with.
struct QueueBook {
    struct Pending {
        uint32_t ver, op;
    };
    std::deque<uint32_t> order;
    std::map<uint32_t, Pending> pending;
    std::map<uint32_t, uint32_t> lastVer;  // last delivered version per key
    uint64_t offered = 0, coalesced = 0, delivered = 0, byOp[4] = {};

    // moveBehind: the queue moves an updated record behind the others (merge types 2 and 3).
    // True when the record coalesced into a pending one.
    bool Offer(const Rec &r, uint32_t op, bool moveBehind = false)
    {
        ++offered;
        auto it = pending.find(r.key);
        if (it == pending.end()) {
            pending[r.key] = {r.ver, op};
            order.push_back(r.key);
            return false;
        }
        ++coalesced;
        it->second = {r.ver, Combine(it->second.op, op)};
        if (moveBehind) {
            order.erase(std::find(order.begin(), order.end(), r.key));
            order.push_back(r.key);
        }
        return true;
    }

    // A record delivered as op: empty when the books agree, else why not. Never twice nor
    // backwards; strict (nothing was lost on the way): the first pending key, as last offered.
    std::string Deliver(const Rec &r, uint32_t op, bool strict)
    {
        std::string why;
        const auto key = [&r] { return "key " + std::to_string(r.key); };
        auto last = lastVer.find(r.key);
        if (last != lastVer.end() && r.ver <= last->second) {
            why = key() + " delivered twice or out of order: version " + std::to_string(r.ver) + " after " +
                  std::to_string(last->second);
        }
        lastVer[r.key] = r.ver;
        ++delivered;
        ++byOp[op & 3u];
        if (!strict) {
            return why;
        }
        auto p = pending.find(r.key);
        if (p == pending.end() || order.empty() || order.front() != r.key) {
            why = key() + " delivered out of first-arrival order";
        } else if (p->second.ver != r.ver || p->second.op != op) {
            why = key() + " delivered version " + std::to_string(r.ver) + " op " + std::to_string(op) +
                  ", last offered " + std::to_string(p->second.ver) + " op " + std::to_string(p->second.op);
        }
        if (p != pending.end()) {
            pending.erase(p);
        }
        if (!order.empty() && order.front() == r.key) {
            order.pop_front();
        }
        return why;
    }
};

// A merge message's four msgProc slots, each handing its opType to one function that checks it.
using SlotProc = uint32_t (*)(ASOrchHandle *, ASOrchMsgVec *, uint32_t);
template <SlotProc F, uint32_t Op>
uint32_t AtSlot(ASOrchHandle *h, ASOrchMsgVec *v)
{
    return F(h, v, Op);
}
template <SlotProc F>
ASOrchMergeMsg MergeMsgOf(uint32_t msgId)
{
    return {msgId, {AtSlot<F, 0u>, AtSlot<F, 1u>, AtSlot<F, 2u>, AtSlot<F, 3u>}};
}

}  // namespace rixtest

#endif
