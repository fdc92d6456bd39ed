// The epoll helper: registrations on any epoll set, dispatch of ready callbacks, event
// descriptors and periodic timers.
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <map>
#include <mutex>
#include <new>
#include <thread>
#include <utility>
#include <vector>

#include "epoll_reg.h"
#include "plat_internal.h"
#include "rix_platform_test.h"

namespace rixplat {
namespace {

struct SetState {
    std::map<int32_t, EpollReg *> regs;  // by watched descriptor
    std::vector<EpollReg *> retired;     // deleted while a batch of the set was running
    uint32_t running = 0;                // batches of the set in progress
    EpollReg *current = nullptr;         // whose callback runs now, and on which thread
    std::thread::id runner;
};

std::mutex g_mutex;
std::condition_variable g_callbackDone;
uint32_t g_callbackWaiters = 0;  // EpollDelReg calls waiting for a callback to end
std::map<int32_t, SetState> &Sets()
{
    static auto *sets = new std::map<int32_t, SetState>;  // outlives late static destructors
    return *sets;
}

constexpr int kBatch = 64;
constexpr uint32_t kRunUntilIdleCap = 50000000u;

void Retire(SetState &set, EpollReg *reg)
{
    reg->dead.store(true, std::memory_order_release);
    if (reg->ownsFd) {
        close(reg->fd);
    }
    if (set.running != 0) {
        set.retired.push_back(reg);
    } else {
        delete reg;
    }
}

uint32_t TimerExpired(int32_t fd, uint32_t events, void *ctx)
{
    (void)events;
    auto *reg = static_cast<EpollReg *>(ctx);
    uint64_t expirations = 0;
    if (read(fd, &expirations, sizeof(expirations)) == static_cast<ssize_t>(sizeof(expirations)) &&
        reg->timerCb != nullptr) {
        reg->timerCb(reg->timerArg);
    }
    return 0;
}

}  // namespace

int32_t EpollAdd(int32_t epFd, int32_t fd, uint32_t events, RIX_EPOLL_CALLBACK cb, void *ctx)
{
    if (epFd < 0 || fd < 0 || cb == nullptr) {
        return -1;
    }
    auto *reg = new (std::nothrow) EpollReg;
    if (reg == nullptr) {
        return -1;
    }
    reg->epFd = epFd;
    reg->fd = fd;
    reg->callback = cb;
    reg->ctx = ctx;
    return EpollAddReg(reg, events);
}

int32_t EpollAddReg(EpollReg *reg, uint32_t events)
{
    int32_t epFd = reg->epFd;
    int32_t fd = reg->fd;
    std::lock_guard<std::mutex> lock(g_mutex);
    epoll_event ev{};
    ev.events = events;  // level-triggered
    ev.data.ptr = reg;
    if (epFd < 0 || fd < 0 || epoll_ctl(epFd, EPOLL_CTL_ADD, fd, &ev) != 0) {
        delete reg;
        return -1;
    }
    SetState &set = Sets()[epFd];
    auto it = set.regs.find(fd);
    if (it != set.regs.end()) {
        // The kernel took the descriptor, so the old entry belongs to a closed set of the same number.
        EpollReg *stale = it->second;
        stale->ownsFd = false;
        Retire(set, stale);
        it->second = reg;
    } else {
        set.regs.emplace(fd, reg);
    }
    return 0;
}

int32_t EpollDelReg(int32_t epFd, int32_t fd)
{
    std::unique_lock<std::mutex> lock(g_mutex);
    auto sit = Sets().find(epFd);
    if (sit == Sets().end()) {
        return -1;
    }
    auto it = sit->second.regs.find(fd);
    if (it == sit->second.regs.end()) {
        return -1;
    }
    EpollReg *reg = it->second;
    SetState &set = sit->second;
    set.regs.erase(it);
    int rc = epoll_ctl(epFd, EPOLL_CTL_DEL, fd, nullptr);
    Retire(set, reg);
    // Like a real loop's removal, this returns only once a callback of the registration that
    // runs on another thread has finished, so the caller may free what the callback uses.
    // (A registration is freed only after its batch, so comparing the pointer is safe.)
    lock.unlock();
    std::unique_lock<std::mutex> wait(g_mutex);
    ++g_callbackWaiters;
    g_callbackDone.wait(wait, [&] { return set.current != reg || set.runner == std::this_thread::get_id(); });
    --g_callbackWaiters;
    return rc == 0 ? 0 : -1;
}

int32_t EpollRunBatch(int32_t epFd, int32_t timeoutMs)
{
    SetState *set = nullptr;  // stays put: a set with a running batch is never erased
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        set = &Sets()[epFd];
        ++set->running;
    }
    epoll_event evs[kBatch];
    int n;
    do {
        n = epoll_wait(epFd, evs, kBatch, timeoutMs);
    } while (n < 0 && errno == EINTR);
    int32_t ran = 0;
    std::vector<EpollReg *> retired;
    // One hold of the lock between two callbacks: it ends one and starts the next (or the batch).
    // (The callbacks are C functions: nothing throws between lock and unlock.)
    g_mutex.lock();
    for (int i = 0; i < n; ++i) {
        auto *reg = static_cast<EpollReg *>(evs[i].data.ptr);
        if (reg->dead.load(std::memory_order_acquire)) {
            continue;
        }
        set->current = reg;
        set->runner = std::this_thread::get_id();
        g_mutex.unlock();
        (void)reg->callback(reg->fd, evs[i].events, reg->ctx);
        g_mutex.lock();
        set->current = nullptr;
        if (g_callbackWaiters != 0) {
            g_callbackDone.notify_all();
        }
        ++ran;
    }
    if (--set->running == 0) {
        retired.swap(set->retired);
    }
    g_mutex.unlock();
    for (EpollReg *reg : retired) {
        delete reg;
    }
    return n < 0 ? -1 : ran;
}

