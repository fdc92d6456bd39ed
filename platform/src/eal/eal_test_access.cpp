// Test access to what an instance recorded.
#include "eal_instance.h"

using namespace rixplat;

namespace {

template <typename T>
const T *At(Eal *e, const std::deque<T> &items, uint32_t i)
{
    std::lock_guard<std::mutex> lock(e->mutex);
    return i < items.size() ? &items[i] : nullptr;
}

template <typename C>
uint32_t SizeOf(Eal *e, const C &items)
{
    std::lock_guard<std::mutex> lock(e->mutex);
    return static_cast<uint32_t>(items.size());
}

uint32_t ReadWords(void *eal, Words Eal::*field, uint32_t *word0, uint32_t *word1)
{
    Eal *e = AsEal(eal);
    if (e == nullptr) {
        return 0;
    }
    std::lock_guard<std::mutex> lock(e->mutex);
    const Words &w = e->*field;
    if (word0 != nullptr) {
        *word0 = w.word0;
    }
    if (word1 != nullptr) {
        *word1 = w.word1;
    }
    return w.count;
}

uint32_t ReadCount(void *eal, uint32_t Eal::*field)
{
    Eal *e = AsEal(eal);
    if (e == nullptr) {
        return 0;
    }
    std::lock_guard<std::mutex> lock(e->mutex);
    return e->*field;
}

}  // namespace

extern "C" {

void RIX_TEST_EalSetMbRole(void *eal, uint32_t isMb)
{
    if (Eal *e = AsEal(eal)) {
        e->isMb.store(isMb);
    }
}

const char *RIX_TEST_EalName(void *eal)
{
    Eal *e = AsEal(eal);
    return e == nullptr ? nullptr : e->name.c_str();
}

const RIX_EAL_CreatePara *RIX_TEST_EalCreatePara(void *eal)
{
    Eal *e = AsEal(eal);
    return e == nullptr ? nullptr : &e->para;
}

uint32_t RIX_TEST_EalThreadCount(void *eal)
{
    Eal *e = AsEal(eal);
    return e == nullptr ? 0 : SizeOf(e, e->threads);
}

const RIX_EAL_ThreadCfg *RIX_TEST_EalThread(void *eal, uint32_t i)
{
    Eal *e = AsEal(eal);
    return e == nullptr ? nullptr : At(e, e->threads, i);
}

uint32_t RIX_TEST_EalChanCount(void *eal)
{
    Eal *e = AsEal(eal);
    return e == nullptr ? 0 : SizeOf(e, e->chanRecords);
}

const RIX_EAL_ChanPara *RIX_TEST_EalChan(void *eal, uint32_t i)
{
    Eal *e = AsEal(eal);
    return e == nullptr ? nullptr : At(e, e->chanRecords, i);
}

uint32_t RIX_TEST_EalSyncGrpCount(void *eal)
{
    Eal *e = AsEal(eal);
    return e == nullptr ? 0 : SizeOf(e, e->syncGrps);
}

const RIX_EAL_SyncGrpPara *RIX_TEST_EalSyncGrp(void *eal, uint32_t i)
{
    Eal *e = AsEal(eal);
    return e == nullptr ? nullptr : At(e, e->syncGrps, i);
}

uint32_t RIX_TEST_EalMsgSetCount(void *eal)
{
    Eal *e = AsEal(eal);
    return e == nullptr ? 0 : SizeOf(e, e->msgSets);
}

void RIX_TEST_EalMsgSet(void *eal, uint32_t i, uint32_t *grpId, uint32_t *msgSet)
{
    Eal *e = AsEal(eal);
    if (e == nullptr) {
        return;
    }
    std::lock_guard<std::mutex> lock(e->mutex);
    if (i >= e->msgSets.size()) {
        return;
    }
    if (grpId != nullptr) {
        *grpId = e->msgSets[i].first;
    }
    if (msgSet != nullptr) {
        *msgSet = e->msgSets[i].second;
    }
}

uint32_t RIX_TEST_EalFlowCtlCount(void *eal)
{
    Eal *e = AsEal(eal);
    return e == nullptr ? 0 : SizeOf(e, e->flowCtls);
}

const RIX_EAL_FlowCtl *RIX_TEST_EalFlowCtl(void *eal, uint32_t i, uint32_t *grpId)
{
    Eal *e = AsEal(eal);
    if (e == nullptr) {
        return nullptr;
    }
    std::lock_guard<std::mutex> lock(e->mutex);
    if (i >= e->flowCtls.size()) {
        return nullptr;
    }
    if (grpId != nullptr) {
        *grpId = e->flowCtls[i].first;
    }
    return &e->flowCtls[i].second;
}

uint32_t RIX_TEST_EalReservePort(void *eal, uint32_t *word0, uint32_t *word1)
{
    return ReadWords(eal, &Eal::reservePort, word0, word1);
}

uint32_t RIX_TEST_EalModStateRsp(void *eal, uint32_t *word0, uint32_t *word1)
{
    return ReadWords(eal, &Eal::modStateRsp, word0, word1);
}

uint32_t RIX_TEST_EalOndemand(void *eal, uint32_t *word0, uint32_t *word1)
{
    return ReadWords(eal, &Eal::ondemand, word0, word1);
}

uint32_t RIX_TEST_EalInitCount(void *eal)
{
    return ReadCount(eal, &Eal::initCount);
}
uint32_t RIX_TEST_EalStartCount(void *eal)
{
    return ReadCount(eal, &Eal::startCount);
}
uint32_t RIX_TEST_EalModInitOkCount(void *eal)
{
    return ReadCount(eal, &Eal::modInitOkCount);
}
uint32_t RIX_TEST_EalSyncMsgCount(void *eal)
{
    return ReadCount(eal, &Eal::syncMsgCount);
}

uint32_t RIX_TEST_EalSyncBackPressed(void *eal, uint32_t grpId)
{
    Eal *e = AsEal(eal);
    if (e == nullptr) {
        return 0;
    }
    std::lock_guard<std::mutex> lock(e->mutex);
    auto it = e->grpBackPress.find(grpId);
    return it == e->grpBackPress.end() ? 0 : it->second.pressed;
}

uint32_t RIX_TEST_EalSyncBackPressCount(void *eal, uint32_t grpId, uint32_t *releases)
{
    Eal *e = AsEal(eal);
    if (e == nullptr) {
        return 0;
    }
    std::lock_guard<std::mutex> lock(e->mutex);
    auto it = e->grpBackPress.find(grpId);
    if (releases != nullptr) {
        *releases = it == e->grpBackPress.end() ? 0 : it->second.releases;
    }
    return it == e->grpBackPress.end() ? 0 : it->second.presses;
}

void RIX_TEST_EalSetSyncPeer(void *eal, RIX_TEST_SyncPeerFunc peer, void *ctx)
{
    if (Eal *e = AsEal(eal)) {
        std::lock_guard<std::mutex> lock(e->mutex);
        e->peer = peer;
        e->peerCtx = ctx;
    }
}

uint32_t RIX_TEST_EalSyncMsgLast(void *eal, uint32_t *grpId, uint32_t *count)
{
    Eal *e = AsEal(eal);
    if (e == nullptr) {
        return 0;
    }
    std::lock_guard<std::mutex> lock(e->mutex);
    if (grpId != nullptr) {
        *grpId = e->lastSyncGrp;
    }
    if (count != nullptr) {
        *count = e->lastSyncCount;
    }
    return e->syncMsgCount;
}

}  // extern "C"
