// The merge queue against three peers doing the same logical work on the same pre-generated
// operations: Boost.MultiIndex (sequenced + hashed_unique), the same with its nodes from a
// boost::pool, and std::unordered_map + std::list (mque_peers.h).
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
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "mque_peers.h"
#include "rix_mergeque.h"

namespace {

using namespace mqbench;

constexpr uint32_t kWritesPerRound = 64;

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
uint32_t QHash(const void *key)
{
    return static_cast<uint32_t>(KeyHash{}(static_cast<const Rec *>(key)->key));
}
uint32_t QCmp(const void *stored, const void *searched, uint32_t)
{
    return static_cast<const Rec *>(stored)->key == static_cast<const Rec *>(searched)->key ? 1u : 0u;
}
const void *QKey(const void *stored)
{
    return stored;
}
void QMerge(void *newData, void *stored)
{
    auto *n = static_cast<Rec *>(newData);
    n->opType = Merged(static_cast<const Rec *>(stored)->opType, n->opType);
}
void *QAlloc(uint32_t size)
{
    return malloc(size);
}
void QFree(void *p)
{
    free(p);
}

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
        // Everything the container holds, bucket array included, per pending entry.
        const size_t pending = slot->impl->Pending();
        slot->bytesPerEntry =
            pending == 0 ? 0.0 : static_cast<double>(HeapInUse() - before) / static_cast<double>(pending);
    }
    return *slot;
}

std::map<std::string, uint64_t> g_measuredWrites;  // by container, for instruction counts

}  // namespace

// The measured rounds, one function per container, so that callgrind can collect exactly them
// (--toggle-collect=RixBenchRound_queue); the warm-up runs outside them.
#define RIX_BENCH_ROUND_FN(label, Impl)                           \
    [[gnu::noinline]] void RixBenchRound_##label(Runner<Impl> &r) \
    {                                                             \
        r.Round();                                                \
    }
RIX_BENCH_ROUND_FN(queue, QueueImpl)
RIX_BENCH_ROUND_FN(boost, BoostImpl)
RIX_BENCH_ROUND_FN(boostpool, BoostPoolImpl)
RIX_BENCH_ROUND_FN(std, StdImpl)

namespace {

template <typename Impl, typename... Args>
void Run(benchmark::State &state, void (*round)(Runner<Impl> &), const char *label, Args... args)
{
    const auto keyCount = static_cast<uint32_t>(state.range(0));
    const bool skewed = state.range(1) != 0;
    Runner<Impl> &runner = GetRunner<Impl>(keyCount, skewed, args...);
    for (auto _ : state) {
        round(runner);
    }
    benchmark::DoNotOptimize(runner.sink);
    g_measuredWrites[label] += state.iterations() * kWritesPerRound;
    state.counters["ns/op"] = benchmark::Counter(kWritesPerRound, benchmark::Counter::kIsIterationInvariantRate |
                                                                      benchmark::Counter::kInvert);
    state.counters["pending"] = static_cast<double>(runner.impl->Pending());
    state.counters["B/entry"] = runner.bytesPerEntry;
}

void BM_MergeQue(benchmark::State &state)
{
    static uint32_t serial = 0;
    char name[32];
    std::snprintf(name, sizeof name, "bench_%u", serial++);
    Run<QueueImpl>(state, RixBenchRound_queue, "queue", static_cast<const char *>(name));
}
void BM_BoostMultiIndex(benchmark::State &state)
{
    Run<BoostImpl>(state, RixBenchRound_boost, "boost");
}
void BM_BoostMultiIndexPool(benchmark::State &state)
{
    Run<BoostPoolImpl>(state, RixBenchRound_boostpool, "boostpool");
}
void BM_StdMapList(benchmark::State &state)
{
    Run<StdImpl>(state, RixBenchRound_std, "std");
}

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
BENCHMARK(BM_BoostMultiIndexPool)->Apply(Args);
BENCHMARK(BM_StdMapList)->Apply(Args);

}  // namespace

// Ratios, min/median/max over repetitions and heap per entry: bench/run.sh, from the JSON
// output (--benchmark_out). The writes measured go to stderr for instruction counts per write.
int main(int argc, char **argv)
{
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    for (const auto &[label, writes] : g_measuredWrites) {
        std::fprintf(stderr, "measured writes %s %llu\n", label.c_str(), static_cast<unsigned long long>(writes));
    }
    benchmark::Shutdown();
    return 0;
}
