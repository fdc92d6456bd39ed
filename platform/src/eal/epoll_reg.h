// Epoll registrations shared by the epoll helper, the timers, the channels and the loops.
#ifndef RIX_PLAT_EPOLL_REG_H
#define RIX_PLAT_EPOLL_REG_H

#include <atomic>
#include <cstdint>

#include "rix_epoll.h"

namespace rixplat {

// What an epoll_event carries in data.ptr. Freed only when no batch of its set is running,
// so a callback of the current batch never meets freed memory.
struct EpollReg {
    int32_t epFd;
    int32_t fd;
    RIX_EPOLL_CALLBACK callback;
    void *ctx;
    std::atomic<bool> dead{false};
    bool ownsFd = false;  // closed when the registration goes (timers)
    RIX_TIMER_CALLBACK timerCb = nullptr;
    uintptr_t timerArg = 0;
};

// Adds a filled-in registration (taking it over; freed on failure) without counting a call.
// 0 on success.
int32_t EpollAddReg(EpollReg *reg, uint32_t events);
int32_t EpollAdd(int32_t epFd, int32_t fd, uint32_t events, RIX_EPOLL_CALLBACK cb, void *ctx);
int32_t EpollDelReg(int32_t epFd, int32_t fd);
// Waits up to timeoutMs (-1 forever) and runs one batch; the number of callbacks run, or -1.
int32_t EpollRunBatch(int32_t epFd, int32_t timeoutMs);
// The set is about to be closed: drop every registration it still holds.
void EpollForgetSet(int32_t epFd);

}  // namespace rixplat

#endif
