// Smoothing entry points: each call is recorded with a copy of its record.
#include <cstring>
#include <deque>
#include <mutex>
#include <vector>

#include "plat_internal.h"
#include "rix_entry.h"
#include "rix_platform_test.h"

namespace {

struct Call {
    const char *name;
    std::vector<uint8_t> record;
};

std::mutex g_mutex;
std::deque<Call> g_calls;  // a deque keeps earlier records in place for the test accessor

void ResetEntries()
{
    std::lock_guard<std::mutex> lock(g_mutex);
    g_calls.clear();
}

[[maybe_unused]] const bool g_registered = [] {
    RixPlatInternal_AddResetHook(ResetEntries);
    return true;
}();

uint32_t Record(rixplat::OpId op, const char *name, const void *record, uint32_t size)
{
    if (rixplat::Hit(op) || record == nullptr) {
        return 1;
    }
    try {
        const auto *bytes = static_cast<const uint8_t *>(record);
        std::lock_guard<std::mutex> lock(g_mutex);
        g_calls.push_back(Call{name, std::vector<uint8_t>(bytes, bytes + size)});
    } catch (...) {
        return 1;
    }
    return 0;
}

}  // namespace

#define RIX_ENTRY_RECORD(op, record, size) Record(rixplat::Op_##op, #op, record, size)

extern "C" {

uint32_t RIX_ENTRY_ProcVrfStateBegin(const void *classState)
{
    return RIX_ENTRY_RECORD(RIX_ENTRY_ProcVrfStateBegin, classState, RIX_ENTRY_CLASS_STATE_SIZE);
}

uint32_t RIX_ENTRY_ProcVrfStateEnd(const void *classState, RIX_PLAT_MemAllocFunc memAlloc, RIX_PLAT_MemFreeFunc memFree)
{
    (void)memAlloc;
    (void)memFree;
    return RIX_ENTRY_RECORD(RIX_ENTRY_ProcVrfStateEnd, classState, RIX_ENTRY_CLASS_STATE_SIZE);
}

uint32_t RIX_ENTRY_ProcVrfState(const void *vrfState)
{
    return RIX_ENTRY_RECORD(RIX_ENTRY_ProcVrfState, vrfState, RIX_ENTRY_VRF_STATE_SIZE);
}

uint32_t RIX_ENTRY_ProcVrfDataBegin(const void *vrfClassData)
{
    return RIX_ENTRY_RECORD(RIX_ENTRY_ProcVrfDataBegin, vrfClassData, RIX_ENTRY_VRF_CLASS_DATA_SIZE);
}

uint32_t RIX_ENTRY_ProcVrfDataEnd(const void *vrfClassData)
{
    return RIX_ENTRY_RECORD(RIX_ENTRY_ProcVrfDataEnd, vrfClassData, RIX_ENTRY_VRF_CLASS_DATA_SIZE);
}

uint32_t RIX_ENTRY_ProcPidState(const void *pidState)
{
    return RIX_ENTRY_RECORD(RIX_ENTRY_ProcPidState, pidState, RIX_ENTRY_PID_STATE_SIZE);
}

uint32_t RIX_TEST_EntryCount(void)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    return static_cast<uint32_t>(g_calls.size());
}

const char *RIX_TEST_EntryCall(uint32_t i, const void **record, uint32_t *size)
{
    std::lock_guard<std::mutex> lock(g_mutex);
    if (i >= g_calls.size()) {
        return nullptr;
    }
    if (record != nullptr) {
        *record = g_calls[i].record.data();
    }
    if (size != nullptr) {
        *size = static_cast<uint32_t>(g_calls[i].record.size());
    }
    return g_calls[i].name;
}

}  // extern "C"
