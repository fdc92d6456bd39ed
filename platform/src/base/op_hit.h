// Inline call counting for the base library's own operations, which sit on hot paths: each
// thread counts into its own slots with plain relaxed stores, and only an armed failure sends
// a call down the exact, shared path. One per-thread flag decides: it is set once the thread
// is listed and cleared in every listed thread while a failure is armed.
#ifndef RIX_PLAT_OP_HIT_H
#define RIX_PLAT_OP_HIT_H

#include <atomic>
#include <cstdint>

#include "plat_internal.h"

namespace rixplat {

struct ThreadCounts {
    std::atomic<bool> fast;                // listed and nothing armed
    std::atomic<uint32_t> calls[OpCount];  // written by the owning thread only
    ThreadCounts *next;
    bool listed;
};

extern constinit thread_local ThreadCounts t_counts __attribute__((tls_model("initial-exec"), visibility("hidden")));

// The thread's slots. 32-bit ARM would derive their address from the thread pointer and the
// GOT again for each of the two accesses, so it is computed once there; x86 addresses them
// through %fs directly, which a computed pointer would only lengthen.
inline ThreadCounts &Counts()
{
#if defined(__arm__)
    ThreadCounts *p = &t_counts;
    asm("" : "+r"(p));
    return *p;
#else
    return t_counts;
#endif
}

// First call of a thread, or a failure is armed.
bool HitSlow(OpId op) __attribute__((visibility("hidden")));

// Counts the call and returns true on the common path; false when the caller must go through
// HitFast instead (a thread's first call, or a failure armed), without having counted.
inline bool CountedFast(OpId op)
{
#if defined(__x86_64__)
    // A compare and an add on the slots through %fs: the compiler keeps an atomic's load and
    // store apart, which takes five instructions. Only the owning thread writes its counts, and
    // an aligned add is seen whole by the readers, as the relaxed store is.
    // Two statements: with the add's output on the asm goto, GCC 12 compiled the jump to skip
    // HitSlow altogether.
    asm goto(
        "cmpb $0, %0\n\t"
        "je %l[slow]"
        :
        : "m"(t_counts.fast)
        : "cc"
        : slow);
    asm volatile("addl $1, %0" : "+m"(t_counts.calls[op]) : : "cc");
    return true;
slow:
    return false;
#else
    ThreadCounts &t = Counts();
    if (!t.fast.load(std::memory_order_relaxed)) [[unlikely]] {
        return false;
    }
    std::atomic<uint32_t> &c = t.calls[op];
    c.store(c.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    return true;
#endif
}

// Counts the call; true when it must fail.
inline bool HitFast(OpId op)
{
    if (CountedFast(op)) [[likely]] {
        return false;
    }
    return HitSlow(op);
}

}  // namespace rixplat

#endif
