// Call counts and failure injection by operation name, and the reset of every stand-in.
#include <array>
#include <atomic>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <vector>

#include "base/op_hit.h"
#include "rix_platform_test.h"

namespace rixplat {

constinit thread_local ThreadCounts t_counts{};

namespace {

std::atomic<bool> g_anyArmed{false};

#define RIX_PLAT_OP_NAME(name) #name,
constexpr std::array<const char *, OpCount> kOpNames = {RIX_PLAT_OPS(RIX_PLAT_OP_NAME)};
#undef RIX_PLAT_OP_NAME

struct ArmedSlot {
    std::atomic<uint32_t> seq{0};     // calls made while a failure was armed
    std::atomic<uint32_t> failAt{0};  // value of seq whose call fails once; 0 none
    std::atomic<bool> always{false};
};

std::array<ArmedSlot, OpCount> g_armed;

// Live threads' slots, the counts of threads that ended, and the totals at the last reset.
std::mutex g_countMutex;
ThreadCounts *g_threads = nullptr;
std::array<uint64_t, OpCount> g_retired{};
std::array<uint64_t, OpCount> g_base{};

std::mutex g_hookMutex;
std::vector<RixPlatInternal_ResetHook> &Hooks()
{
    static std::vector<RixPlatInternal_ResetHook> hooks;
    return hooks;
}

// Folds an ending thread's counts into the retired totals.
struct ThreadExit {
    ~ThreadExit()
    {
        std::lock_guard<std::mutex> lock(g_countMutex);
        for (ThreadCounts **p = &g_threads; *p != nullptr; p = &(*p)->next) {
            if (*p == &t_counts) {
                *p = t_counts.next;
                break;
            }
        }
        for (uint32_t i = 0; i < OpCount; ++i) {
            g_retired[i] += t_counts.calls[i].load(std::memory_order_relaxed);
        }
    }
};

void ListThisThread()
{
    static thread_local ThreadExit exitHook;
    (void)exitHook;
    std::lock_guard<std::mutex> lock(g_countMutex);
    t_counts.next = g_threads;
    g_threads = &t_counts;
    t_counts.listed = true;
    t_counts.fast.store(!g_anyArmed.load(std::memory_order_relaxed), std::memory_order_relaxed);
}

// Arming sends every listed thread's calls down HitSlow; a reset lets them count inline again.
void SetArmed(bool armed)
{
    std::lock_guard<std::mutex> lock(g_countMutex);
    g_anyArmed.store(armed, std::memory_order_release);
    for (ThreadCounts *t = g_threads; t != nullptr; t = t->next) {
        t->fast.store(!armed, std::memory_order_relaxed);
    }
}

uint64_t TotalLocked(uint32_t op)
{
    uint64_t sum = g_retired[op];
    for (ThreadCounts *t = g_threads; t != nullptr; t = t->next) {
        sum += t->calls[op].load(std::memory_order_relaxed);
    }
    return sum;
}

int FindOp(const char *op)
{
    if (op == nullptr) {
        return -1;
    }
    for (uint32_t i = 0; i < OpCount; ++i) {
        if (std::strcmp(kOpNames[i], op) == 0) {
            return static_cast<int>(i);
        }
    }
    (void)std::fprintf(stderr, "rix platform stand-in: unknown operation \"%s\"\n", op);
    return -1;
}

}  // namespace

bool HitSlow(OpId op)
{
    if (!t_counts.listed) {
        ListThisThread();
    }
    std::atomic<uint32_t> &c = t_counts.calls[op];
    c.store(c.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    if (!g_anyArmed.load(std::memory_order_acquire)) {
        return false;
    }
    ArmedSlot &slot = g_armed[op];
    uint32_t n = slot.seq.fetch_add(1, std::memory_order_relaxed) + 1;
    if (slot.always.load(std::memory_order_relaxed)) {
        return true;
    }
    uint32_t at = slot.failAt.load(std::memory_order_relaxed);
    return at != 0 && at == n && slot.failAt.compare_exchange_strong(at, 0, std::memory_order_relaxed);
}

}  // namespace rixplat

using namespace rixplat;

extern "C" {

bool RixPlatInternal_Hit(uint32_t op)
{
    return HitFast(static_cast<OpId>(op));
}

void RixPlatInternal_AddResetHook(RixPlatInternal_ResetHook hook)
{
    std::lock_guard<std::mutex> lock(g_hookMutex);
    Hooks().push_back(hook);
}

void RIX_TEST_Reset(void)
{
    SetArmed(false);
    for (ArmedSlot &slot : g_armed) {
        slot.always.store(false, std::memory_order_relaxed);
        slot.failAt.store(0, std::memory_order_relaxed);
        slot.seq.store(0, std::memory_order_relaxed);
    }
    {
        std::lock_guard<std::mutex> lock(g_countMutex);
        for (uint32_t i = 0; i < OpCount; ++i) {
            g_base[i] = TotalLocked(i);
        }
    }
    std::vector<RixPlatInternal_ResetHook> hooks;
    {
        std::lock_guard<std::mutex> lock(g_hookMutex);
        hooks = Hooks();
    }
    for (RixPlatInternal_ResetHook hook : hooks) {
        hook();
    }
}

uint32_t RIX_TEST_CallCount(const char *op)
{
    int i = FindOp(op);
    if (i < 0) {
        return 0;
    }
    std::lock_guard<std::mutex> lock(g_countMutex);
    return static_cast<uint32_t>(TotalLocked(static_cast<uint32_t>(i)) - g_base[static_cast<uint32_t>(i)]);
}

void RIX_TEST_FailNth(const char *op, uint32_t nth)
{
    int i = FindOp(op);
    if (i < 0) {
        return;
    }
    ArmedSlot &slot = g_armed[static_cast<uint32_t>(i)];
    slot.failAt.store(nth == 0 ? 0 : slot.seq.load(std::memory_order_relaxed) + nth, std::memory_order_relaxed);
    SetArmed(true);
}

void RIX_TEST_FailAlways(const char *op, int on)
{
    int i = FindOp(op);
    if (i < 0) {
        return;
    }
    g_armed[static_cast<uint32_t>(i)].always.store(on != 0, std::memory_order_relaxed);
    SetArmed(true);
}

}  // extern "C"
