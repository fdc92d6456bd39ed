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
#include <vector>

#include "tblmsg_values.h"

namespace {

using namespace tmfuzz;

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
