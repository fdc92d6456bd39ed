// Worker threads: the mask a module builds, their names and their registration.
#include <array>
#include <bit>
#include <cstdarg>
#include <cstring>

#include "core/common.h"
#include "core/eal_records.h"
#include "rix_platform.h"

namespace {

constexpr size_t kThreadNameSize = sizeof(ASOrchThreadCfg{}.threadName);
constexpr uint32_t kMaxThreadIds = 32u;

// The name is the module's name with the suffix; the attribute word is the layer's own.
constexpr std::array<ASOrchThreadCfg, ASORCH_THREAD_NUM> g_ASOrchThreadTemplate = {{
    {.threadId = ASORCH_THREAD_DATA, .threadName = "_DATA", .threadAttr = 0u},
    {.threadId = ASORCH_THREAD_SYNC, .threadName = "_SYNC", .threadAttr = 1u},
    {.threadId = ASORCH_THREAD_EVENT, .threadName = "_EVENT", .threadAttr = 3u},
}};

uint32_t IdBit(uint32_t id)
{
    return id < kMaxThreadIds ? (1u << id) : 0u;
}

}  // namespace

extern "C" {

ASORCH_API uint32_t ASOrchThreadSet(uint32_t *mask, uint32_t count, uint32_t firstId, ...)
{
    if (mask == nullptr || count == 0u || count > ASORCH_THREAD_NUM) {
        return ASORCH_ERR;
    }
    uint32_t built = IdBit(firstId);
    va_list args;
    va_start(args, firstId);
    for (uint32_t i = 1; i < count; ++i) {
        built |= IdBit(va_arg(args, uint32_t));
    }
    va_end(args);
    // A repeated id or one of 32 and above leaves fewer bits than ids.
    if (static_cast<uint32_t>(std::popcount(built)) != count) {
        return ASORCH_ERR;
    }
    *mask = built;
    return ASORCH_OK;
}

ASORCH_API uint32_t ASOrchSetThreadName(ASOrchHandle *handle, ASOrchThreadCfg *rows, uint32_t count)
{
    if (handle == nullptr || rows == nullptr) {
        return ASORCH_ERR;
    }
    const size_t nameLen = strnlen(handle->name, sizeof(handle->name));
    for (uint32_t i = 0; i < count; ++i) {
        ASOrchThreadCfg &row = rows[i];
        if (nameLen + strnlen(row.threadName, kThreadNameSize) > kThreadNameSize - 1u) {
            return ASORCH_ERR;
        }
        char buf[kThreadNameSize] = {};
        if (strcpy_s(buf, sizeof(buf), handle->name) != 0 || strcat_s(buf, sizeof(buf), row.threadName) != 0 ||
            strcpy_s(row.threadName, sizeof(row.threadName), buf) != 0) {
            return ASORCH_ERR;
        }
    }
    return ASORCH_OK;
}

ASORCH_API uint32_t ASOrchRegThreadBase(ASOrchHandle *handle, ASOrchBasePara *para, ASOrchThreadCfg *rows,
                                        uint32_t count)
{
    if (handle == nullptr || para == nullptr || rows == nullptr) {
        return ASORCH_ERR;
    }
    std::array<ASOrchThreadCfg, ASORCH_THREAD_NUM> cfg{};
    uint32_t k = 0u;
    for (uint32_t i = 0; i < ASORCH_THREAD_NUM && i < count; ++i) {
        if (!asorch::HasThread(para->threadMask, i)) {
            continue;
        }
        cfg[k] = rows[i];
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_INFO, "%s, thread %s id is %u", handle->name, cfg[k].threadName,
                            cfg[k].threadId);
        ++k;
    }
    if (RIX_EAL_RegThread(handle->ealHdl, asorch::EalRecord(cfg.data()), k) != 0u) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "%s, register %u threads fail", handle->name, k);
        return ASORCH_ERR;
    }
    handle->threadMask = para->threadMask;
    RIX_AUTOSYNC_RixLog(ASORCH_LOG_INFO, "%s, register %u threads ok", handle->name, k);
    return ASORCH_OK;
}

ASORCH_API uint32_t ASOrchRegThread(ASOrchHandle *handle, ASOrchBasePara *para)
{
    if (handle == nullptr || para == nullptr) {
        return ASORCH_ERR;
    }
    if (!asorch::HasThread(para->threadMask, ASORCH_THREAD_DATA)) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "%s, set threads fail, has not Data thread", handle->name);
        return ASORCH_ERR;
    }
    std::array<ASOrchThreadCfg, ASORCH_THREAD_NUM> rows = g_ASOrchThreadTemplate;
    if (ASOrchSetThreadName(handle, rows.data(), ASORCH_THREAD_NUM) != 0u) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "%s, set threads name fail", handle->name);
        return ASORCH_ERR;
    }
    return ASOrchRegThreadBase(handle, para, rows.data(), ASORCH_THREAD_NUM);
}
}