void EpollForgetSet(int32_t epFd)
{
    std::vector<EpollReg *> drop;
    {
        std::lock_guard<std::mutex> lock(g_mutex);
        auto sit = Sets().find(epFd);
        if (sit == Sets().end()) {
            return;
        }
        SetState &set = sit->second;
        for (auto &entry : set.regs) {
            EpollReg *reg = entry.second;
            reg->dead.store(true, std::memory_order_release);
            if (reg->ownsFd) {
                close(reg->fd);
            }
            drop.push_back(reg);
        }
        set.regs.clear();
        if (set.running != 0) {
            // Torn down from inside one of its own callbacks: the batch still holds pointers.
            set.retired.insert(set.retired.end(), drop.begin(), drop.end());
            return;
        }
        drop.insert(drop.end(), set.retired.begin(), set.retired.end());
        Sets().erase(sit);
    }
    for (EpollReg *reg : drop) {
        delete reg;
    }
}

}  // namespace rixplat

using namespace rixplat;

extern "C" {

int32_t RIX_EPOLL_Add(int32_t epFd, int32_t fd, uint32_t events, RIX_EPOLL_CALLBACK callback, void *ctx)
{
    if (Hit(Op_RIX_EPOLL_Add)) {
        return -1;
    }
    return EpollAdd(epFd, fd, events, callback, ctx);
}

int32_t RIX_EPOLL_DEL(int32_t epFd, int32_t fd)
{
    if (Hit(Op_RIX_EPOLL_DEL)) {
        return -1;
    }
    return EpollDelReg(epFd, fd);
}

int32_t eventfd_s(uint32_t initval, int32_t flags)
{
    if (Hit(Op_eventfd_s)) {
        errno = EMFILE;
        return -1;
    }
    return eventfd(initval, flags);
}

int32_t RIX_TIMER_Create(uintptr_t periodMs, uintptr_t callback, uintptr_t arg, int32_t epFd)
{
    if (Hit(Op_RIX_TIMER_Create) || periodMs == 0 || callback == 0 || epFd < 0) {
        return -1;
    }
    int fd = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
    if (fd < 0) {
        return -1;
    }
    auto *reg = new (std::nothrow) EpollReg;
    if (reg == nullptr) {
        close(fd);
        return -1;
    }
    reg->epFd = epFd;
    reg->fd = fd;
    reg->callback = &TimerExpired;
    reg->ctx = reg;
    reg->timerCb = reinterpret_cast<RIX_TIMER_CALLBACK>(callback);
    reg->timerArg = arg;
    reg->ownsFd = true;  // closed when the registration goes with its set
    if (EpollAddReg(reg, EPOLLIN) != 0) {
        close(fd);
        return -1;
    }
    itimerspec period{};
    period.it_interval.tv_sec = static_cast<time_t>(periodMs / 1000u);
    period.it_interval.tv_nsec = static_cast<long>((periodMs % 1000u) * 1000000u);
    period.it_value = period.it_interval;
    if (timerfd_settime(fd, 0, &period, nullptr) != 0) {
        EpollDelReg(epFd, fd);
        return -1;
    }
    return fd;
}

uint32_t RIX_TEST_EpollRunUntilIdle(int32_t epFd)
{
    uint32_t total = 0;
    while (total < kRunUntilIdleCap) {
        int32_t ran = EpollRunBatch(epFd, 0);
        if (ran <= 0) {
            break;
        }
        total += static_cast<uint32_t>(ran);
    }
    return total;
}

}  // extern "C"
