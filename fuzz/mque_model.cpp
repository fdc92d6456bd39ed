// The module side and the reference model of the merge queue (mque_model.h).
#include "mque_model.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "lite_hash.h"
#include "rix_platform_test.h"

namespace mqfuzz {

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

namespace {
uint32_t g_dataSize;  // of the queue whose merge runs
}  // namespace

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

std::set<void *> g_live;
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
void Expect(bool ok, const char *what, uint32_t slot, uint64_t got, uint64_t want)
{
    if (!ok) {
        Fail(what, slot, got, want);
    }
}

std::array<Model, kSlots> g_slot;

uint32_t Notify(uint32_t evt, void *para)
{
    static_cast<Model *>(para)->gotEvents.push_back(evt);
    return evt;  // not used by the queue
}

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

namespace {

Model *ModelOf(MergeQueCb *q)
{
    for (Model &m : g_slot) {
        if (m.q == q) {
            return &m;
        }
    }
    return nullptr;
}

}  // namespace

uint32_t SchedProc(MergeQueCb *q)
{
    Model *m = ModelOf(q);
    Expect(m != nullptr, "drain of an unknown queue", 0);
    ReadCtx ctx{m, &m->delivered, 0, 0, nullptr};
    (void)RIX_MergeQueReadCallBack(q, m->schedBatch, ReadCb, &ctx);
    return 1u;  // not used by the queue
}

void ModelCount(Model &m, uint32_t id, uint32_t n)
{
    m.rstat[id] += n;
}

namespace {

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
}  // namespace

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

std::vector<Bytes> ModelRead(Model &m, uint32_t maxCnt, bool full, const std::vector<Plan> *plans)
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

// ---- Comparison of the queue with its model ----

namespace {

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

}  // namespace

void CheckAll()
{
    uint32_t queues = 0;
    uint64_t blocks = 0;  // one per pending entry
    for (uint32_t s = 0; s < kSlots; ++s) {
        Check(s);
        queues += g_slot[s].q != nullptr ? 1u : 0u;
        blocks += g_slot[s].q != nullptr ? g_slot[s].order.size() : 0u;
    }
    Expect(g_live.size() == queues, "allocator blocks", 0, g_live.size(), queues);
    Expect(RIX_TEST_HashBlocksInUse() == blocks, "hash blocks in use", 0, RIX_TEST_HashBlocksInUse(), blocks);
}

}  // namespace mqfuzz
