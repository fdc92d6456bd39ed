// The merge queue against two peers doing the same logical work on the same pre-generated
// operations: Boost.MultiIndex (sequenced + hashed_unique) and std::unordered_map + std::list.
// Each write of a 64-byte record with a 16-byte key merges into a pending record of the same
// key (operation types combined by the merge rules) or queues a new one; every 64 writes,
// 32 records are drained oldest first. Hash size equals the key count for all three.
#include <malloc.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <list>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include <benchmark/benchmark.h>
#include <boost/multi_index/hashed_index.hpp>
#include <boost/multi_index/member.hpp>
#include <boost/multi_index/sequenced_index.hpp>
#include <boost/multi_index_container.hpp>

#include "rix_mergeque.h"

namespace {

constexpr uint32_t kWritesPerRound = 64;
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
inline uint32_t Merged(uint32_t pending, uint32_t arriving) { return kRule[pending][arriving]; }

struct Op {
    uint32_t keyIndex;
    uint32_t opType;
};

struct Workload {
    std::vector<Key16> keys;
    std::vector<Op> ops;
};

// Skewed: half the writes go to the first 5% of the keys.
std::shared_ptr<const Workload> MakeWorkload(uint32_t keyCount, bool skewed)
{
    auto w = std::make_shared<Workload>();
    std::mt19937_64 rng(keyCount * 2u + (skewed ? 1u : 0u));
    w->keys.resize(keyCount);
    for (Key16 &k : w->keys) {
        k = {rng(), rng()};
    }
    const uint32_t hot = keyCount / 20u == 0u ? 1u : keyCount / 20u;
    const size_t opCount = std::max<size_t>(size_t{1} << 21, size_t{4} * keyCount);
    w->ops.resize(opCount);
    for (Op &op : w->ops) {
        const bool toHot = skewed && (rng() & 1u) != 0u;
        op.keyIndex = static_cast<uint32_t>(rng() % (toHot ? hot : keyCount));
        op.opType = static_cast<uint32_t>(rng() & 1u);
    }
    return w;
}

inline void MakeRec(Rec &r, const Workload &w, const Op &op, uint32_t seq)
{
    r.key = w.keys[op.keyIndex];
    r.opType = op.opType;
    r.seq = seq;
}

// ---- the merge queue ----
uint32_t QHash(const void *key) { return static_cast<uint32_t>(KeyHash{}(static_cast<const Rec *>(key)->key)); }
uint32_t QCmp(const void *stored, const void *searched, uint32_t)
{
    return static_cast<const Rec *>(stored)->key == static_cast<const Rec *>(searched)->key ? 1u : 0u;
}
const void *QKey(const void *stored) { return stored; }
void QMerge(void *newData, void *stored)
{
    auto *n = static_cast<Rec *>(newData);
    n->opType = Merged(static_cast<const Rec *>(stored)->opType, n->opType);
}
void *QAlloc(uint32_t size) { return malloc(size); }
void QFree(void *p) { free(p); }

class QueueImpl {
public:
    explicit QueueImpl(uint32_t keyCount, const char *name)
    {
        epFd_ = epoll_create1(EPOLL_CLOEXEC);
        MergeQueCreatePara para{QAlloc, QFree, 0u, sizeof(Rec), keyCount, QHash, QCmp, epFd_, QKey, nullptr, QMerge};
        q_ = RIX_MergeQueCreate(name, &para);
        if (q_ == nullptr) {
            std::abort();
        }
    }
    ~QueueImpl()
    {
        RIX_MergeQueDestory(q_);
        close(epFd_);
    }
    void Write(Rec &r) { (void)RIX_MergeQueWrite(q_, &r, &r, 0); }
    uint32_t Drain(Rec *out) { return RIX_MergeQueRead(q_, out, kDrainPerRound); }
    size_t Pending() const { return q_->reader.itemCnt; }

private:
    int epFd_ = -1;
    MergeQueCb *q_ = nullptr;
};

// ---- Boost.MultiIndex: the key is immutable, the rest of the record is mutable ----
struct MiRec {
    Key16 key;
    mutable std::array<uint8_t, 48> body;  // opType, seq, payload
};
namespace bmi = boost::multi_index;
using MiContainer = bmi::multi_index_container<
    MiRec, bmi::indexed_by<bmi::sequenced<>, bmi::hashed_unique<bmi::member<MiRec, Key16, &MiRec::key>, KeyHash>>>;

class BoostImpl {
public:
    explicit BoostImpl(uint32_t keyCount) { c_.get<1>().rehash(keyCount); }
    void Write(Rec &r)
    {
        auto &byKey = c_.get<1>();
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
        c_.get<0>().push_back(m);
    }
    uint32_t Drain(Rec *out)
    {
        auto &seq = c_.get<0>();
        uint32_t n = 0;
        for (; n < kDrainPerRound && !seq.empty(); ++n) {
            std::memcpy(&out[n], &seq.front(), sizeof(Rec));
            seq.pop_front();
        }
        return n;
    }
    size_t Pending() const { return c_.size(); }

private:
    MiContainer c_;
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

// A container kept across the benchmark's repetitions, so that it is warmed once.
template <typename Impl>
struct Runner {
    std::shared_ptr<const Workload> w;
    std::unique_ptr<Impl> impl;
    size_t cursor = 0;
    uint32_t seq = 0;
    double bytesPerEntry = 0;
    std::array<Rec, kDrainPerRound> out{};
    uint64_t sink = 0;

