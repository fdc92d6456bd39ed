// RIX_EAL_*: instances that record every registration and run real epoll loops.
#include <sys/epoll.h>
#include <unistd.h>

#include <atomic>
#include <new>

#include "eal_instance.h"
#include "epoll_reg.h"
#include "plat_internal.h"

namespace rixplat {
namespace {

std::atomic<uint32_t> g_defaultMb{1};
std::atomic<uint32_t> g_live{0};

void ResetEal()
{
    g_defaultMb.store(1);
}

[[maybe_unused]] const bool g_registered = [] {
    RixPlatInternal_AddResetHook(ResetEal);
    return true;
}();

void CloseSets(Eal *e)
{
    for (int32_t &fd : e->epFd) {
        if (fd >= 0) {
            EpollForgetSet(fd);
            close(fd);
            fd = -1;
        }
    }
}

uint32_t RecordWords(void *eal, Words Eal::*field, uint32_t word0, uint32_t word1)
{
    Eal *e = AsEal(eal);
    if (e == nullptr) {
        return 1;
    }
    std::lock_guard<std::mutex> lock(e->mutex);
    Words &w = e->*field;
    ++w.count;
    w.word0 = word0;
    w.word1 = word1;
    return 0;
}

}  // namespace
}  // namespace rixplat

using namespace rixplat;

