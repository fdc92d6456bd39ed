// libFuzzer target: the merge queue against a reference model. The input is a program of
// operations on up to kSlots queues: create, write with and without merge, the four read
// entry points (some writing to the queue from inside their callbacks), back-press and
// release, water marks, the reader's eventfd stepped through a hand-run epoll loop,
// printing, destroy, and injected failures of the platform. After every step the queue's
// list, counts, statistics, monitor events and every block it holds must match the model;
// at the end every queue is destroyed and nothing may be left.
#include <dirent.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <list>
#include <map>
#include <set>
#include <string>
#include <vector>

#include <fuzzer/FuzzedDataProvider.h>

#include "lite_hash.h"
#include "rix_mergeque.h"
#include "rix_platform_test.h"

namespace {

constexpr uint32_t kSlots = 3;
constexpr uint32_t kKeys = 24;     // small: merges and bucket conflicts are common
constexpr uint32_t kMinData = 12;  // key, serial, merged sum
constexpr uint32_t kMaxOps = 400;

// ---- The module side: the data layout, hash and compare, merge, allocator ----

uint32_t Word(const uint8_t *p, uint32_t off)
{
    uint32_t v;
    std::memcpy(&v, p + off, 4);
    return v;
}
void SetWord(uint8_t *p, uint32_t off, uint32_t v)
{
    std::memcpy(p + off, &v, 4);
}

uint32_t HashKey(const void *key)
{
    return Word(static_cast<const uint8_t *>(key), 0) * 2654435761u;
}
uint32_t CmpKey(const void *stored, const void *searched, uint32_t)
{
    return Word(static_cast<const uint8_t *>(stored), 0) == Word(static_cast<const uint8_t *>(searched), 0) ? 1u : 0u;
}
const void *KeyOf(const void *stored)
{
    return stored;
}

uint32_t g_dataSize;  // of the queue whose merge runs; set before each write
void SetMergeSize(uint32_t size)
{
    g_dataSize = size;
}

// The module's merge: the writer's sum grows by the pending one, the last byte mixes both,
// and the pending copy is scribbled on (the queue must overwrite it with the writer's data).
void MergeData(uint8_t *incoming, uint8_t *pending, uint32_t size)
{
    SetWord(incoming, 8, Word(incoming, 8) + Word(pending, 8));
    incoming[size - 1] = static_cast<uint8_t>(incoming[size - 1] ^ pending[size - 1]);
    SetWord(pending, 4, 0xDEADBEEFu);
}
void MergeFn(void *newData, void *storedData)
{
    MergeData(static_cast<uint8_t *>(newData), static_cast<uint8_t *>(storedData), g_dataSize);
}

std::set<void *> g_live;  // blocks of the counting allocator
void *Alloc(uint32_t n)
{
    void *p = std::malloc(n == 0 ? 1 : n);
    g_live.insert(p);
    return p;
}
void Free(void *p)
{
    if (g_live.erase(p) != 1) {
        std::fprintf(stderr, "free of a block not allocated: %p\n", p);
        std::abort();
    }
    std::free(p);
}

[[noreturn]] void Fail(const char *what, uint32_t slot, uint64_t got, uint64_t want)
{
    std::fprintf(stderr, "model mismatch: %s (slot %u): got %llu, want %llu\n", what, slot,
                 static_cast<unsigned long long>(got), static_cast<unsigned long long>(want));
    std::abort();
}
void Expect(bool ok, const char *what, uint32_t slot, uint64_t got = 0, uint64_t want = 0)
{
    if (!ok) {
        Fail(what, slot, got, want);
    }
}

int EpollSet()
{
    static const int fd = epoll_create1(EPOLL_CLOEXEC);
    if (fd < 0) {
        std::abort();
    }
    return fd;
}

// Open descriptors of the process: a queue's eventfd must be closed with the queue, also
// when its creation failed half-way.
uint32_t OpenFds()
{
    DIR *dir = opendir("/proc/self/fd");
    if (dir == nullptr) {
        std::abort();
    }
    uint32_t n = 0;
    while (readdir(dir) != nullptr) {
        ++n;
    }
    closedir(dir);
    return n;
}

// ---- The model ----

using Bytes = std::vector<uint8_t>;

struct Model {
    MergeQueCb *q = nullptr;
    std::string name;
    uint32_t dataSize = 0;
    uint32_t hashSize = 0;
    bool merge = false;
    bool sched = false;
    uint32_t schedBatch = 1;    // what the drain reads per wake-up
    std::list<uint32_t> order;  // keys, oldest first
    std::map<uint32_t, std::pair<Bytes, std::list<uint32_t>::iterator>> pending;
    std::array<uint32_t, MERGEQUE_RSTAT_NUM> rstat{};
    std::array<uint32_t, MERGEQUE_QSTAT_NUM> qstat{};
    bool monitor = false;
    uint32_t high = 0;
    uint32_t low = 0;
    bool overLoad = false;
    bool epollReg = true;
    uint32_t units = 0;  // eventfd counter
    uint32_t backPressPara = 0;
    std::vector<uint32_t> wantEvents;  // monitor events expected and seen
    std::vector<uint32_t> gotEvents;
    std::vector<Bytes> delivered;  // what the drain's reads handed over
    std::vector<Bytes> wantDelivered;
};

std::array<Model, kSlots> g_slot;

uint32_t Notify(uint32_t evt, void *para)
{
    static_cast<Model *>(para)->gotEvents.push_back(evt);
    return evt;  // not used by the queue
}

// A write that a read callback makes to its own queue, which the queue allows: the entry
// being delivered is already out, so its key makes a new entry, and a merge with moveTail
// may move the entry the walk goes on with.
struct Plan {
    uint32_t key;
    int32_t moveTail;
    Bytes data;
};

struct ReadCtx {
    Model *m;
    std::vector<Bytes> *out;
    uint32_t failEvery;  // the callback reports failure for every n-th entry (0: never)
    uint32_t n;
    const std::vector<Plan> *plans;  // plans[i]: the write made by the (i+1)-th callback
};

void SetMergeSize(uint32_t size);

uint32_t ReadCb(void *data, uint32_t size, void *usr)
{
    auto *ctx = static_cast<ReadCtx *>(usr);
    Expect(size == ctx->m->dataSize, "callback size", 0, size, ctx->m->dataSize);
    const auto *p = static_cast<const uint8_t *>(data);
    ctx->out->emplace_back(p, p + size);
    ++ctx->n;
    if (ctx->plans != nullptr && ctx->n <= ctx->plans->size()) {
        const Plan &plan = (*ctx->plans)[ctx->n - 1];
        Bytes buf = plan.data;
        SetMergeSize(ctx->m->dataSize);
        Expect(RIX_MergeQueWrite(ctx->m->q, &plan.key, buf.data(), plan.moveTail) == ASORCH_OK,
               "write from a read callback", 0);
    }
    return (ctx->failEvery != 0 && ctx->n % ctx->failEvery == 0) ? 1u : 0u;
}

Model *ModelOf(MergeQueCb *q)
{
    for (Model &m : g_slot) {
        if (m.q == q) {
            return &m;
        }
    }
    return nullptr;
}

uint32_t SchedProc(MergeQueCb *q)
{
    Model *m = ModelOf(q);
    Expect(m != nullptr, "drain of an unknown queue", 0);
    ReadCtx ctx{m, &m->delivered, 0, 0, nullptr};
    (void)RIX_MergeQueReadCallBack(q, m->schedBatch, ReadCb, &ctx);
    return 1u;  // not used by the queue
}

// Model steps shared by the operations.
void ModelCount(Model &m, uint32_t id, uint32_t n = 1)
{
    m.rstat[id] += n;
}

void ModelMonitorWrite(Model &m)
{
    if (m.monitor && !m.overLoad && m.order.size() > m.high) {
        m.overLoad = true;
        ++m.qstat[MERGEQUE_QSTAT_OVER_HIGH_WATER];
        m.wantEvents.push_back(MERGEQUE_EVT_OVER_HIGH_WATER);
    }
}

void ModelMonitorRemove(Model &m)
{
    if (m.monitor && m.overLoad && m.order.size() < m.low) {
        m.overLoad = false;
        ++m.qstat[MERGEQUE_QSTAT_UNDER_LOW_WATER];
        m.wantEvents.push_back(MERGEQUE_EVT_UNDER_LOW_WATER);
    }
}

uint32_t Bucket(const Model &m, uint32_t key)
{
    return HashKey(&key) % m.hashSize;
}

void ModelNewWrite(Model &m, uint32_t key, const Bytes &data)
{
    m.order.push_back(key);
    m.pending[key] = {data, std::prev(m.order.end())};
    uint32_t inBucket = 0;
    for (const auto &kv : m.pending) {
        inBucket += Bucket(m, kv.first) == Bucket(m, key) ? 1u : 0u;
    }
    m.qstat[MERGEQUE_QSTAT_MAX_CONFLICT] = std::max(m.qstat[MERGEQUE_QSTAT_MAX_CONFLICT], inBucket);
    m.qstat[MERGEQUE_QSTAT_HISTORY_MAX_CNT] =
        std::max(m.qstat[MERGEQUE_QSTAT_HISTORY_MAX_CNT], static_cast<uint32_t>(m.pending.size()));
    ModelCount(m, MERGEQUE_RSTAT_SUCC_WRITE);
    if (m.order.size() == 1) {
        ++m.units;
    }
    ModelMonitorWrite(m);
}

// A write that succeeds: a new entry, or a merge into the pending one. Returns what the
// writer's buffer holds afterwards (the merge function may change it).
Bytes ModelWrite(Model &m, uint32_t key, int32_t moveTail, Bytes data)
{
    auto it = m.pending.find(key);
    if (it == m.pending.end()) {
        ModelNewWrite(m, key, data);
        return data;
    }
    Bytes &stored = it->second.first;
    if (m.merge) {
        MergeData(data.data(), stored.data(), m.dataSize);
    }
    stored = data;
    if (moveTail == 1) {
        m.order.splice(m.order.end(), m.order, it->second.second);
    }
    ModelCount(m, MERGEQUE_RSTAT_SUCC_MERGE);
    return data;
}

// Takes up to maxCnt entries from the head, remembering each one's successor before it is
// handled, as the queue's walk does; notify/monitor as the full read entry points do.
std::vector<Bytes> ModelRead(Model &m, uint32_t maxCnt, bool full, const std::vector<Plan> *plans = nullptr)
{
    std::vector<Bytes> out;
    for (auto it = m.order.begin(); it != m.order.end() && out.size() < maxCnt;) {
        const auto next = std::next(it);
        const uint32_t key = *it;
        out.push_back(m.pending[key].first);
        m.pending.erase(key);
        m.order.erase(it);
        ModelCount(m, MERGEQUE_RSTAT_SUCC_READ);
        if (plans != nullptr && out.size() <= plans->size()) {
            const Plan &plan = (*plans)[out.size() - 1];
            (void)ModelWrite(m, plan.key, plan.moveTail, plan.data);
        }
        it = next;
    }
    if (out.size() < maxCnt) {
        ModelCount(m, MERGEQUE_RSTAT_EMPTY_READ, maxCnt - static_cast<uint32_t>(out.size()));
    }
    if (full) {
        if (!m.order.empty()) {
            ++m.units;
        }
        ModelMonitorRemove(m);
    }
    return out;
}

uint64_t g_wantBlocks = 0;

// ---- Comparison of the queue with its model ----

void Check(uint32_t s)
{
    Model &m = g_slot[s];
    if (m.q == nullptr) {
        return;
    }
    const MergeQueCb *q = m.q;
    Expect(q->reader.itemCnt == m.order.size(), "itemCnt", s, q->reader.itemCnt, m.order.size());
    Expect(LITE_HASH_GetHashCnt(q->hash) == m.order.size(), "hash count", s, LITE_HASH_GetHashCnt(q->hash),
           m.order.size());
    const MergeQueLink *head = &q->reader.msgList;
    const MergeQueLink *link = head->next;
    uint32_t i = 0;
    for (uint32_t key : m.order) {
        Expect(link != head, "list shorter than the model", s, i, m.order.size());
        Expect(link->next->prev == link && link->prev->next == link, "list links", s, i);
        const auto *d = reinterpret_cast<const MergeQueHashData *>(reinterpret_cast<const char *>(link) -
                                                                   offsetof(MergeQueHashData, link));
        Expect(d->owner == q, "entry owner", s, i);
        const Bytes &want = m.pending.at(key).first;
        Expect(std::memcmp(d->data, want.data(), m.dataSize) == 0, "entry data", s, Word(d->data, 0), key);
        link = link->next;
        ++i;
    }
    Expect(link == head, "list longer than the model", s, i);
    for (uint32_t id = 0; id < MERGEQUE_RSTAT_NUM; ++id) {
        if (q->reader.readerStat[id].count != m.rstat[id]) {
            Fail(RIX_MergeQueGetReaderStatDesc(id), s, q->reader.readerStat[id].count, m.rstat[id]);
        }
        if (g_mergeQueReaderStatDesc[id].stampFlag != 0u) {
            Expect((q->reader.readerStat[id].stamp.packed != 0u) == (m.rstat[id] != 0u), "reader stamp", s, id);
        }
    }
    for (uint32_t id = 0; id < MERGEQUE_QSTAT_NUM; ++id) {
        if (q->queStat[id].count != m.qstat[id]) {
            Fail(RIX_MergeQueGetStatDesc(id), s, q->queStat[id].count, m.qstat[id]);
        }
        Expect((q->queStat[id].stamp.packed != 0u) == (m.qstat[id] != 0u), "queue stamp", s, id);
    }
    Expect((q->overLoad != 0u) == m.overLoad, "overLoad", s, q->overLoad, m.overLoad);
    Expect((q->reader.epollReg != 0u) == m.epollReg, "epollReg", s, q->reader.epollReg, m.epollReg);
    Expect(q->reader.backPressPara == m.backPressPara, "backPressPara", s, q->reader.backPressPara, m.backPressPara);
    Expect(m.gotEvents == m.wantEvents, "monitor events", s, m.gotEvents.size(), m.wantEvents.size());
    Expect(m.delivered == m.wantDelivered, "drained entries", s, m.delivered.size(), m.wantDelivered.size());
}

void CheckAll()
{
    uint32_t queues = 0;
    for (uint32_t s = 0; s < kSlots; ++s) {
        Check(s);
        queues += g_slot[s].q != nullptr ? 1u : 0u;
    }
    Expect(g_live.size() == queues, "allocator blocks", 0, g_live.size(), queues);
    Expect(RIX_TEST_HashBlocksInUse() == g_wantBlocks, "hash blocks in use", 0, RIX_TEST_HashBlocksInUse(),
           g_wantBlocks);
}

void RecountBlocks()
{
    g_wantBlocks = 0;
    for (const Model &m : g_slot) {
        g_wantBlocks += m.q != nullptr ? m.order.size() : 0u;
    }
}

// ---- Operations ----

const char *const kNames[] = {"mq.a", "mq.b", "mq.c", "mq.d"};

void OpCreate(FuzzedDataProvider &in, uint32_t s)
{
    Model &m = g_slot[s];
    if (m.q != nullptr) {
        return;
    }
    const char *name = kNames[in.ConsumeIntegralInRange<uint32_t>(0, 3)];
    MergeQueCreatePara para{Alloc,
                            Free,
                            0u,
                            kMinData + in.ConsumeIntegralInRange<uint32_t>(0, 52),
                            1u + in.ConsumeIntegralInRange<uint32_t>(0, 7),
                            HashKey,
                            CmpKey,
                            EpollSet(),
                            KeyOf,
                            nullptr,
                            nullptr};
    const bool merge = in.ConsumeBool();
    const bool sched = in.ConsumeBool();
    para.mergeFunc = merge ? MergeFn : nullptr;
    para.schedProc = sched ? SchedProc : nullptr;
    // Invalid parameters and failures of the platform: no queue, nothing held.
    bool valid = true;
    static const char *const kFailOps[] =
        {"LITE_HASH_CreateWithLock", "eventfd_s", "RIX_EPOLL_Add", "strcpy_s", "memset_s", "ZUL_AVL3_Insert_Or_Find"};
    switch (in.ConsumeIntegralInRange<uint32_t>(0, 15)) {
        case 0:
            para.hashSize = 0;
            valid = false;
            break;
        case 1:
            para.dataSize = UINT16_MAX;
            valid = false;
            break;
        case 2:
            para.epFd = -1;
            valid = false;
            break;
        case 3:
            para.cmpFunc = nullptr;
            valid = false;
            break;
        case 4:
            para.memFree = nullptr;
            valid = false;
            break;
        case 5:
            RIX_TEST_FailNth(kFailOps[in.ConsumeIntegralInRange<uint32_t>(0, 5)], 1);
            valid = false;
            break;
        default:
            break;
    }
    bool taken = false;
    for (const Model &o : g_slot) {
        taken = taken || (o.q != nullptr && o.name == name);
    }
    MergeQueCb *q = RIX_MergeQueCreate(name, &para);
    const std::string dup = std::string("[RIX_MERGE_QUE Create] creat Fail because find ") + name + " exist!";
    const uint32_t dupLines = RIX_TEST_LogFind(dup.c_str());
    RIX_TEST_Reset();
    RIX_TEST_LogCapture(1);
    if (valid && taken) {
        Expect(dupLines == 1, "line of a taken name", s, dupLines, 1);
    }
    if (!valid || taken) {
        Expect(q == nullptr, "create that must fail", s);
        return;
    }
    Expect(q != nullptr, "create", s);
    m = Model{};
    m.q = q;
    m.name = name;
    m.dataSize = para.dataSize;
    m.hashSize = para.hashSize;
    m.merge = merge;
    m.sched = sched;
    m.schedBatch = 1u + in.ConsumeIntegralInRange<uint32_t>(0, 3);
}

Bytes NewData(FuzzedDataProvider &in, const Model &m, uint32_t key)
{
    Bytes data(m.dataSize);
    SetWord(data.data(), 0, key);
    SetWord(data.data(), 4, in.ConsumeIntegral<uint32_t>());
    SetWord(data.data(), 8, in.ConsumeIntegralInRange<uint32_t>(0, 1000));
    const uint8_t fill = in.ConsumeIntegral<uint8_t>();
    for (uint32_t i = kMinData; i < m.dataSize; ++i) {
        data[i] = static_cast<uint8_t>(fill + i);
    }
    return data;
}

void OpWrite(FuzzedDataProvider &in, uint32_t s, bool direct)
{
    Model &m = g_slot[s];
    const uint32_t key = in.ConsumeIntegralInRange<uint32_t>(0, kKeys - 1);
    const int32_t moveTail = in.ConsumeBool() ? 1 : 0;
    const uint32_t fail = in.ConsumeIntegralInRange<uint32_t>(0, 15);
    const Bytes data = NewData(in, m, key);
    const bool isNew = m.pending.find(key) == m.pending.end();
    if (direct && !isNew) {
        return;  // a new write of a pending key is not a use the queue offers
    }
    // Failures of a new entry's allocation, copy or linking, and of a merge's copy.
    static const char *const kFailOps[] = {"LITE_HASH_NewData", "memcpy_s", "LITE_HASH_AddNode"};
    const bool inject = isNew ? fail < 3 : (!direct && fail == 3);
    if (inject) {
        RIX_TEST_FailNth(isNew ? kFailOps[fail] : "memcpy_s", 1);
    }
    const uint32_t keyWord = key;  // the key apart from the data, as the orchestrator hands it
    Bytes buf = data;
    SetMergeSize(m.dataSize);
    const uint32_t ret = direct ? RIX_MergeQueNewWrite(m.q, &keyWord, buf.data())
                                : RIX_MergeQueWrite(m.q, &keyWord, buf.data(), moveTail);
    if (inject) {
        RIX_TEST_Reset();
        RIX_TEST_LogCapture(1);
        Expect(ret == ASORCH_ERR, "write with a failed step", s, ret, ASORCH_ERR);
        ModelCount(m, MERGEQUE_RSTAT_FAIL_WRITE);
        if (!isNew && m.merge) {
            // The merge function ran and the copy did not: both keep what it left them, and the
            // pending entry keeps its place.
            Bytes merged = data;
            MergeData(merged.data(), m.pending[key].first.data(), m.dataSize);
            Expect(buf == merged, "writer's data after a failed merge", s);
        }
        return;
    }
    Expect(ret == ASORCH_OK, "write", s, ret, ASORCH_OK);
    Expect(buf == ModelWrite(m, key, moveTail, data), "writer's data after the write", s);
}

// Most callback reads write nothing; some write from a few of their callbacks.
std::vector<Plan> NewPlans(FuzzedDataProvider &in, const Model &m)
{
    std::vector<Plan> plans;
    if (in.ConsumeIntegralInRange<uint32_t>(0, 3) != 0) {
        return plans;
    }
    for (uint32_t n = in.ConsumeIntegralInRange<uint32_t>(1, 4); n != 0; --n) {
        const uint32_t key = in.ConsumeIntegralInRange<uint32_t>(0, kKeys - 1);
        const int32_t moveTail = in.ConsumeBool() ? 1 : 0;
        plans.push_back({key, moveTail, NewData(in, m, key)});
    }
    return plans;
}

void OpRead(FuzzedDataProvider &in, uint32_t s, uint32_t style)
{
    Model &m = g_slot[s];
    const uint32_t maxCnt = in.ConsumeIntegralInRange<uint32_t>(0, 9);
    const uint32_t failEvery = in.ConsumeIntegralInRange<uint32_t>(0, 3);
    std::vector<Bytes> got;
    std::vector<Plan> plans;
    uint32_t ret = 0;
    bool full = true;
    switch (style) {
        case 0: {  // into a buffer, then notify and monitor
            std::vector<uint8_t> out(static_cast<size_t>(maxCnt) * m.dataSize + 1, 0xA5);
            ret = RIX_MergeQueRead(m.q, out.data(), maxCnt);
            for (uint32_t i = 0; i < ret && i < maxCnt; ++i) {
                got.emplace_back(out.begin() + i * m.dataSize, out.begin() + (i + 1) * m.dataSize);
            }
            Expect(out.back() == 0xA5, "read past the buffer", s);
            break;
        }
        case 1: {  // the bare buffer read, entries of a chosen stride
            const uint32_t size = in.ConsumeBool() ? m.dataSize : 4u;
            std::vector<uint8_t> out(static_cast<size_t>(maxCnt) * size + 1, 0xA5);
            ret = RIX_MergeQueReadBase(m.q, size, out.data(), maxCnt);
            for (uint32_t i = 0; i < ret && i < maxCnt; ++i) {
                got.emplace_back(out.begin() + i * size, out.begin() + (i + 1) * size);
            }
            Expect(out.back() == 0xA5, "read past the buffer", s);
            full = false;
            std::vector<Bytes> want = ModelRead(m, maxCnt, false);
            Expect(ret == want.size(), "read count", s, ret, want.size());
            for (size_t i = 0; i < want.size(); ++i) {
                want[i].resize(size);
                Expect(got[i] == want[i], "read data", s, i);
            }
            return;
        }
        case 2: {  // to a callback, then notify and monitor
            plans = NewPlans(in, m);
            ReadCtx ctx{&m, &got, failEvery, 0, &plans};
            ret = RIX_MergeQueReadCallBack(m.q, maxCnt, ReadCb, &ctx);
            break;
        }
        default: {  // to a callback only
            plans = NewPlans(in, m);
            ReadCtx ctx{&m, &got, failEvery, 0, &plans};
            ret = RIX_MergeQueReadToCallBack(m.q, maxCnt, ReadCb, &ctx);
            full = false;
            break;
        }
    }
    // The full entry points take nothing for a zero count (the bare ones count it as no read).
    std::vector<Bytes> want = (full && maxCnt == 0) ? std::vector<Bytes>{} : ModelRead(m, maxCnt, full, &plans);
    Expect(ret == want.size(), "read count", s, ret, want.size());
    Expect(got == want, "read data", s, got.size(), want.size());
}

void OpBackPress(FuzzedDataProvider &in, uint32_t s)
{
    Model &m = g_slot[s];
    const uint32_t para = in.ConsumeIntegral<uint32_t>();
    Expect(RIX_MergeQueBackPress(m.q, para) == ASORCH_OK, "back-press", s);
    m.epollReg = false;
    m.backPressPara = para;
    ModelCount(m, MERGEQUE_RSTAT_BACKPRESS);
}

void OpUnBackPress(FuzzedDataProvider &in, uint32_t s)
{
    Model &m = g_slot[s];
    const bool withPara = in.ConsumeBool();
    const bool inject = in.ConsumeIntegralInRange<uint32_t>(0, 7) == 0;
    if (inject) {
        RIX_TEST_FailNth("RIX_EPOLL_Add", 1);
    }
    uint32_t para = 0x5A5A5A5Au;
    const uint32_t ret = RIX_MergeQueUnBackPress(m.q, withPara ? &para : nullptr);
    const bool ok = !m.epollReg && !inject;
    RIX_TEST_Reset();
    RIX_TEST_LogCapture(1);
    Expect(ret == (ok ? ASORCH_OK : ASORCH_ERR), "release of back-press", s, ret, ok);
    Expect(para == (ok && withPara ? m.backPressPara : 0x5A5A5A5Au), "back-press parameter", s, para);
    if (ok) {
        m.epollReg = true;
        ModelCount(m, MERGEQUE_RSTAT_UNBACKPRESS);
    }
}

void OpMonitor(FuzzedDataProvider &in, uint32_t s)
{
    Model &m = g_slot[s];
    MergeQueMonitorAttr attr{in.ConsumeIntegralInRange<uint32_t>(0, 12), in.ConsumeIntegralInRange<uint32_t>(0, 12), &m,
                             in.ConsumeIntegralInRange<uint32_t>(0, 7) == 0 ? nullptr : Notify};
    const bool ok = attr.highWater > attr.lowWater && attr.flowCtrlNotify != nullptr;
    const uint32_t ret = RIX_MergeQueMonitorReg(m.q, &attr);
    Expect(ret == (ok ? ASORCH_OK : ASORCH_ERR), "monitor registration", s, ret, ok);
    if (ok) {
        m.monitor = true;
        m.high = attr.highWater;
        m.low = attr.lowWater;
        m.overLoad = false;
    }
}

// The reader's wake-ups: each eventfd unit runs the drain once, and a read that leaves
// entries behind adds a unit.
void OpStep()
{
    uint32_t wantRuns = 0;
    for (Model &m : g_slot) {
        if (m.q == nullptr || !m.epollReg) {
            continue;
        }
        while (m.units != 0) {
            --m.units;
            ++wantRuns;
            if (m.sched) {
                std::vector<Bytes> got = ModelRead(m, m.schedBatch, true);
                m.wantDelivered.insert(m.wantDelivered.end(), got.begin(), got.end());
            }
        }
    }
    const uint32_t runs = RIX_TEST_EpollRunUntilIdle(EpollSet());
    Expect(runs == wantRuns, "drain wake-ups", 0, runs, wantRuns);
}

void OpDestroy(uint32_t s)
{
    Model &m = g_slot[s];
    RIX_TEST_LogClear();
    const std::string line = "[RIX_MERGE_QUE Destory] " + m.name + " reader list is not empty!";
    const bool pending = !m.order.empty();
    RIX_MergeQueDestory(m.q);
    Expect(RIX_TEST_LogFind(line.c_str()) == (pending ? 1u : 0u), "destroy line", s, RIX_TEST_LogFind(line.c_str()),
           pending);
    m = Model{};
}

void OpPrint(uint32_t s)
{
    Model &m = g_slot[s];
    std::vector<char> buf(4096);
    const uint32_t n = RIX_PrintMergeQueInfo(m.name.c_str(), buf.data(), static_cast<uint32_t>(buf.size()));
    Expect(n < buf.size() && std::strstr(buf.data(), m.name.c_str()) != nullptr, "printed queue", s, n);
    const uint32_t all = RIX_PrintMergeQueListAll(buf.data(), static_cast<uint32_t>(buf.size()));
    Expect(all < buf.size(), "printed list", s, all);
    for (const Model &o : g_slot) {
        Expect(o.q == nullptr || std::strstr(buf.data(), o.name.c_str()) != nullptr, "queue in the list", s);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    RIX_TEST_Reset();
    RIX_TEST_LogCapture(1);
    (void)EpollSet();
    static const uint32_t fds = OpenFds();
    FuzzedDataProvider in(data, size);
    for (uint32_t op = 0; op < kMaxOps && in.remaining_bytes() != 0; ++op) {
        const uint32_t code = in.ConsumeIntegralInRange<uint32_t>(0, 15);
        const uint32_t s = in.ConsumeIntegralInRange<uint32_t>(0, kSlots - 1);
        RIX_TEST_LogClear();
        if (code == 0) {
            OpCreate(in, s);
        } else if (code == 13) {
            OpStep();
        } else if (g_slot[s].q == nullptr) {
            continue;
        } else if (code <= 4) {
            OpWrite(in, s, code == 4);  // writes are the common case
        } else if (code <= 8) {
            OpRead(in, s, code - 5);
        } else if (code == 9) {
            OpBackPress(in, s);
        } else if (code == 10) {
            OpUnBackPress(in, s);
        } else if (code == 11) {
            OpMonitor(in, s);
        } else if (code == 12) {
            OpDestroy(s);
        } else if (code == 14) {
            OpPrint(s);
        } else {
            OpWrite(in, s, false);
        }
        RecountBlocks();
        CheckAll();
    }
    for (uint32_t s = 0; s < kSlots; ++s) {
        if (g_slot[s].q != nullptr) {
            OpDestroy(s);
        }
    }
    RecountBlocks();
    CheckAll();
    Expect(g_live.empty(), "blocks left after destroy", 0, g_live.size(), 0);
    Expect(OpenFds() == fds, "descriptors left after destroy", 0, OpenFds(), fds);
    RIX_TEST_Reset();
    return 0;
}
