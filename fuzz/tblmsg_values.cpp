// Table values and smoothing items for the transfer-message mutator (tblmsg_values.h).
#include "tblmsg_values.h"

#include <algorithm>

namespace tmfuzz {

namespace {

uint32_t TblSize(uint32_t table)
{
    switch (table) {
        case 10:
            return 8;
        case 12:
            return 24;
        case 13:
            return 4;
        case 20:
            return 4;
        case 22:
            return 16;
        default:
            return 0;
    }
}

struct SmoothType {
    uint32_t opt;
    uint32_t len;
};
const SmoothType kSmoothTypes[] = {{7, 16},  {8, 16},  {9, 32},  {10, 28},  {11, 28},
                                   {15, 20}, {16, 16}, {17, 16}, {190, 16}, {191, 16}};

}  // namespace

Bytes RandomBytes(Rng &rng, size_t n)
{
    Bytes b(n);
    for (auto &x : b) {
        x = static_cast<uint8_t>(Pick(rng, 4) == 0 ? rng() : Pick(rng, 4));
    }
    return b;
}

void MutateBytes(Bytes &b, size_t maxLen)
{
    if (b.empty()) {
        b.push_back(0);
    }
    const size_t size = b.size();
    const size_t cap = std::max(maxLen, size);
    b.resize(cap);
    b.resize(LLVMFuzzerMutate(b.data(), size, cap));
}

Items ParseItems(const Bytes &v)
{
    Items out;
    size_t off = 0;
    while (v.size() - off >= kItemHdr) {
        const uint32_t len = Get(&v[off + 4]);
        if (len < kItemHdr || len > v.size() - off) {
            break;
        }
        out.items.push_back({Get(&v[off]), Get(&v[off + 8]), Bytes(v.begin() + off + kItemHdr, v.begin() + off + len)});
        off += len;
    }
    out.tail.assign(v.begin() + off, v.end());
    return out;
}

namespace {

Bytes EncodeItems(const Items &in)
{
    Bytes v;
    for (const Item &it : in.items) {
        Put(v, it.opt);
        Put(v, static_cast<uint32_t>(kItemHdr + it.payload.size()));
        Put(v, it.table);
        v.insert(v.end(), it.payload.begin(), it.payload.end());
    }
    v.insert(v.end(), in.tail.begin(), in.tail.end());
    return v;
}

Item NewItem(Rng &rng, uint32_t table)
{
    if (Pick(rng, 10) == 0) {  // an empty or out-of-range slot
        const uint32_t bad[] = {0, 12, 13, 14, 18, 100, 189, 192, 0xFFFFFFFFu};
        return {PickOf(rng, bad), table, RandomBytes(rng, 4 * Pick(rng, 6))};
    }
    const SmoothType t = PickOf(rng, kSmoothTypes);
    return {t.opt, Pick(rng, 4) == 0 ? PickOf(rng, kDamTables) : table, RandomBytes(rng, t.len - kItemHdr)};
}

}  // namespace

void MutateItems(Rng &rng, Bytes &value, uint32_t table, size_t room)
{
    Items its = ParseItems(value);
    auto &v = its.items;
    const uint32_t op = Pick(rng, 8);
    switch (op) {
        case 0:
        case 1:
            v.insert(v.begin() + Pick(rng, static_cast<uint32_t>(v.size() + 1)), NewItem(rng, table));
            break;
        case 2:
        case 3:
        case 4:
            EditList(v, rng, op - 2u);
            break;
        case 5:  // another type, payload resized to the new type's size
            if (!v.empty()) {
                Item &it = v[Pick(rng, static_cast<uint32_t>(v.size()))];
                const SmoothType t = PickOf(rng, kSmoothTypes);
                it.opt = t.opt;
                it.payload.resize(t.len - kItemHdr);
            }
            break;
        case 6:
            if (!v.empty()) {
                Item &it = v[Pick(rng, static_cast<uint32_t>(v.size()))];
                MutateBytes(it.payload, it.payload.size() + 8);
            }
            break;
        default:
            if (!its.tail.empty() && Pick(rng, 2) == 0) {
                its.tail.clear();
            } else {
                its.tail = RandomBytes(rng, Pick(rng, 12));
            }
            break;
    }
    Bytes out = EncodeItems(its);
    if (out.size() <= room) {
        value = std::move(out);
    }
}

Bytes NewValue(Rng &rng, uint32_t table, uint32_t type)
{
    if (IsSmooth(type)) {
        Items its;
        for (uint32_t n = 1 + Pick(rng, 4); n != 0; --n) {
            its.items.push_back(NewItem(rng, table));
        }
        return EncodeItems(its);
    }
    if (IsComposite(type)) {
        return RandomBytes(rng, Pick(rng, 24));
    }
    uint32_t size = TblSize(table);
    if (type == 2 || size == 0) {
        size = 4 * (1 + Pick(rng, 6));
    }
    const uint32_t count = Pick(rng, 5);
    Bytes v;
    if (IsFes(table)) {
        Put(v, rng());
        Put(v, type == 1 ? count * size : size);
    }
    const Bytes entries = RandomBytes(rng, size_t{count} * size + (Pick(rng, 6) == 0 ? Pick(rng, size) : 0));
    v.insert(v.end(), entries.begin(), entries.end());
    return v;
}

void FixFes(Rng &rng, uint32_t table, uint32_t type, Bytes &v)
{
    if (!IsFes(table) || !IsPlain(type) || v.size() < 8) {
        return;
    }
    const uint32_t entries = static_cast<uint32_t>(v.size() - 8);
    if (type == 1) {
        Set(&v[4], entries);
    } else if (Get(&v[4]) == 0 || Get(&v[4]) > entries) {
        Set(&v[4], entries == 0 ? 4 : std::max<uint32_t>(1, entries / (1 + Pick(rng, 4))));
    }
}

}  // namespace tmfuzz
