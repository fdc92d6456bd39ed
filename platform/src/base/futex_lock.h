// The lock of a hash table: a futex mutex (three states, after Drepper's "Futexes Are Tricky").
#ifndef RIX_PLAT_FUTEX_LOCK_H
#define RIX_PLAT_FUTEX_LOCK_H

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>

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
// take and one decrement to release when nobody waits. A waiter spins briefly and then sleeps,
// so a preempted holder is never starved by spinning waiters, whatever their priorities.
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
    bool Release() { return state_.fetch_sub(1, std::memory_order_release) == 1; }
    __attribute__((noinline, cold)) void WakeAfterRelease()
    {
        state_.store(0, std::memory_order_release);
        Futex(FUTEX_WAKE_PRIVATE, 1);
    }
    void unlock()
    {
        if (!Release()) [[unlikely]] {
            WakeAfterRelease();
        }
    }

private:
    void Futex(int op, uint32_t val)
    {
        (void)syscall(SYS_futex, reinterpret_cast<uint32_t *>(&state_), op, val, nullptr, nullptr, 0);
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
        while (c != 0) {
            Futex(FUTEX_WAIT_PRIVATE, 2);
            c = state_.exchange(2, std::memory_order_acquire);
        }
    }
    std::atomic<uint32_t> state_{0};  // 0 free, 1 held, 2 held and maybe waited for
};
static_assert(sizeof(std::atomic<uint32_t>) == sizeof(uint32_t));

}  // namespace rixplat

#endif
