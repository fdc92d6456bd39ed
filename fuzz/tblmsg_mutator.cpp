// Structure-aware mutation for tblmsg_fuzz. Byte-level mutation of a transfer message almost
// always breaks a length, and the message then stops at the first check; here an input is
// decoded (leniently) into its selector, TLVs, smoothing items, FES headers or records,
// mutated as such, and encoded again with every length consistent. One output in six then
// gets a single length field set off by one, to zero, or huge, so the checks themselves
// stay fuzzed. See tblmsg_fuzz.cpp for the input format and the registration.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

extern "C" size_t LLVMFuzzerMutate(uint8_t *data, size_t size, size_t maxSize);

namespace {

using Bytes = std::vector<uint8_t>;
using Rng = std::minstd_rand;

constexpr uint32_t kHdr = 8;  // body header, not interpreted
constexpr uint32_t kTlvHdr = 12;
constexpr uint32_t kItemHdr = 12;

uint32_t Get(const uint8_t *p)
{
    uint32_t v;
    std::memcpy(&v, p, 4);
    return v;
}
void Put(Bytes &b, uint32_t v)
{
    const auto *p = reinterpret_cast<const uint8_t *>(&v);
    b.insert(b.end(), p, p + 4);
}
void Set(uint8_t *p, uint32_t v)
{
    std::memcpy(p, &v, 4);
}

uint32_t Pick(Rng &rng, uint32_t n)
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
const uint32_t kDamTables[] = {10, 11, 12, 13};
const uint32_t kFesTables[] = {20, 21, 22};
bool IsFes(uint32_t table)
{
    return table >= 20 && table <= 22;
}
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
bool IsPlain(uint32_t type)
{
    return type == 1 || type == 2;
}
bool IsComposite(uint32_t type)
{
    return type == 18 || type == 19;
}
bool IsSmooth(uint32_t type)
{
    return !IsPlain(type) && !IsComposite(type);
}

struct SmoothType {
    uint32_t opt;
    uint32_t len;
};
const SmoothType kSmoothTypes[] = {{7, 16},  {8, 16},  {9, 32},  {10, 28},  {11, 28},
                                   {15, 20}, {16, 16}, {17, 16}, {190, 16}, {191, 16}};

// Record size of the recv message ids (selector & 7); 0 and 3 are serially packed (an operation
// word before the records, 0 without a release function), 6 has no record size, 7 is not
// registered.
uint32_t RecSize(uint32_t id)
{
    switch (id) {
        case 4:
            return 8;
        case 6:
            return 0;
        default:
            return 16;
    }
}

Bytes RandomBytes(Rng &rng, size_t n)
{
    Bytes b(n);
    for (auto &x : b) {
        // Small values dominate: they are the ids, types and counts the code compares.
        x = static_cast<uint8_t>(Pick(rng, 4) == 0 ? rng() : Pick(rng, 4));
    }
    return b;
}

// Mutates bytes in place with libFuzzer's own mutator, to at most maxLen bytes.
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

// ---- Table values ----

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

// Brings the FES header word 2 in line with the entries after the value changed.
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

// ---- Messages ----

struct Tlv {
    uint32_t table;
    uint32_t type;
    Bytes value;
};

struct Msg {
    uint8_t sel = 0x80;
    Bytes hdr = Bytes(kHdr, 0xEE);
    // Transfer messages.
    std::vector<Tlv> tlvs;
    Bytes tail;  // after the last TLV that fits
    // Recv messages.
    uint32_t opType = 0;  // serial form only
    bool serial = false;
    std::vector<Bytes> recs;
    Bytes stray;  // bytes that make no whole record
};

bool IsTrans(uint8_t sel)
{
    return (sel & 0x80u) != 0;
}

Msg Decode(const uint8_t *data, size_t size)
{
    Msg m;
    if (size == 0) {
        return m;
    }
    m.sel = data[0];
    const uint8_t *b = data + 1;
    const size_t n = size - 1;
    m.hdr.assign(b, b + std::min<size_t>(n, kHdr));
    m.hdr.resize(kHdr, 0xEE);
    if (IsTrans(m.sel)) {
        size_t off = kHdr + 4;
        while (n >= off + kTlvHdr) {
            const uint32_t len = Get(b + off + 8);
            const size_t avail = n - off - kTlvHdr;
            const size_t take = std::min<size_t>(len, avail);
            m.tlvs.push_back({Get(b + off), Get(b + off + 4), Bytes(b + off + kTlvHdr, b + off + kTlvHdr + take)});
            off += kTlvHdr + take;
        }
        if (n > off) {
            m.tail.assign(b + off, b + n);
        }
        return m;
    }
    const uint32_t id = m.sel & 7u;
    size_t off = kHdr;
    m.serial = id == 3 || id == 0;
    if (m.serial && n >= off + 4) {
        m.opType = Get(b + off);
        off += 4;
    }
    const uint32_t rs = RecSize(id);
    while (rs != 0 && n >= off + rs) {
        m.recs.emplace_back(b + off, b + off + rs);
        off += rs;
    }
    if (n > off) {
        m.stray.assign(b + off, b + n);
    }
    return m;
}

// Where the length fields of the encoded message are, for the deliberate inconsistencies.
struct LenField {
    size_t off;
    uint32_t value;
};

Bytes Encode(const Msg &m, std::vector<LenField> &lens)
{
    Bytes out;
    out.push_back(m.sel);
    out.insert(out.end(), m.hdr.begin(), m.hdr.end());
    if (IsTrans(m.sel)) {
        uint32_t area = 0;
        for (const Tlv &t : m.tlvs) {
            area += static_cast<uint32_t>(kTlvHdr + t.value.size());
        }
        lens.push_back({out.size(), area});
        Put(out, area);
        for (const Tlv &t : m.tlvs) {
            Put(out, t.table);
            Put(out, t.type);
            lens.push_back({out.size(), static_cast<uint32_t>(t.value.size())});
            Put(out, static_cast<uint32_t>(t.value.size()));
            const size_t value = out.size();
            out.insert(out.end(), t.value.begin(), t.value.end());
            if (IsSmooth(t.type)) {
                const Items its = ParseItems(t.value);
                size_t at = value;
                for (const Item &it : its.items) {
                    lens.push_back({at + 4, static_cast<uint32_t>(kItemHdr + it.payload.size())});
                    at += kItemHdr + it.payload.size();
                }
            } else if (IsFes(t.table) && IsPlain(t.type) && t.value.size() >= 8) {
                lens.push_back({value + 4, Get(&t.value[4])});
            }
        }
        out.insert(out.end(), m.tail.begin(), m.tail.end());
        return out;
    }
    if (m.serial) {
        Put(out, m.opType);
    }
    for (const Bytes &r : m.recs) {
        out.insert(out.end(), r.begin(), r.end());
    }
    out.insert(out.end(), m.stray.begin(), m.stray.end());
    return out;
}

void Corrupt(Rng &rng, Bytes &out, const std::vector<LenField> &lens)
{
    if (lens.empty()) {
        return;
    }
    const LenField f = lens[Pick(rng, static_cast<uint32_t>(lens.size()))];
    const uint32_t choices[] = {f.value + 1,
                                f.value - 1,
                                0u,
                                11u,
                                12u,
                                0xFFFFFFFFu,
                                0x7FFFFFFFu,
                                0x80000000u,
                                0xFFFFFFF4u,
                                f.value + 12,
                                f.value + 1 + Pick(rng, 11),
                                static_cast<uint32_t>(rng())};
    Set(&out[f.off], PickOf(rng, choices));
}

void MutateTrans(Rng &rng, Msg &m, size_t maxSize)
{
    auto &v = m.tlvs;
    const size_t room = maxSize > 64 ? maxSize - 64 : 0;
    const uint32_t op = Pick(rng, 12);
    switch (op) {
        case 0:
        case 1: {  // a new TLV: a registered table most of the time
            uint32_t table = Pick(rng, 2) == 0 ? PickOf(rng, kDamTables) : PickOf(rng, kFesTables);
            if (Pick(rng, 12) == 0) {
                table = Pick(rng, 2) == 0 ? 99u : rng();
            }
            const uint32_t types[] = {0, 1, 2, 1, 2, 3, 5, 17, 18, 19, 20, 0xFFFFFFFFu};
            const uint32_t type = PickOf(rng, types);
            v.insert(v.begin() + Pick(rng, static_cast<uint32_t>(v.size() + 1)),
                     {table, type, NewValue(rng, table, type)});
            break;
        }
        case 2:
        case 3:
        case 4:
            EditList(v, rng, op - 2u);
            break;
        case 5:  // the same value under another table or type
            if (!v.empty()) {
                Tlv &t = v[Pick(rng, static_cast<uint32_t>(v.size()))];
                if (Pick(rng, 2) == 0) {
                    t.table = Pick(rng, 2) == 0 ? PickOf(rng, kDamTables) : PickOf(rng, kFesTables);
                } else {
                    t.type = Pick(rng, 21);
                }
                FixFes(rng, t.table, t.type, t.value);
            }
            break;
        case 6:
        case 7:
        case 8: {  // inside one value, by what it holds
            if (v.empty()) {
                break;
            }
            Tlv &t = v[Pick(rng, static_cast<uint32_t>(v.size()))];
            if (IsSmooth(t.type)) {
                MutateItems(rng, t.value, t.table, room);
            } else if (IsPlain(t.type) && Pick(rng, 2) == 0) {
                t.value = NewValue(rng, t.table, t.type);
            } else {
                MutateBytes(t.value, std::min(room, t.value.size() + 64));
                FixFes(rng, t.table, t.type, t.value);
            }
            break;
        }
        case 9:  // another transfer id; bit 6 fails the smoothing entry points
            m.sel = static_cast<uint8_t>(0x80u | (Pick(rng, 4) == 0 ? 0x40u : 0u) | Pick(rng, 16));
            break;
        case 10:  // bytes after the last TLV, inside the area or past it
            if (m.tail.empty()) {
                m.tail = RandomBytes(rng, 1 + Pick(rng, 11));
            } else {
                m.tail.clear();
            }
            break;
        default:
            MutateBytes(m.hdr, kHdr);
            m.hdr.resize(kHdr, 0);
            break;
    }
}

void MutateRecv(Rng &rng, Msg &m, size_t maxSize)
{
    const uint32_t id = m.sel & 7u;
    const uint32_t rs = RecSize(id);
    auto &v = m.recs;
    switch (Pick(rng, 9)) {
        case 0:
        case 1:
            if (rs != 0 && (v.size() + 1) * rs + 64 < maxSize) {
                Bytes r = RandomBytes(rng, rs);
                if (!v.empty() && Pick(rng, 2) == 0) {  // a pending key: the queue merges
                    const Bytes &o = v[Pick(rng, static_cast<uint32_t>(v.size()))];
                    std::copy(o.begin(), o.begin() + std::min<size_t>(rs, 8), r.begin());
                }
                v.insert(v.begin() + Pick(rng, static_cast<uint32_t>(v.size() + 1)), r);
            }
            break;
        case 2:
            if (!v.empty()) {
                v.erase(v.begin() + Pick(rng, static_cast<uint32_t>(v.size())));
            }
            break;
        case 3:
            if (!v.empty()) {
                Bytes &r = v[Pick(rng, static_cast<uint32_t>(v.size()))];
                MutateBytes(r, rs);
                r.resize(rs, 0);
            }
            break;
        case 4:
            m.opType = Pick(rng, 4) == 0 ? rng() : Pick(rng, 2);
            break;
        case 5:
            if (m.stray.empty()) {
                m.stray = RandomBytes(rng, 1 + Pick(rng, rs == 0 ? 4 : rs - 1));
            } else {
                m.stray.clear();
            }
            break;
        case 6: {  // another recv id, records re-cut to its size
            const uint32_t nid = Pick(rng, 8);
            m.sel = static_cast<uint8_t>(nid);
            m.serial = nid == 3 || nid == 0;
            const uint32_t ns = RecSize(nid);
            for (Bytes &r : v) {
                r.resize(ns == 0 ? 0 : ns, 0);
            }
            if (ns == 0) {
                v.clear();
            }
            break;
        }
        case 7:
            if (v.size() > 1) {
                std::swap(v[Pick(rng, static_cast<uint32_t>(v.size()))], v[Pick(rng, static_cast<uint32_t>(v.size()))]);
            }
            break;
        default:  // into a transfer message
            m.sel = static_cast<uint8_t>(0x80u | Pick(rng, 16));
            m.tlvs.clear();
            break;
    }
}

size_t Emit(const Bytes &out, uint8_t *data, size_t maxSize)
{
    const size_t n = std::min(out.size(), maxSize);
    std::memcpy(data, out.data(), n);
    return n;
}

}  // namespace