extern "C" {

void *RIX_EAL_Create(const char *name, const RIX_EAL_CreatePara *para)
{
    if (Hit(Op_RIX_EAL_Create) || name == nullptr || para == nullptr) {
        return nullptr;
    }
    try {
        auto *e = new Eal;
        e->name = name;
        e->para = *para;
        e->isMb.store(g_defaultMb.load());
        for (uint32_t i = 0; i < kEalChannels; ++i) {
            e->chans[i].eal = e;
            e->chans[i].chanNo = i;
        }
        for (int32_t &fd : e->epFd) {
            fd = epoll_create1(EPOLL_CLOEXEC);
            if (fd < 0) {
                CloseSets(e);
                delete e;
                return nullptr;
            }
        }
        g_live.fetch_add(1);
        return e;
    } catch (...) {
        return nullptr;
    }
}

uint32_t RIX_EAL_Init(void *eal)
{
    Eal *e = AsEal(eal);
    if (Hit(Op_RIX_EAL_Init) || e == nullptr) {
        return 1;
    }
    std::lock_guard<std::mutex> lock(e->mutex);
    ++e->initCount;
    return 0;
}

uint32_t RIX_EAL_Start(void *eal)
{
    Eal *e = AsEal(eal);
    if (Hit(Op_RIX_EAL_Start) || e == nullptr) {
        return 1;
    }
    {
        std::lock_guard<std::mutex> lock(e->mutex);
        ++e->startCount;
        if (e->started) {
            return 0;
        }
        e->started = true;
    }
    return EalStartLoops(e) ? 0 : 1;
}

uint32_t RIX_EAL_ModInitOk(void *eal)
{
    Eal *e = AsEal(eal);
    if (Hit(Op_RIX_EAL_ModInitOk) || e == nullptr) {
        return 1;
    }
    std::lock_guard<std::mutex> lock(e->mutex);
    ++e->modInitOkCount;
    return 0;
}

void RIX_EAL_Destroy(void *eal)
{
    (void)Hit(Op_RIX_EAL_Destroy);
    Eal *e = AsEal(eal);
    if (e == nullptr) {
        return;
    }
    EalStopLoops(e);
    for (Chan &c : e->chans) {
        ChanClose(c);
    }
    CloseSets(e);
    e->magic = 0;
    delete e;
    g_live.fetch_sub(1);
}

int32_t RIX_EAL_GetEpollFd(void *eal, uint32_t threadId)
{
    Eal *e = AsEal(eal);
    if (Hit(Op_RIX_EAL_GetEpollFd) || e == nullptr || threadId >= kEalThreads) {
        return -1;
    }
    return e->epFd[threadId];
}

uint32_t RIX_EAL_SetOndemandParam(void *eal, uint32_t word0, uint32_t word1)
{
    if (Hit(Op_RIX_EAL_SetOndemandParam)) {
        return 1;
    }
    return RecordWords(eal, &Eal::ondemand, word0, word1);
}

uint32_t RIX_EAL_RegModStateRsp(void *eal, uint32_t word0, uint32_t word1)
{
    if (Hit(Op_RIX_EAL_RegModStateRsp)) {
        return 1;
    }
    return RecordWords(eal, &Eal::modStateRsp, word0, word1);
}

uint32_t RIX_EAL_ReservePort(void *eal, uint32_t word0, uint32_t word1)
{
    if (Hit(Op_RIX_EAL_ReservePort)) {
        return 1;
    }
    return RecordWords(eal, &Eal::reservePort, word0, word1);
}

uint32_t RIX_EAL_RegThread(void *eal, const RIX_EAL_ThreadCfg *cfg, uint32_t count)
{
    Eal *e = AsEal(eal);
    if (Hit(Op_RIX_EAL_RegThread) || e == nullptr || (cfg == nullptr && count != 0)) {
        return 1;
    }
    std::lock_guard<std::mutex> lock(e->mutex);
    // All or nothing: a bad or repeated thread id refuses the whole call.
    for (uint32_t i = 0; i < count; ++i) {
        if (cfg[i].threadId >= kEalThreads) {
            return 1;
        }
        for (uint32_t j = 0; j < i; ++j) {
            if (cfg[j].threadId == cfg[i].threadId) {
                return 1;
            }
        }
        for (const RIX_EAL_ThreadCfg &t : e->threads) {
            if (t.threadId == cfg[i].threadId) {
                return 1;
            }
        }
    }
    for (uint32_t i = 0; i < count; ++i) {
        e->threads.push_back(cfg[i]);
    }
    return 0;
}

uint32_t RIX_EAL_RegUcChannel(void *eal, const RIX_EAL_ChanPara *para, uint32_t count)
{
    Eal *e = AsEal(eal);
    if (Hit(Op_RIX_EAL_RegUcChannel) || e == nullptr || (para == nullptr && count != 0)) {
        return 1;
    }
    std::lock_guard<std::mutex> lock(e->mutex);
    for (uint32_t i = 0; i < count; ++i) {
        if (para[i].chanNo >= kEalChannels || para[i].recvThreadId >= kEalThreads ||
            e->chans[para[i].chanNo].registered) {
            return 1;
        }
        for (uint32_t j = 0; j < i; ++j) {
            if (para[j].chanNo == para[i].chanNo) {
                return 1;
            }
        }
    }
    for (uint32_t i = 0; i < count; ++i) {
        if (!ChanOpen(e, e->chans[para[i].chanNo], para[i])) {
            return 1;
        }
        e->chanRecords.push_back(para[i]);
    }
    return 0;
}

uint32_t RIX_EAL_SelfRoleIsMb(void *eal)
{
    Eal *e = AsEal(eal);
    if (Hit(Op_RIX_EAL_SelfRoleIsMb)) {
        return 1;
    }
    return e == nullptr ? 0 : e->isMb.load();
}

void *RIX_EAL_GetChannelHdl(void *eal, uint32_t chanNo)
{
    Eal *e = AsEal(eal);
    if (Hit(Op_RIX_EAL_GetChannelHdl) || e == nullptr || chanNo >= kEalChannels) {
        return nullptr;
    }
    return &e->chans[chanNo];
}

uint32_t RIX_EAL_RegSyncGroup(void *eal, const RIX_EAL_SyncGrpPara *rows, uint32_t count)
{
    Eal *e = AsEal(eal);
    if (Hit(Op_RIX_EAL_RegSyncGroup) || e == nullptr || (rows == nullptr && count != 0)) {
        return 1;
    }
    std::lock_guard<std::mutex> lock(e->mutex);
    for (uint32_t i = 0; i < count; ++i) {
        e->syncGrps.push_back(rows[i]);
    }
    return 0;
}

uint32_t RIX_EAL_RegSyncGrpMsgSet(void *eal, uint32_t grpId, uint32_t msgSet)
{
    Eal *e = AsEal(eal);
    if (Hit(Op_RIX_EAL_RegSyncGrpMsgSet) || e == nullptr) {
        return 1;
    }
    std::lock_guard<std::mutex> lock(e->mutex);
    e->msgSets.emplace_back(grpId, msgSet);
    return 0;
}

uint32_t RIX_EAL_SetSyncGrpFlowCtl(void *eal, uint32_t grpId, const RIX_EAL_FlowCtl *flowCtl)
{
    Eal *e = AsEal(eal);
    if (Hit(Op_RIX_EAL_SetSyncGrpFlowCtl) || e == nullptr || flowCtl == nullptr) {
        return 1;
    }
    std::lock_guard<std::mutex> lock(e->mutex);
    e->flowCtls.emplace_back(grpId, *flowCtl);
    return 0;
}

uint32_t RIX_EAL_SyncMsg(void *eal, uint32_t grpId, void *msgs, uint32_t count)
{
    Eal *e = AsEal(eal);
    if (Hit(Op_RIX_EAL_SyncMsg) || e == nullptr || (msgs == nullptr && count != 0)) {
        return 1;
    }
    const auto *in = static_cast<const RIX_EAL_SyncItem *>(msgs);
    for (uint32_t i = 0; i < count; ++i) {
        if (in[i].data == nullptr && in[i].len != 0) {
            return 1;
        }
    }
    RIX_TEST_SyncPeerFunc peer;
    void *peerCtx;
    {
        std::lock_guard<std::mutex> lock(e->mutex);
        ++e->syncMsgCount;
        e->lastSyncGrp = grpId;
        e->lastSyncCount = count;
        peer = e->peer;
        peerCtx = e->peerCtx;
    }
    if (peer == nullptr) {
        return 0;
    }
    // The peer sees the layer's copies, never the caller's buffers.
    std::vector<std::vector<uint8_t>> copies;
    std::vector<RIX_EAL_SyncItem> items;
    try {
        copies.resize(count);
        items.resize(count);
        for (uint32_t i = 0; i < count; ++i) {
            const auto *src = static_cast<const uint8_t *>(in[i].data);
            copies[i].assign(src, src + in[i].len);
            items[i].data = copies[i].data();
            items[i].len = in[i].len;
        }
    } catch (...) {
        return 1;
    }
    peer(peerCtx, grpId, items.data(), count);
    return 0;
}

uint32_t RIX_EAL_SyncBackPress(void *eal, uint32_t grpId)
{
    Eal *e = AsEal(eal);
    if (Hit(Op_RIX_EAL_SyncBackPress) || e == nullptr) {
        return 1;
    }
    std::lock_guard<std::mutex> lock(e->mutex);
    BackPress &bp = e->grpBackPress[grpId];
    bp.pressed = 1;
    ++bp.presses;
    return 0;
}

uint32_t RIX_EAL_SyncUnBackPress(void *eal, uint32_t grpId)
{
    Eal *e = AsEal(eal);
    if (Hit(Op_RIX_EAL_SyncUnBackPress) || e == nullptr) {
        return 1;
    }
    std::lock_guard<std::mutex> lock(e->mutex);
    BackPress &bp = e->grpBackPress[grpId];
    bp.pressed = 0;
    ++bp.releases;
    return 0;
}

void RIX_TEST_SetDefaultMbRole(uint32_t isMb)
{
    g_defaultMb.store(isMb);
}
uint32_t RIX_TEST_EalLiveCount(void)
{
    return g_live.load();
}

}  // extern "C"
