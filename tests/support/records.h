// The self-checking records that the scenario and the soak push through the merge path, and
// the operation type a pending record ends with when another of its key arrives.
#ifndef RIX_TEST_RECORDS_H
#define RIX_TEST_RECORDS_H

#include <cstdint>

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

inline Rec Seal(uint32_t key, uint32_t ver, uint32_t state) { return {key, ver, state, Mix(Mix(key, ver), state)}; }
inline bool Intact(const Rec &r) { return r.check == Mix(Mix(r.key, r.ver), r.state); }

// Age information (3) is never combined; other pairs by the rules, else the arriving type.
inline uint32_t Combine(uint32_t pending, uint32_t arriving)
{
    uint32_t merged = arriving;
    if (arriving != 3u) {
        (void)ASOrchGetMergeRule(pending, arriving, &merged);
    }
    return merged;
}

}  // namespace rixtest

#endif
