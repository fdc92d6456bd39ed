// The whole road of a received record: ASOrchMsgProc -> message entry -> DAM merge queue ->
// drain on the DATA thread's epoll loop (stepped on this thread) -> the module's msgProc.
// 64-byte records with 16-byte keys arrive in messages of 256 records; a burst of 1024
// records is fed, then drained. Coalescing is the share of records that merge into a
// pending record of the same key (0%, 50%, 90%).
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include <benchmark/benchmark.h>

#include "rix_autosync_orch.h"
#include "rix_platform_test.h"

namespace {

constexpr uint32_t kRecSize = 64;
constexpr uint32_t kKeySize = 16;
constexpr uint32_t kPerMsg = 256;
constexpr uint32_t kBurst = 1024;
constexpr uint32_t kMsgId = 1;
constexpr uint32_t kMergeMsgId = 77;

uint64_t g_allocs = 0;
uint64_t g_processed = 0;
uint64_t g_recordsFed = 0;  // over every run of the process, for instruction counts per record

void *Alloc(uint32_t n)
{
    ++g_allocs;
    return std::malloc(n);
}
void Free(void *p)
{
    std::free(p);
}

uint32_t MsgProc(ASOrchHandle *, ASOrchMsgVec *vec)
{
    benchmark::DoNotOptimize(vec->data);
    ++g_processed;
    return 0;
}

ASOrchHandle *g_handle = nullptr;

// The module's bucket hash, as modules write it: the library's hash of the vector's key.
uint32_t KeyHash(const void *key)
{
    return ASOrchMergeHashFunc(g_handle, ASORCH_MERGE_CHAN_DAM, static_cast<const ASOrchMsgVec *>(key));
}

// Messages of one burst: record i carries key i % distinct, so (1 - distinct / burst) of the
// records find their key pending.
std::vector<std::vector<uint8_t>> BuildBurst(uint32_t coalescePct)
{
    const uint32_t distinct = kBurst * (100 - coalescePct) / 100;
    std::vector<std::vector<uint8_t>> msgs(kBurst / kPerMsg);
    for (uint32_t m = 0; m < msgs.size(); ++m) {
        std::vector<uint8_t> &body = msgs[m];
        body.assign(8 + kPerMsg * kRecSize, 0);
        for (uint32_t r = 0; r < kPerMsg; ++r) {
            const uint64_t key = (m * kPerMsg + r) % distinct;
            uint8_t *rec = &body[8 + r * kRecSize];
            std::memcpy(rec, &key, 8);
            const uint64_t salt = 0x5A5A5A5A5A5A5A5Aull ^ key;
            std::memcpy(rec + 8, &salt, 8);
            std::memset(rec + kKeySize, static_cast<int>(r), kRecSize - kKeySize);
        }
    }
    return msgs;
}

void BM_RecordsThroughMergeToMsgProc(benchmark::State &state)
{
    const auto coalesce = static_cast<uint32_t>(state.range(0));
    RIX_TEST_Reset();
    RIX_TEST_LogCapture(1);
    const ASOrchCreatePara para{1, 0, Alloc, Free, 2};
    ASOrchHandle *handle = ASOrchCreate("bench", &para);
    g_handle = handle;
    if (handle == nullptr) {
        state.SkipWithError("ASOrchCreate failed");
        return;
    }
    ASOrchTblMsgRecvReg recv[1] = {{kMergeMsgId, kMsgId, 0, nullptr, nullptr, kRecSize, 0, nullptr, 0, kKeySize}};
    ASOrchMergeMsg mergeMsg[1] = {{kMergeMsgId, {MsgProc, MsgProc, MsgProc, MsgProc}}};
    ASOrchBasePara base{};
    base.recvTblMsg[0] = {recv, 1};
    base.mergeMque[0] = {mergeMsg, 1, 4096, KeyHash, 1u << 20, 1u << 16};
    if (ASOrchRegTblMsg(handle, &base) != 0 || ASOrchRegMerge(handle, &base) != 0) {
        state.SkipWithError("registration failed");
        ASOrchDestroy(handle);
        return;
    }
    void *eal = ASOrchGetEalHdl(handle);
    std::vector<std::vector<uint8_t>> msgs = BuildBurst(coalesce);
    const uint64_t allocs0 = g_allocs;
    g_processed = 0;
    for (auto _ : state) {
        for (auto &body : msgs) {
            ASOrchMsg msg{body.data(), kMsgId, static_cast<uint32_t>(body.size())};
            benchmark::DoNotOptimize(ASOrchMsgProc(handle, &msg));
        }
        RIX_TEST_EalRunUntilIdle(eal, 0);
        // The captured info lines of the drain would otherwise pile up.
        RIX_TEST_LogClear();
    }
    g_recordsFed += static_cast<uint64_t>(state.iterations()) * kBurst;
    const double records = static_cast<double>(state.iterations()) * kBurst;
    state.SetItemsProcessed(static_cast<int64_t>(records));
    state.counters["allocs_per_record"] = static_cast<double>(g_allocs - allocs0) / records;
    state.counters["msgproc_per_record"] = static_cast<double>(g_processed) / records;
    ASOrchDestroy(handle);
    RIX_TEST_Reset();
}

BENCHMARK(BM_RecordsThroughMergeToMsgProc)->Arg(0)->Arg(50)->Arg(90)->ArgName("coalesce_pct");

}  // namespace

// Records fed through the road by all runs (the runs that size the iteration count included),
// on stderr: instructions collected by callgrind over ASOrchMsgProc and the drain divide by it.
int main(int argc, char **argv)
{
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    std::fprintf(stderr, "records fed %llu\n", static_cast<unsigned long long>(g_recordsFed));
    benchmark::Shutdown();
    return 0;
}
