// Unicast channels towards the local broker: the channel table, names, ports and the
// "channel" step.
#include <arpa/inet.h>

#include <cstring>

#include "core/common.h"
#include "core/eal_records.h"
#include "rix_platform.h"

namespace {

constexpr size_t kChanNameSize = sizeof(ASOrchChanPara{}.chanName);
constexpr size_t kMaxSuffixLen = 15u;
constexpr uint32_t kChanWord1 = 0x3FFFFFFFu;
constexpr uint32_t kChanWord18 = 3u;

template <size_t N>
constexpr ASOrchChanPara ChanRow(uint32_t chanNo, const char (&suffix)[N], uint32_t recvThreadId, uint32_t word27)
{
    static_assert(N <= kChanNameSize);
    ASOrchChanPara row{};
    row.chanNo = chanNo;
    for (size_t i = 0; i < N; ++i) {
        row.chanName[i] = suffix[i];
    }
    row.recvThreadId = recvThreadId;
    row.word27 = word27;
    return row;
}

}  // namespace

extern "C" {

// Exported through their declarations in the public header.
const char *const g_ASChannelName[ASORCH_CHAN_PORT_SLOTS] = {"DAM",   "FES",   "UP",    "EVT",
                                                             nullptr, nullptr, nullptr, nullptr};

const ASOrchChanPara g_ASOrchChanParam[ASORCH_CHAN_NUM] = {
    ChanRow(ASORCH_CHAN_DAM, "_DATA_DAM", ASORCH_THREAD_DATA, 25u),
    ChanRow(ASORCH_CHAN_FES, "_DATA_FES", ASORCH_THREAD_DATA, 25u),
    ChanRow(ASORCH_CHAN_UP, "_DATA_UP", ASORCH_THREAD_DATA, 9u),
    ChanRow(ASORCH_CHAN_EVT, "_EVT", ASORCH_THREAD_EVENT, 25u),
};

ASORCH_API const char *ASGetChnlName(uint32_t chanNo)
{
    return chanNo < ASORCH_CHAN_PORT_SLOTS ? g_ASChannelName[chanNo] : nullptr;
}

ASORCH_API uint32_t ASOrchGetChanServerIp(void)
{
    struct in_addr addr {};
    if (inet_pton(AF_INET, asorch::kBrokerAddrText, &addr) != 1) {
        return 0u;
    }
    return addr.s_addr;
}

ASORCH_API uint32_t ASOrchChanAddNamePrefix(ASOrchHandle *handle, uint32_t /* nameLen */, char *chanName)
{
    if (handle == nullptr || chanName == nullptr) {
        return ASORCH_ERR;
    }
    if (strnlen(chanName, kChanNameSize) > kMaxSuffixLen) {
        // Printed from a terminated copy: the record's 32 bytes need not hold a terminator.
        char shown[kChanNameSize + 1u] = {};
        (void)memcpy_s(shown, sizeof(shown), chanName, kChanNameSize);
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "%s, chanName %s over max name length.", handle->name, shown);
        return ASORCH_ERR;
    }
    char buf[kChanNameSize] = {};
    if (strcpy_s(buf, sizeof(buf), handle->name) != 0) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "%s, Broker autosync Name Excceeds", buf);
        return ASORCH_ERR;
    }
    if (strcat_s(buf, sizeof(buf), chanName) != 0) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "Cat %s and %s failed.", buf, chanName);
        return ASORCH_ERR;
    }
    if (strcpy_s(chanName, kChanNameSize, buf) != 0) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "%s, Broker autosync chanName Excceeds", chanName);
        return ASORCH_ERR;
    }
    return ASORCH_OK;
}

ASORCH_API void ASOrchChanParamCfg(ASOrchChanPara *chan, const ASOrchChanPort *port)
{
    if (chan == nullptr || port == nullptr) {
        return;
    }
    chan->serverPort = htons(static_cast<uint16_t>(port->realServerPort & 0xFFFFu));
    chan->word29 = port->chanArg;
    chan->word18 = kChanWord18;
    chan->word1 = kChanWord1;
    chan->word20 = 0u;
    chan->word22 = 0u;
    chan->serverIpFunc = ASOrchGetChanServerIp;
}

ASORCH_API uint32_t ASOrchRegChannel(ASOrchHandle *handle, const ASOrchChanPort *port, const ASOrchChanPara *row)
{
    if (handle == nullptr || port == nullptr || row == nullptr) {
        return ASORCH_ERR;
    }
    ASOrchChanPara chan;
    if (memcpy_s(&chan, sizeof(chan), row, sizeof(*row)) != 0) {
        return ASORCH_ERR;
    }
    if (!asorch::HasThread(handle->threadMask, ASORCH_THREAD_EVENT)) {
        chan.recvThreadId = ASORCH_THREAD_DATA;
    }
    if (ASOrchChanAddNamePrefix(handle, static_cast<uint32_t>(sizeof(chan.chanName)), chan.chanName) != 0u) {
        return ASORCH_ERR;
    }
    ASOrchChanParamCfg(&chan, port);
    if (RIX_EAL_RegUcChannel(handle->ealHdl, asorch::EalRecord(&chan), 1u) != 0u) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "%s, RegUcChannel %s fail.", handle->name, chan.chanName);
        return ASORCH_ERR;
    }
    return ASORCH_OK;
}

ASORCH_API uint32_t ASOrchRegBaseChan(ASOrchHandle *handle, ASOrchBasePara *para)
{
    if (handle == nullptr || para == nullptr) {
        return ASORCH_ERR;
    }
    // Slots 4 to 7 have no channel row. A port there is a configuration error the module
    // must hear about: the step is refused before any channel is registered.
    for (uint32_t slot = ASORCH_CHAN_NUM; slot < ASORCH_CHAN_PORT_SLOTS; ++slot) {
        if (para->chanPort[slot].realServerPort != 0u) {
            RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "%s, chanPort slot %u has no channel.", handle->name, slot);
            return ASORCH_ERR;
        }
    }
    uint32_t registered = 0u;
    for (uint32_t chan = 0; chan < ASORCH_CHAN_NUM; ++chan) {
        const ASOrchChanPort &port = para->chanPort[chan];
        if (port.realServerPort == 0u) {
            continue;
        }
        if (ASOrchRegChannel(handle, &port, &g_ASOrchChanParam[chan]) != 0u) {
            return ASORCH_ERR;
        }
        ++registered;
    }
    if (registered == 0u) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "%s, no valid realServerPort.", handle->name);
        return ASORCH_ERR;
    }
    return ASORCH_OK;
}
}
