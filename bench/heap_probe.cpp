// Heap bytes per pending entry of the merge queue, split by who holds them:
//   - the record's private copy: what the library asks of the module's memAlloc per record
//     written (requested), what malloc hands out for it (usable) and what the heap grows by;
//   - the queue entry: the data block size the queue asks of the hash service;
//   - the hash node and padding: the distance between consecutive blocks of the hash service's
//     pool (its stride) minus the block size asked for;
//   - the rest of the hash service: heap growth not explained by the above (pool chunk headers,
//     unused blocks at the end of a chunk, allocator headers).
// Measured, not derived from the layouts: the module's allocator counts its own bytes, and the
// hash-service calls of the library are interposed here on their way to the platform library
// (this executable exports them; the real ones are found with dlsym(RTLD_NEXT)).
// Two cases: the whole road (ASOrchMsgProc into the DAM queue, 64-byte records, 16-byte keys,
// nothing drained yet) and the queue alone holding 64-byte records, as in mergeque_bench.
// Not a Google Benchmark program: it also builds for armhf, where that library is missing.
#include <dlfcn.h>
#include <malloc.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <unordered_map>
#include <vector>

#include "lite_hash.h"
#include "rix_autosync_orch.h"
#include "rix_mergeque.h"
#include "rix_platform_test.h"

namespace {

size_t HeapInUse()
{
    const struct mallinfo2 mi = mallinfo2();
    return mi.uordblks + mi.hblkhd;
}

// ---- the module's allocator, counting ----
struct AllocCount {
    size_t requested = 0;
    size_t usable = 0;
    size_t footprint = 0;  // what the heap grew by
    size_t calls = 0;
};
AllocCount g_mod;
std::unordered_map<void *, AllocCount> g_modLive;
size_t g_self = 0;  // the heap's growth from this bookkeeping, taken out of the figures

void *ModAlloc(uint32_t n)
{
    const size_t before = HeapInUse();
    void *p = std::malloc(n);
    if (p == nullptr) {
        return nullptr;
    }
    const size_t after = HeapInUse();
    AllocCount a{n, malloc_usable_size(p), after - before, 1};
    g_modLive[p] = a;
    g_self += HeapInUse() - after;
    g_mod.requested += a.requested;
    g_mod.usable += a.usable;
    g_mod.footprint += a.footprint;
    g_mod.calls += 1;
    return p;
}
void ModFree(void *p)
{
    auto it = g_modLive.find(p);
    if (it != g_modLive.end()) {
        g_mod.requested -= it->second.requested;
        g_mod.usable -= it->second.usable;
        g_mod.footprint -= it->second.footprint;
        g_mod.calls -= 1;
        g_modLive.erase(it);
    }
    std::free(p);
}

// ---- what the library asks of the hash service ----
std::map<void *, uint32_t> g_blockSizeOf;  // table -> block size asked for
std::vector<uintptr_t> g_newBlocks;        // blocks handed out while recording
void *g_newBlocksTable = nullptr;
bool g_recording = false;

template <typename Fn>
Fn Real(const char *name)
{
    void *sym = dlsym(RTLD_NEXT, name);
    if (sym == nullptr) {
        std::fprintf(stderr, "heap_probe: %s not found\n", name);
        std::abort();
    }
    return reinterpret_cast<Fn>(sym);
}

}  // namespace

extern "C" {

void *LITE_HASH_CreateWithLock(uint32_t memPtNo, uint16_t blockSize, uint32_t bucketCount, LITE_HASH_HashFunc hashFunc,
                               LITE_HASH_CmpFunc cmpFunc, uint32_t flags)
{
    static auto real = Real<decltype(&LITE_HASH_CreateWithLock)>("LITE_HASH_CreateWithLock");
    void *t = real(memPtNo, blockSize, bucketCount, hashFunc, cmpFunc, flags);
    if (t != nullptr) {
        g_blockSizeOf[t] = blockSize;
    }
    return t;
}

void *LITE_HASH_NewData(void *hash, uint32_t flags)
{
    static auto real = Real<decltype(&LITE_HASH_NewData)>("LITE_HASH_NewData");
    void *d = real(hash, flags);
    if (g_recording && d != nullptr) {
        g_newBlocks.push_back(reinterpret_cast<uintptr_t>(d));
        g_newBlocksTable = hash;
    }
    return d;
}

}  // extern "C"