    void Round()
    {
        const Workload &wl = *w;
        Rec r{};
        for (uint32_t i = 0; i < kWritesPerRound; ++i) {
            MakeRec(r, wl, wl.ops[cursor], ++seq);
            impl->Write(r);
            if (++cursor == wl.ops.size()) {
                cursor = 0;
            }
        }
        const uint32_t n = impl->Drain(out.data());
        sink += n != 0u ? out[n - 1].seq : 0u;
    }
};

size_t HeapInUse()
{
    const struct mallinfo2 mi = mallinfo2();
    return mi.uordblks + mi.hblkhd;  // large pools are mapped, not taken from the heap
}

template <typename Impl, typename... Args>
Runner<Impl> &GetRunner(uint32_t keyCount, bool skewed, Args... args)
{
    static std::map<std::pair<uint32_t, bool>, std::unique_ptr<Runner<Impl>>> runners;
    static std::map<std::pair<uint32_t, bool>, std::shared_ptr<const Workload>> workloads;
    auto &slot = runners[{keyCount, skewed}];
    if (!slot) {
        auto &wl = workloads[{keyCount, skewed}];
        if (!wl) {
            wl = MakeWorkload(keyCount, skewed);
        }
        slot = std::make_unique<Runner<Impl>>();
        slot->w = wl;
        const size_t before = HeapInUse();
        slot->impl = std::make_unique<Impl>(keyCount, args...);
        // Warm to the steady state: the pending count settles where half the writes merge.
        const size_t warmRounds = std::max<size_t>(size_t{4} * keyCount / kWritesPerRound, 4096);
        for (size_t i = 0; i < warmRounds; ++i) {
            slot->Round();
        }
        const size_t pending = slot->impl->Pending();
        slot->bytesPerEntry = pending == 0 ? 0.0
                                           : static_cast<double>(HeapInUse() - before) / static_cast<double>(pending) -
                                                 static_cast<double>(sizeof(Rec));
    }
    return *slot;
}

std::map<std::string, std::vector<double>> g_nsPerOp;  // every repetition
std::map<std::string, double> g_bytes;

template <typename Impl, typename... Args>
void Run(benchmark::State &state, const std::string &label, Args... args)
{
    const auto keyCount = static_cast<uint32_t>(state.range(0));
    const bool skewed = state.range(1) != 0;
    Runner<Impl> &runner = GetRunner<Impl>(keyCount, skewed, args...);
    for (auto _ : state) {
        runner.Round();
    }
    benchmark::DoNotOptimize(runner.sink);
    state.counters["ns/op"] = benchmark::Counter(kWritesPerRound, benchmark::Counter::kIsIterationInvariantRate |
                                                                      benchmark::Counter::kInvert);
    state.counters["pending"] = static_cast<double>(runner.impl->Pending());
    state.counters["B/entry"] = runner.bytesPerEntry;
    const std::string key = std::to_string(keyCount) + (skewed ? " skewed" : " uniform");
    g_bytes[label + "|" + key] = runner.bytesPerEntry;
}

void BM_MergeQue(benchmark::State &state)
{
    static uint32_t serial = 0;
    char name[32];
    std::snprintf(name, sizeof name, "bench_%u", serial++);
    Run<QueueImpl>(state, "queue", static_cast<const char *>(name));
}
void BM_BoostMultiIndex(benchmark::State &state) { Run<BoostImpl>(state, "boost"); }
void BM_StdMapList(benchmark::State &state) { Run<StdImpl>(state, "std"); }

void Args(benchmark::internal::Benchmark *b)
{
    for (int64_t keys : {1024, 65536, 1048576}) {
        for (int64_t skewed : {1, 0}) {
            b->Args({keys, skewed});
        }
    }
    b->ArgNames({"keys", "skewed"});
}

BENCHMARK(BM_MergeQue)->Apply(Args);
BENCHMARK(BM_BoostMultiIndex)->Apply(Args);
BENCHMARK(BM_StdMapList)->Apply(Args);

// Collects ns per operation of every run to print the ratios at the end.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run> &runs) override
    {
        for (const Run &run : runs) {
            auto it = run.counters.find("ns/op");
            if (run.run_type == Run::RT_Iteration && it != run.counters.end()) {
                g_nsPerOp[run.benchmark_name()].push_back(it->second.value * 1e9);
            }
        }
        ConsoleReporter::ReportRuns(runs);
    }
};

// The median of the repetitions: on a shared machine a single run is at the mercy of its
// neighbours, and interleaved repetitions spread that evenly over the three containers.
double Median(const std::string &name)
{
    std::vector<double> v = g_nsPerOp[name];
    if (v.empty()) {
        return 0.0;
    }
    std::sort(v.begin(), v.end());
    return v.size() % 2 == 1 ? v[v.size() / 2] : (v[v.size() / 2 - 1] + v[v.size() / 2]) / 2.0;
}

void PrintRatios()
{
    std::printf("\nmedians over the repetitions\n%-16s %9s %9s %9s %12s %10s   %s\n", "workload", "queue ns",
                "boost ns", "std ns", "boost/queue", "std/queue", "bytes per pending entry (queue/boost/std)");
    for (int64_t keys : {1024, 65536, 1048576}) {
        for (int64_t skewed : {1, 0}) {
            const std::string args = "/keys:" + std::to_string(keys) + "/skewed:" + std::to_string(skewed);
            const double q = Median("BM_MergeQue" + args);
            const double b = Median("BM_BoostMultiIndex" + args);
            const double s = Median("BM_StdMapList" + args);
            if (q <= 0.0) {
                continue;
            }
            const std::string key = std::to_string(keys) + (skewed != 0 ? " skewed" : " uniform");
            std::printf("%-16s %9.1f %9.1f %9.1f %12.2f %10.2f   %.0f/%.0f/%.0f\n", key.c_str(), q, b, s, b / q,
                        s / q, g_bytes["queue|" + key], g_bytes["boost|" + key], g_bytes["std|" + key]);
        }
    }
}

}  // namespace

int main(int argc, char **argv)
{
    benchmark::Initialize(&argc, argv);
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    PrintRatios();
    benchmark::Shutdown();
    return 0;
}
