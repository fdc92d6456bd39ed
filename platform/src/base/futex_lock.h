// The lock of a hash table: a futex mutex (three states, after Drepper's "Futexes Are Tricky").
#ifndef RIX_PLAT_FUTEX_LOCK_H
#define RIX_PLAT_FUTEX_LOCK_H

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <ctime>

namespace rixplat {

inline void CpuRelax()
{
#if defined(__x86_64__) || defined(__i386__)
    __builtin_ia32_pause();
#elif defined(__arm__) || defined(__aarch64__)
    asm volatile("yield" ::: "memory");
#endif
}

// A futex mutex (three states, after Drepper's "Futexes Are Tricky"): one compare-exchange to
// take and a plain store to release. A waiter spins briefly and then sleeps, so a preempted
// holder is never starved by spinning waiters, whatever their priorities.
// The hash service takes and releases the lock at every call, and a locked release would be a
// second full barrier per call. The plain release reads the state before it stores 0 and wakes
// a sleeper only if it saw one: a waiter that marks itself in between is not woken, so a
// sleeper looks again after kWaitSliceNs at most.
class FutexLock {
public:
    bool TryLock()
    {
        uint32_t c = 0;
        return state_.compare_exchange_strong(c, 1, std::memory_order_acquire, std::memory_order_relaxed);
    }
    void lock()
    {
        if (!TryLock()) [[unlikely]] {
            LockSlow(state_.load(std::memory_order_relaxed));
        }
    }
    // Releases the lock; false when a waiter has to be woken by WakeAfterRelease.
    bool Release()
    {
        const uint32_t seen = state_.load(std::memory_order_relaxed);
        state_.store(0, std::memory_order_release);
        return seen == 1;
    }
    __attribute__((noinline, cold)) void WakeAfterRelease() { Futex(FUTEX_WAKE_PRIVATE, 1, nullptr); }
    void unlock()
    {
        if (!Release()) [[unlikely]] {
            WakeAfterRelease();
        }
    }

private:
    static constexpr long kWaitSliceNs = 200000;

    void Futex(int op, uint32_t val, const timespec *timeout)
    {
        (void)syscall(SYS_futex, reinterpret_cast<uint32_t *>(&state_), op, val, timeout, nullptr, 0);
    }
    __attribute__((noinline)) void LockSlow(uint32_t c)
    {
        for (int spin = 0; spin < 100 && c == 1; ++spin) {
            CpuRelax();
            c = state_.load(std::memory_order_relaxed);
            if (c == 0 && state_.compare_exchange_strong(c, 1, std::memory_order_acquire, std::memory_order_relaxed)) {
                return;
            }
        }
        if (c != 2) {
            c = state_.exchange(2, std::memory_order_acquire);
        }
        const timespec slice{0, kWaitSliceNs};
        while (c != 0) {
            Futex(FUTEX_WAIT_PRIVATE, 2, &slice);
            c = state_.exchange(2, std::memory_order_acquire);
        }
    }
    std::atomic<uint32_t> state_{0};  // 0 free, 1 held, 2 held and maybe waited for
};
static_assert(sizeof(std::atomic<uint32_t>) == sizeof(uint32_t));

}  // namespace rixplat

#endif
