// The records the merge-queue benchmark writes, and the three peers it measures the queue
// against, each doing the same logical work: Boost.MultiIndex (sequenced + hashed_unique), the
// same with its nodes from a boost::pool, and std::unordered_map + std::list.
#ifndef RIX_BENCH_MQUE_PEERS_H
#define RIX_BENCH_MQUE_PEERS_H

#include <array>
#include <cstdint>
#include <cstring>
#include <list>
#include <map>
#include <memory>
#include <new>
#include <unordered_map>
#include <utility>

#include <boost/multi_index/hashed_index.hpp>
#include <boost/multi_index/member.hpp>
#include <boost/multi_index/sequenced_index.hpp>
#include <boost/multi_index_container.hpp>
#include <boost/pool/pool.hpp>

namespace mqbench {

constexpr uint32_t kDrainPerRound = 32;

struct Key16 {
    uint64_t lo;
    uint64_t hi;
    bool operator==(const Key16 &o) const { return lo == o.lo && hi == o.hi; }
};

struct KeyHash {
    size_t operator()(const Key16 &k) const
    {
        uint64_t h = k.lo * 0x9E3779B97F4A7C15ull ^ k.hi;
        h ^= h >> 29;
        h *= 0xBF58476D1CE4E5B9ull;
        return static_cast<size_t>(h ^ (h >> 32));
    }
};

// The record: key, operation type, payload; 64 bytes.
struct Rec {
    Key16 key;
    uint32_t opType;
    uint32_t seq;
    std::array<uint8_t, 40> payload;
};
static_assert(sizeof(Rec) == 64);

// pending 0 + 0 -> 0; 0 + 1 -> 1; 1 + 0 -> 2; 1 + 1 -> 1; 2 + 0 -> 2; 2 + 1 -> 1.
constexpr uint32_t kRule[3][2] = {{0, 1}, {2, 1}, {2, 1}};
inline uint32_t Merged(uint32_t pending, uint32_t arriving)
{
    return kRule[pending][arriving];
}

// ---- Boost.MultiIndex: the key is immutable, the rest of the record is mutable ----
struct MiRec {
    Key16 key;
    mutable std::array<uint8_t, 48> body;  // opType, seq, payload
};
namespace bmi = boost::multi_index;
using MiContainer = bmi::multi_index_container<
    MiRec, bmi::indexed_by<bmi::sequenced<>, bmi::hashed_unique<bmi::member<MiRec, Key16, &MiRec::key>, KeyHash>>>;

// Nodes from a boost::pool of their own size, bucket arrays from the heap. The pools belong to
// one container, so its heap figure is its own (a singleton pool would be shared by all).
struct PoolSet {
    std::map<size_t, std::unique_ptr<boost::pool<>>> bySize;
    boost::pool<> *For(size_t size)
    {
        auto &p = bySize[size];
        if (!p) {
            p = std::make_unique<boost::pool<>>(size, 64, 8192);
        }
        return p.get();
    }
};

template <typename T>
struct PoolAlloc {
    using value_type = T;
    std::shared_ptr<PoolSet> set;
    boost::pool<> *pool;
    explicit PoolAlloc(std::shared_ptr<PoolSet> s) : set(std::move(s)), pool(set->For(sizeof(T))) {}
    template <typename U>
    PoolAlloc(const PoolAlloc<U> &o) : set(o.set), pool(set->For(sizeof(T)))
    {
    }
    T *allocate(size_t n)
    {
        if (n != 1) {
            return std::allocator<T>().allocate(n);
        }
        void *p = pool->malloc();
        if (p == nullptr) {
            throw std::bad_alloc();
        }
        return static_cast<T *>(p);
    }
    void deallocate(T *p, size_t n)
    {
        if (n != 1) {
            std::allocator<T>().deallocate(p, n);
        } else {
            pool->free(p);
        }
    }
    template <typename U>
    bool operator==(const PoolAlloc<U> &o) const
    {
        return set == o.set;
    }
};

template <typename Container>
class BoostImplT {
public:
    explicit BoostImplT(uint32_t keyCount) { c_.template get<1>().rehash(keyCount); }
    template <typename Alloc>
    BoostImplT(uint32_t keyCount, Alloc alloc) : c_(alloc)
    {
        c_.template get<1>().rehash(keyCount);
    }
    void Write(Rec &r)
    {
        auto &byKey = c_.template get<1>();
        auto it = byKey.find(r.key);
        if (it != byKey.end()) {
            uint32_t pending;
            std::memcpy(&pending, it->body.data(), sizeof pending);
            r.opType = Merged(pending, r.opType);
            std::memcpy(it->body.data(), &r.opType, sizeof it->body);
            return;
        }
        MiRec m;
        m.key = r.key;
        std::memcpy(m.body.data(), &r.opType, sizeof m.body);
        c_.template get<0>().push_back(m);
    }
    uint32_t Drain(Rec *out)
    {
        auto &seq = c_.template get<0>();
        uint32_t n = 0;
        for (; n < kDrainPerRound && !seq.empty(); ++n) {
            std::memcpy(&out[n], &seq.front(), sizeof(Rec));
            seq.pop_front();
        }
        return n;
    }
    size_t Pending() const { return c_.size(); }

private:
    Container c_;
};
using BoostImpl = BoostImplT<MiContainer>;
using MiPoolContainer = bmi::multi_index_container<
    MiRec, bmi::indexed_by<bmi::sequenced<>, bmi::hashed_unique<bmi::member<MiRec, Key16, &MiRec::key>, KeyHash>>,
    PoolAlloc<MiRec>>;
class BoostPoolImpl : public BoostImplT<MiPoolContainer> {
public:
    explicit BoostPoolImpl(uint32_t keyCount)
        : BoostImplT<MiPoolContainer>(keyCount, PoolAlloc<MiRec>(std::make_shared<PoolSet>()))
    {
    }
};

// ---- std::unordered_map + std::list ----
class StdImpl {
public:
    explicit StdImpl(uint32_t keyCount) { index_.rehash(keyCount); }
    void Write(Rec &r)
    {
        auto it = index_.find(r.key);
        if (it != index_.end()) {
            Rec &pending = *it->second;
            r.opType = Merged(pending.opType, r.opType);
            pending = r;
            return;
        }
        list_.push_back(r);
        index_.emplace(r.key, std::prev(list_.end()));
    }
    uint32_t Drain(Rec *out)
    {
        uint32_t n = 0;
        for (; n < kDrainPerRound && !list_.empty(); ++n) {
            out[n] = list_.front();
            index_.erase(out[n].key);
            list_.pop_front();
        }
        return n;
    }
    size_t Pending() const { return list_.size(); }

private:
    std::list<Rec> list_;
    std::unordered_map<Key16, std::list<Rec>::iterator, KeyHash> index_;
};

}  // namespace mqbench

#endif