extern "C" size_t LLVMFuzzerCustomMutator(uint8_t *data, size_t size, size_t maxSize, unsigned int seed)
{
    Rng rng(seed);
    // Plain byte mutation now and then: what no structure knows about.
    if (size == 0 || Pick(rng, 8) == 0) {
        return LLVMFuzzerMutate(data, size, maxSize);
    }
    Msg m = Decode(data, size);
    for (uint32_t n = 1 + Pick(rng, 3); n != 0; --n) {
        if (IsTrans(m.sel)) {
            MutateTrans(rng, m, maxSize);
        } else {
            MutateRecv(rng, m, maxSize);
        }
    }
    std::vector<LenField> lens;
    Bytes out = Encode(m, lens);
    if (out.size() > maxSize) {
        return LLVMFuzzerMutate(data, size, maxSize);
    }
    if (Pick(rng, 6) == 0) {
        Corrupt(rng, out, lens);
    }
    return Emit(out, data, maxSize);
}

// Crossover: the first TLVs (or records) of one input followed by the last of the other.
extern "C" size_t LLVMFuzzerCustomCrossOver(const uint8_t *data1, size_t size1, const uint8_t *data2, size_t size2,
                                            uint8_t *out, size_t maxOutSize, unsigned int seed)
{
    Rng rng(seed);
    Msg a = Decode(data1, size1);
    const Msg b = Decode(data2, size2);
    if (IsTrans(a.sel) && IsTrans(b.sel)) {
        a.tlvs.resize(Pick(rng, static_cast<uint32_t>(a.tlvs.size() + 1)));
        const size_t from = Pick(rng, static_cast<uint32_t>(b.tlvs.size() + 1));
        a.tlvs.insert(a.tlvs.end(), b.tlvs.begin() + static_cast<std::ptrdiff_t>(from), b.tlvs.end());
    } else if (!IsTrans(a.sel) && !IsTrans(b.sel) && RecSize(a.sel & 7u) == RecSize(b.sel & 7u)) {
        a.recs.resize(Pick(rng, static_cast<uint32_t>(a.recs.size() + 1)));
        const size_t from = Pick(rng, static_cast<uint32_t>(b.recs.size() + 1));
        a.recs.insert(a.recs.end(), b.recs.begin() + static_cast<std::ptrdiff_t>(from), b.recs.end());
    }
    std::vector<LenField> lens;
    const Bytes enc = Encode(a, lens);
    return Emit(enc, out, maxOutSize);
}