namespace {

// The most common distance between neighbouring blocks: the pool's stride.
size_t Stride(std::vector<uintptr_t> blocks)
{
    std::sort(blocks.begin(), blocks.end());
    std::map<uintptr_t, size_t> hist;
    for (size_t i = 1; i < blocks.size(); ++i) {
        ++hist[blocks[i] - blocks[i - 1]];
    }
    size_t best = 0;
    size_t bestCount = 0;
    for (const auto &[d, n] : hist) {
        if (n > bestCount) {
            best = d;
            bestCount = n;
        }
    }
    return best;
}

struct Snapshot {
    size_t heap;
    AllocCount mod;
};
Snapshot Take()
{
    return {HeapInUse() - g_self, g_mod};
}

// Before the first snapshot, so that the record of the blocks does not grow in between.
void StartRecording(uint32_t pending)
{
    g_newBlocks.clear();
    g_newBlocks.reserve(pending);
    g_newBlocksTable = nullptr;
    g_recording = true;
}

// One row: bytes per pending entry.
bool Report(const char *what, size_t pending, const Snapshot &a, const Snapshot &b)
{
    g_recording = false;
    if (pending == 0 || g_newBlocks.size() != pending || g_newBlocksTable == nullptr) {
        std::printf("%-22s %8zu  (pending %zu, blocks taken %zu: not measurable)\n", what, pending, pending,
                    g_newBlocks.size());
        return false;
    }
    const double n = static_cast<double>(pending);
    const double total = static_cast<double>(b.heap - a.heap) / n;
    const double copyReq = static_cast<double>(b.mod.requested - a.mod.requested) / n;
    const double copyUse = static_cast<double>(b.mod.usable - a.mod.usable) / n;
    const double copyFoot = static_cast<double>(b.mod.footprint - a.mod.footprint) / n;
    const double entry = g_blockSizeOf[g_newBlocksTable];
    const double stride = static_cast<double>(Stride(g_newBlocks));
    const double hashRest = total - copyFoot - stride;
    std::printf("%-22s %8zu %7.1f %6.1f %7.1f %7.1f %6.0f %9.0f %9.1f\n", what, pending, total, copyReq,
                copyUse - copyReq, copyFoot - copyUse, entry, stride - entry, hashRest);
    return true;
}

void Header()
{
    std::printf("heap bytes per pending entry (sizeof(void *) = %zu)\n", sizeof(void *));
    std::printf("%-22s %8s %7s %6s %7s %7s %6s %9s %9s\n", "case", "pending", "total", "copy", "c.round", "c.head",
                "entry", "node+pad", "pool rest");
}

// ---- the whole road ----
constexpr uint32_t kRecSize = 64;
constexpr uint32_t kKeySize = 16;
constexpr uint32_t kPerMsg = 256;
constexpr uint32_t kMsgId = 1;
constexpr uint32_t kMergeMsgId = 77;
uint64_t g_processed = 0;

uint32_t MsgProc(ASOrchHandle *, ASOrchMsgVec *)
{
    ++g_processed;
    return 0;
}

uint32_t KeyHash(const void *key)
{
    const auto *vec = static_cast<const ASOrchMsgVec *>(key);
    uint64_t a;
    std::memcpy(&a, vec->key, 8);
    return static_cast<uint32_t>((a * 0x9E3779B97F4A7C15ull) >> 32);
}

bool ProbeRoad(uint32_t pending)
{
    RIX_TEST_Reset();
    RIX_TEST_LogCapture(1);
    const ASOrchCreatePara para{1, 0, ModAlloc, ModFree, 2};
    ASOrchHandle *handle = ASOrchCreate("heap", &para);
    if (handle == nullptr) {
        return false;
    }
    ASOrchTblMsgRecvReg recv[1] = {{kMergeMsgId, kMsgId, 0, nullptr, nullptr, kRecSize, 0, nullptr, 0, kKeySize}};
    ASOrchMergeMsg mergeMsg[1] = {{kMergeMsgId, {MsgProc, MsgProc, MsgProc, MsgProc}}};
    ASOrchBasePara base{};
    base.recvTblMsg[0] = {recv, 1};
    base.mergeMque[0] = {mergeMsg, 1, pending, KeyHash, 4u * pending, pending};
    bool ok = ASOrchRegTblMsg(handle, &base) == 0 && ASOrchRegMerge(handle, &base) == 0;
    std::vector<uint8_t> body(8 + kPerMsg * kRecSize, 0);
    StartRecording(pending);
    const Snapshot a = Take();
    for (uint32_t done = 0; ok && done < pending; done += kPerMsg) {
        const uint32_t cnt = std::min(kPerMsg, pending - done);
        for (uint32_t r = 0; r < cnt; ++r) {
            const uint64_t key = done + r;  // every key distinct: every record stays pending
            std::memcpy(&body[8 + r * kRecSize], &key, sizeof key);
        }
        ASOrchMsg msg{body.data(), kMsgId, 8 + cnt * kRecSize};
        ok = ASOrchMsgProc(handle, &msg) == 0;
    }
    const Snapshot b = Take();
    char what[32];
    std::snprintf(what, sizeof what, "road, %u keys", pending);
    ok = ok && Report(what, pending, a, b);
    g_processed = 0;
    while (RIX_TEST_EalRunUntilIdle(ASOrchGetEalHdl(handle), 0) != 0) {
    }
    if (g_processed != pending) {
        std::printf("  drained %llu of %u records\n", static_cast<unsigned long long>(g_processed), pending);
        ok = false;
    }
    ASOrchDestroy(handle);
    RIX_TEST_LogClear();
    return ok;
}

// ---- the queue alone, 64-byte records as in mergeque_bench ----
struct Rec {
    uint64_t lo;
    uint64_t hi;
    uint8_t rest[48];
};
uint32_t QHash(const void *key)
{
    return static_cast<uint32_t>((static_cast<const Rec *>(key)->lo * 0x9E3779B97F4A7C15ull) >> 32);
}
uint32_t QCmp(const void *stored, const void *searched, uint32_t)
{
    return std::memcmp(stored, searched, 16) == 0 ? 1u : 0u;
}
const void *QKey(const void *stored)
{
    return stored;
}

bool ProbeQueue(uint32_t pending)
{
    const int epFd = epoll_create1(EPOLL_CLOEXEC);
    MergeQueCreatePara para{ModAlloc, ModFree, 0u, sizeof(Rec), pending, QHash, QCmp, epFd, QKey, nullptr, nullptr};
    MergeQueCb *q = RIX_MergeQueCreate("heap_probe", &para);
    bool ok = q != nullptr;
    Rec r{};
    StartRecording(pending);
    const Snapshot a = Take();
    for (uint32_t i = 0; ok && i < pending; ++i) {
        r.lo = i;
        ok = RIX_MergeQueWrite(q, &r, &r, 0) == 0;
    }
    const Snapshot b = Take();
    char what[32];
    std::snprintf(what, sizeof what, "queue alone, %u keys", pending);
    ok = ok && Report(what, pending, a, b);
    if (q != nullptr) {
        std::vector<Rec> out(256);
        while (RIX_MergeQueRead(q, out.data(), 256) != 0) {
        }
        RIX_MergeQueDestory(q);
    }
    close(epFd);
    return ok;
}

}  // namespace

int main(int argc, char **argv)
{
    std::vector<uint32_t> sizes;
    for (int i = 1; i < argc; ++i) {
        sizes.push_back(static_cast<uint32_t>(std::strtoul(argv[i], nullptr, 10)));
    }
    if (sizes.empty()) {
        sizes = {1024, 65536};
    }
    Header();
    bool ok = true;
    for (uint32_t n : sizes) {
        ok = ProbeRoad(n) && ok;
    }
    for (uint32_t n : sizes) {
        ok = ProbeQueue(n) && ok;
    }
    std::printf(
        "copy: the record's private copy as asked of memAlloc; c.round: malloc's rounding of it (usable\n"
        "minus asked); c.head: the heap's growth beyond the usable bytes (malloc's header); entry: the\n"
        "data block the queue asks of the hash service; node+pad: the distance between neighbouring\n"
        "blocks minus the block (the hash node and padding); pool rest: the rest of the heap's growth\n"
        "(chunk headers, blocks not yet handed out). Bucket arrays are made before and not counted.\n");
    return ok ? 0 : 1;
}
