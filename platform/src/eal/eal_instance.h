// An environment abstraction layer instance: everything registered with it, its epoll sets
// and, once started, one loop thread per registered thread id.
#ifndef RIX_PLAT_EAL_INSTANCE_H
#define RIX_PLAT_EAL_INSTANCE_H

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "rix_eal.h"
#include "rix_platform_test.h"

namespace rixplat {

constexpr uint32_t kEalThreads = 3;
constexpr uint32_t kEalChannels = 4;
constexpr uint32_t kEalMagic = 0x4541494cu;

struct Eal;

struct Chan {
    Eal *eal = nullptr;
    uint32_t chanNo = 0;
    bool registered = false;
    RIX_EAL_ChanPara para{};
    std::array<int, 2> sock{-1, -1};  // [0] broker side, [1] the module's read end
    int32_t recvEpFd = -1;
    RIX_TEST_ChanRecvFunc recv = nullptr;
    void *recvCtx = nullptr;
    uint32_t pressed = 0;
    uint32_t presses = 0;
    uint32_t releases = 0;
    uint32_t sends = 0;
    std::vector<uint8_t> last;
    uint32_t lastLen = 0;
    uint32_t lastAddr = 0;
};

struct Loop {
    std::thread thread;
    int ctlFd = -1;  // wakes the loop to stop or to report idleness
    std::atomic<bool> stop{false};
    std::mutex mutex;
    std::condition_variable idle;
    // Idle reports: a waiter takes a ticket and wakes the loop; the loop notes the tickets it
    // has seen when it handles the wake-up, and serves them at its next idle moment.
    uint64_t requested = 0;
    uint64_t seen = 0;
    uint64_t served = 0;
    bool running = false;
};

struct Words {
    uint32_t count = 0;
    uint32_t word0 = 0;
    uint32_t word1 = 0;
};

struct BackPress {
    uint32_t pressed = 0;
    uint32_t presses = 0;
    uint32_t releases = 0;
};

struct Eal {
    uint32_t magic = kEalMagic;
    std::string name;
    RIX_EAL_CreatePara para{};
    std::mutex mutex;  // guards everything below that a test reads or a loop touches
    std::atomic<uint32_t> isMb{1};
    std::array<int32_t, kEalThreads> epFd{-1, -1, -1};
    // Deques: the test accessors hand out pointers that later registrations must not move.
    std::deque<RIX_EAL_ThreadCfg> threads;
    std::deque<RIX_EAL_ChanPara> chanRecords;
    std::deque<RIX_EAL_SyncGrpPara> syncGrps;
    std::vector<std::pair<uint32_t, uint32_t>> msgSets;
    std::deque<std::pair<uint32_t, RIX_EAL_FlowCtl>> flowCtls;
    Words reservePort;
    Words modStateRsp;
    Words ondemand;
    uint32_t initCount = 0;
    uint32_t startCount = 0;
    uint32_t modInitOkCount = 0;
    std::map<uint32_t, BackPress> grpBackPress;
    std::array<Chan, kEalChannels> chans;
    RIX_TEST_SyncPeerFunc peer = nullptr;
    void *peerCtx = nullptr;
    uint32_t syncMsgCount = 0;
    uint32_t lastSyncGrp = 0;
    uint32_t lastSyncCount = 0;
    // Shared with the loop's thread, which may outlive the instance when it is destroyed from
    // one of its own callbacks.
    std::array<std::shared_ptr<Loop>, kEalThreads> loops;
    bool started = false;
};

inline Eal *AsEal(void *eal)
{
    auto *e = static_cast<Eal *>(eal);
    return (e != nullptr && e->magic == kEalMagic) ? e : nullptr;
}

// Loops (eal_loop.cpp).
bool EalStartLoops(Eal *e);
void EalStopLoops(Eal *e);
// Channels (channel.cpp).
bool ChanOpen(Eal *e, Chan &c, const RIX_EAL_ChanPara &para);
void ChanClose(Chan &c);

}  // namespace rixplat

#endif
