// The reference model of the merge queue that mque_model_fuzz checks the queue against, and
// the module side both share: the data layout, hash and compare, merge and a counting
// allocator. A model holds what a queue must hold after every step: its entries in order,
// counts, statistics, monitor events and what its drain handed over.
#ifndef RIX_FUZZ_MQUE_MODEL_H
#define RIX_FUZZ_MQUE_MODEL_H

#include <array>
#include <cstdint>
#include <list>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "rix_mergeque.h"

namespace mqfuzz {

constexpr uint32_t kSlots = 3;
constexpr uint32_t kKeys = 24;     // small: merges and bucket conflicts are common
constexpr uint32_t kMinData = 12;  // key, serial, merged sum

using Bytes = std::vector<uint8_t>;

// ---- The module side ----
uint32_t Word(const uint8_t *p, uint32_t off);
void SetWord(uint8_t *p, uint32_t off, uint32_t v);
uint32_t HashKey(const void *key);
uint32_t CmpKey(const void *stored, const void *searched, uint32_t);
const void *KeyOf(const void *stored);
// The merge function reads the size of the queue whose write runs: set before each write.
void SetMergeSize(uint32_t size);
void MergeData(uint8_t *incoming, uint8_t *pending, uint32_t size);
void MergeFn(void *newData, void *storedData);
extern std::set<void *> g_live;  // blocks of the counting allocator
void *Alloc(uint32_t n);
void Free(void *p);

[[noreturn]] void Fail(const char *what, uint32_t slot, uint64_t got, uint64_t want);
void Expect(bool ok, const char *what, uint32_t slot, uint64_t got = 0, uint64_t want = 0);

// ---- The model ----
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

extern std::array<Model, kSlots> g_slot;

// The monitor's callback: the event goes to the model that is its parameter.
uint32_t Notify(uint32_t evt, void *para);

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

// A read's callback (usr: a ReadCtx): keeps what it is handed and makes the planned writes.
uint32_t ReadCb(void *data, uint32_t size, void *usr);
// The reader's drain: reads schedBatch entries into the model's delivered list.
uint32_t SchedProc(MergeQueCb *q);

void ModelCount(Model &m, uint32_t id, uint32_t n = 1);
// A write that succeeds: a new entry, or a merge into the pending one. Returns what the
// writer's buffer holds afterwards (the merge function may change it).
Bytes ModelWrite(Model &m, uint32_t key, int32_t moveTail, Bytes data);
// Takes up to maxCnt entries from the head, remembering each one's successor before it is
// handled, as the queue's walk does; notify/monitor as the full read entry points do.
std::vector<Bytes> ModelRead(Model &m, uint32_t maxCnt, bool full, const std::vector<Plan> *plans = nullptr);

// Every live queue against its model, and the blocks held: the allocator's (one control block
// a queue) and the hash service's (one a pending entry). Aborts at the first difference.
void CheckAll();

}  // namespace mqfuzz

#endif
