// The loop threads of a started instance, and the hand-stepped loops of tests.
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <chrono>

#include "eal_instance.h"
#include "epoll_reg.h"
#include "plat_internal.h"

namespace rixplat {
namespace {

uint32_t DrainCtl(int32_t fd, uint32_t events, void *ctx)
{
    (void)events;
    auto *loop = static_cast<Loop *>(ctx);
    eventfd_t value;
    (void)eventfd_read(fd, &value);
    std::lock_guard<std::mutex> lock(loop->mutex);
    loop->seen = loop->requested;
    return 0;
}

void RunLoop(const std::shared_ptr<Loop> &keep, int32_t epFd)
{
    Loop *loop = keep.get();
    while (!loop->stop.load(std::memory_order_acquire)) {
        int32_t ran = EpollRunBatch(epFd, 0);
        if (ran < 0) {
            break;
        }
        if (ran == 0) {
            {
                std::lock_guard<std::mutex> lock(loop->mutex);
                loop->served = loop->seen;
            }
            loop->idle.notify_all();
            if (EpollRunBatch(epFd, -1) < 0) {
                break;
            }
        }
    }
}

}  // namespace

bool EalStartLoops(Eal *e)
{
    std::array<bool, kEalThreads> wanted{};
    {
        std::lock_guard<std::mutex> lock(e->mutex);
        for (const RIX_EAL_ThreadCfg &t : e->threads) {
            wanted[t.threadId] = true;
        }
    }
    bool ok = true;
    for (uint32_t i = 0; i < kEalThreads; ++i) {
        if (!wanted[i]) {
            continue;
        }
        try {
            e->loops[i] = std::make_shared<Loop>();
        } catch (...) {
            ok = false;
            continue;
        }
        Loop &loop = *e->loops[i];
        loop.ctlFd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
        if (loop.ctlFd < 0 || EpollAdd(e->epFd[i], loop.ctlFd, EPOLLIN, &DrainCtl, &loop) != 0) {
            ok = false;
            continue;
        }
        try {
            loop.thread = std::thread(RunLoop, e->loops[i], e->epFd[i]);
            std::lock_guard<std::mutex> lock(loop.mutex);
            loop.running = true;
        } catch (...) {
            ok = false;
        }
    }
    return ok;
}

void EalStopLoops(Eal *e)
{
    for (uint32_t i = 0; i < kEalThreads; ++i) {
        if (!e->loops[i]) {
            continue;
        }
        Loop &loop = *e->loops[i];
        if (loop.thread.joinable()) {
            loop.stop.store(true, std::memory_order_release);
            (void)eventfd_write(loop.ctlFd, 1);
            if (loop.thread.get_id() == std::this_thread::get_id()) {
                loop.thread.detach();  // ends when the current callback returns
            } else {
                loop.thread.join();
            }
        }
        if (loop.ctlFd >= 0) {
            (void)EpollDelReg(e->epFd[i], loop.ctlFd);
            close(loop.ctlFd);
            loop.ctlFd = -1;
        }
        std::lock_guard<std::mutex> lock(loop.mutex);
        loop.running = false;
    }
}

}  // namespace rixplat

using namespace rixplat;

extern "C" {

uint32_t RIX_TEST_EalRunUntilIdle(void *eal, uint32_t threadId)
{
    Eal *e = AsEal(eal);
    if (e == nullptr || threadId >= kEalThreads) {
        return 0;
    }
    return RIX_TEST_EpollRunUntilIdle(e->epFd[threadId]);
}

uint32_t RIX_TEST_EalWaitIdle(void *eal, uint32_t threadId, uint32_t timeoutMs)
{
    Eal *e = AsEal(eal);
    if (e == nullptr || threadId >= kEalThreads) {
        return 1;
    }
    if (!e->loops[threadId]) {
        return 1;
    }
    Loop &loop = *e->loops[threadId];
    std::unique_lock<std::mutex> lock(loop.mutex);
    if (!loop.running) {
        return 1;
    }
    uint64_t ticket = ++loop.requested;
    (void)eventfd_write(loop.ctlFd, 1);
    bool ok = loop.idle.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&] { return loop.served >= ticket; });
    return ok ? 0 : 1;
}

}  // extern "C"
