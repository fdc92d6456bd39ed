// Facts every subsystem of the library shares, written once; not exported.
#ifndef RIX_AS_CORE_COMMON_H
#define RIX_AS_CORE_COMMON_H

#include <bit>
#include <cstdint>

#include "rix_as_orch.h"

namespace asorch {

// What a line names when it has no handle to name (the logs have always spelled it so).
constexpr char kNoName[] = "UNKONWN";

inline const char *NameOf(const ASOrchHandle *handle)
{
    return handle != nullptr ? handle->name : kNoName;
}

// A thread id's bit in a module's threadMask; ids beyond the mask's 32 bits are never set.
constexpr bool HasThread(uint32_t mask, uint32_t threadId)
{
    return threadId < 32u && ((mask >> threadId) & 1u) != 0u;
}

// The broker is on this host: its address as channel registration writes it, and as the
// address word of a send (network byte order).
constexpr char kBrokerAddrText[] = "127.0.0.1";
constexpr uint32_t kBrokerAddrWord = std::endian::native == std::endian::little ? 0x0100007Fu : 0x7F000001u;

// The one way an exported step refuses a null argument that has no line of its own: one
// line naming the function, and the caller returns its failure.
inline bool NullArg(const char *func, bool bad)
{
    if (bad) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "%s, null argument.", func);
    }
    return bad;
}

}  // namespace asorch

#endif
