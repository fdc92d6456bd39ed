// What the transfer-message mutator (tblmsg_mutator.cpp) builds its messages from: byte
// helpers, the tables tblmsg_fuzz.cpp registers, and table values, smoothing items included,
// made or mutated so that their own lengths stay consistent.
#ifndef RIX_FUZZ_TBLMSG_VALUES_H
#define RIX_FUZZ_TBLMSG_VALUES_H

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <random>
#include <utility>
#include <vector>

extern "C" size_t LLVMFuzzerMutate(uint8_t *data, size_t size, size_t maxSize);

namespace tmfuzz {

using Bytes = std::vector<uint8_t>;
using Rng = std::minstd_rand;

constexpr uint32_t kHdr = 8;  // body header, not interpreted
constexpr uint32_t kTlvHdr = 12;
constexpr uint32_t kItemHdr = 12;

inline uint32_t Get(const uint8_t *p)
{
    uint32_t v;
    std::memcpy(&v, p, 4);
    return v;
}
inline void Put(Bytes &b, uint32_t v)
{
    const auto *p = reinterpret_cast<const uint8_t *>(&v);
    b.insert(b.end(), p, p + 4);
}
inline void Set(uint8_t *p, uint32_t v)
{
    std::memcpy(p, &v, 4);
}

inline uint32_t Pick(Rng &rng, uint32_t n)
{
    return static_cast<uint32_t>(rng() % n);
}
template <typename T, size_t N>
T PickOf(Rng &rng, const T (&a)[N])
{
    return a[Pick(rng, N)];
}

// The list edits both levels share: drop one, duplicate one, swap two (op 0, 1, 2).
template <class T>
void EditList(std::vector<T> &v, Rng &rng, uint32_t op)
{
    const auto size = static_cast<uint32_t>(v.size());
    if (size == 0u || (op == 2u && size < 2u)) {
        return;
    }
    if (op == 0u) {
        v.erase(v.begin() + Pick(rng, size));
    } else if (op == 1u) {
        const T copy = v[Pick(rng, size)];
        v.insert(v.begin() + Pick(rng, size + 1u), copy);
    } else {
        std::swap(v[Pick(rng, size)], v[Pick(rng, size)]);
    }
}

// What tblmsg_fuzz.cpp registers.
inline constexpr uint32_t kDamTables[] = {10, 11, 12, 13};
inline constexpr uint32_t kFesTables[] = {20, 21, 22};
inline bool IsFes(uint32_t table)
{
    return table >= 20 && table <= 22;
}
inline bool IsPlain(uint32_t type)
{
    return type == 1 || type == 2;
}
inline bool IsComposite(uint32_t type)
{
    return type == 18 || type == 19;
}
inline bool IsSmooth(uint32_t type)
{
    return !IsPlain(type) && !IsComposite(type);
}

// Small values dominate: they are the ids, types and counts the code compares.
Bytes RandomBytes(Rng &rng, size_t n);
// Mutates bytes in place with libFuzzer's own mutator, to at most maxLen bytes.
void MutateBytes(Bytes &b, size_t maxLen);

// ---- Smoothing items ----

struct Item {
    uint32_t opt;
    uint32_t table;
    Bytes payload;
};

struct Items {
    std::vector<Item> items;
    Bytes tail;  // fewer than a header's worth, or an item whose length does not fit
};

Items ParseItems(const Bytes &v);
// Adds, drops, repeats, swaps or retypes the items of a smoothing value, or changes its
// tail; the value stays as it was when the result would take more than room bytes.
void MutateItems(Rng &rng, Bytes &value, uint32_t table, size_t room);

// A value for a TLV of this table and type: items for smoothing types, FES header and
// entries for plain types of FES tables, entries otherwise (now and then a stray byte).
Bytes NewValue(Rng &rng, uint32_t table, uint32_t type);
// Brings the FES header word 2 in line with the entries after the value changed.
void FixFes(Rng &rng, uint32_t table, uint32_t type, Bytes &v);

}  // namespace tmfuzz

#endif
