// Unicast channels: what the module sends is recorded; a socket pair stands for the broker,
// whose messages reach the module on the channel's receiving thread.
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

#include "eal_instance.h"
#include "epoll_reg.h"
#include "plat_internal.h"

namespace rixplat {
namespace {

uint32_t ChanReadable(int32_t fd, uint32_t events, void *ctx)
{
    (void)events;
    auto *c = static_cast<Chan *>(ctx);
    ssize_t size = recv(fd, nullptr, 0, MSG_PEEK | MSG_TRUNC | MSG_DONTWAIT);
    if (size < 0) {
        return 0;
    }
    std::vector<uint8_t> buf;
    try {
        buf.resize(size > 0 ? static_cast<size_t>(size) : 1u);
    } catch (...) {
        (void)recv(fd, nullptr, 0, MSG_DONTWAIT | MSG_TRUNC);  // dropped rather than spinning
        return 0;
    }
    ssize_t got = recv(fd, buf.data(), static_cast<size_t>(size), MSG_DONTWAIT);
    if (got < 0) {
        return 0;
    }
    RIX_TEST_ChanRecvFunc recvFn;
    void *recvCtx;
    {
        std::lock_guard<std::mutex> lock(c->eal->mutex);
        recvFn = c->recv;
        recvCtx = c->recvCtx;
    }
    if (recvFn != nullptr) {
        recvFn(recvCtx, c->chanNo, buf.data(), static_cast<uint32_t>(got));
    }
    return 0;
}

Chan *AsChan(void *chan)
{
    auto *c = static_cast<Chan *>(chan);
    return (c != nullptr && AsEal(c->eal) != nullptr) ? c : nullptr;
}

}  // namespace

// Called with the instance locked.
bool ChanOpen(Eal *e, Chan &c, const RIX_EAL_ChanPara &para)
{
    int sv[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, sv) != 0) {
        return false;
    }
    int32_t epFd = e->epFd[para.recvThreadId];
    if (EpollAdd(epFd, sv[1], EPOLLIN, &ChanReadable, &c) != 0) {
        close(sv[0]);
        close(sv[1]);
        return false;
    }
    c.sock = {sv[0], sv[1]};
    c.recvEpFd = epFd;
    c.para = para;
    c.registered = true;
    return true;
}

void ChanClose(Chan &c)
{
    if (c.sock[1] >= 0) {
        (void)EpollDelReg(c.recvEpFd, c.sock[1]);
        close(c.sock[1]);
    }
    if (c.sock[0] >= 0) {
        close(c.sock[0]);
    }
    c.sock = {-1, -1};
    c.registered = false;
}

}  // namespace rixplat

using namespace rixplat;

extern "C" {

uint32_t RIX_CHAN_USendMsg(void *chan, uint32_t addr, uint32_t port, void *msg, uint32_t len)
{
    (void)port;
    Chan *c = AsChan(chan);
    if (Hit(Op_RIX_CHAN_USendMsg) || c == nullptr || (msg == nullptr && len != 0)) {
        return 1;
    }
    std::lock_guard<std::mutex> lock(c->eal->mutex);
    try {
        const auto *bytes = static_cast<const uint8_t *>(msg);
        c->last.assign(bytes, bytes + len);
    } catch (...) {
        return 1;
    }
    ++c->sends;
    c->lastLen = len;
    c->lastAddr = addr;
    return 0;
}

uint32_t RIX_CHAN_BackPress(void *chan)
{
    Chan *c = AsChan(chan);
    if (Hit(Op_RIX_CHAN_BackPress) || c == nullptr) {
        return 1;
    }
    std::lock_guard<std::mutex> lock(c->eal->mutex);
    c->pressed = 1;
    ++c->presses;
    return 0;
}

uint32_t RIX_CHAN_UnBackPress(void *chan)
{
    Chan *c = AsChan(chan);
    if (Hit(Op_RIX_CHAN_UnBackPress) || c == nullptr) {
        return 1;
    }
    std::lock_guard<std::mutex> lock(c->eal->mutex);
    c->pressed = 0;
    ++c->releases;
    return 0;
}

uint32_t RIX_TEST_ChanBackPressed(void *eal, uint32_t chanNo)
{
    Eal *e = AsEal(eal);
    if (e == nullptr || chanNo >= kEalChannels) {
        return 0;
    }
    std::lock_guard<std::mutex> lock(e->mutex);
    return e->chans[chanNo].pressed;
}

uint32_t RIX_TEST_ChanBackPressCount(void *eal, uint32_t chanNo, uint32_t *releases)
{
    Eal *e = AsEal(eal);
    if (e == nullptr || chanNo >= kEalChannels) {
        return 0;
    }
    std::lock_guard<std::mutex> lock(e->mutex);
    if (releases != nullptr) {
        *releases = e->chans[chanNo].releases;
    }
    return e->chans[chanNo].presses;
}

uint32_t RIX_TEST_ChanSendCount(void *eal, uint32_t chanNo)
{
    Eal *e = AsEal(eal);
    if (e == nullptr || chanNo >= kEalChannels) {
        return 0;
    }
    std::lock_guard<std::mutex> lock(e->mutex);
    return e->chans[chanNo].sends;
}

const void *RIX_TEST_ChanLastSent(void *eal, uint32_t chanNo, uint32_t *len, uint32_t *addr)
{
    Eal *e = AsEal(eal);
    if (e == nullptr || chanNo >= kEalChannels) {
        return nullptr;
    }
    std::lock_guard<std::mutex> lock(e->mutex);
    const Chan &c = e->chans[chanNo];
    if (len != nullptr) {
        *len = c.lastLen;
    }
    if (addr != nullptr) {
        *addr = c.lastAddr;
    }
    return c.sends == 0 ? nullptr : c.last.data();
}

void RIX_TEST_ChanSetRecv(void *eal, uint32_t chanNo, RIX_TEST_ChanRecvFunc recv, void *ctx)
{
    Eal *e = AsEal(eal);
    if (e == nullptr || chanNo >= kEalChannels) {
        return;
    }
    std::lock_guard<std::mutex> lock(e->mutex);
    e->chans[chanNo].recv = recv;
    e->chans[chanNo].recvCtx = ctx;
}

uint32_t RIX_TEST_ChanDeliver(void *eal, uint32_t chanNo, const void *msg, uint32_t len)
{
    Eal *e = AsEal(eal);
    if (e == nullptr || chanNo >= kEalChannels || (msg == nullptr && len != 0)) {
        return 1;
    }
    int fd;
    {
        std::lock_guard<std::mutex> lock(e->mutex);
        fd = e->chans[chanNo].sock[0];
    }
    if (fd < 0) {
        return 1;
    }
    ssize_t n = send(fd, msg, len, MSG_NOSIGNAL | MSG_DONTWAIT);
    return n == static_cast<ssize_t>(len) ? 0 : 1;
}

}  // extern "C"
