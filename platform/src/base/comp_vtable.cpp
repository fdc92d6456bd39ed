// The "orchpub" component table and its test control.
#include <array>
#include <atomic>

#include "comp_vtable.h"
#include "base/op_hit.h"
#include "rix_platform_test.h"

namespace {

constexpr uint32_t kDefaultSlot = 1;
constexpr uint32_t kDefaultCpu = 0;
constexpr uint32_t kDefaultOrchId = 5;
constexpr uint32_t kCallFails = 5;

std::atomic<int> g_mode{RIX_TEST_ORCHPUB_OK};
std::atomic<uint32_t> g_slot{kDefaultSlot};
std::atomic<uint32_t> g_cpu{kDefaultCpu};
std::atomic<uint32_t> g_orchId{kDefaultOrchId};

uint32_t GetSlot()
{
    return g_slot.load();
}
uint32_t GetCpu()
{
    return g_cpu.load();
}
uint32_t GetOrchIdBySlotAndCpu(uint32_t slot, uint32_t cpu, uint32_t *orchId)
{
    (void)slot;
    (void)cpu;
    if (orchId == nullptr) {
        return 1;
    }
    *orchId = g_orchId.load();
    return 0;
}

std::array<COMP_VFunc, ORCHPUB_VT_SIZE> MakeTable(bool withEntry18)
{
    std::array<COMP_VFunc, ORCHPUB_VT_SIZE> t{};
    t[ORCHPUB_VT_GET_SLOT] = reinterpret_cast<COMP_VFunc>(&GetSlot);
    t[ORCHPUB_VT_GET_CPU] = reinterpret_cast<COMP_VFunc>(&GetCpu);
    if (withEntry18) {
        t[ORCHPUB_VT_GET_ORCHID_BY_SLOT_CPU] = reinterpret_cast<COMP_VFunc>(&GetOrchIdBySlotAndCpu);
    }
    return t;
}

const std::array<COMP_VFunc, ORCHPUB_VT_SIZE> g_table = MakeTable(true);
const std::array<COMP_VFunc, ORCHPUB_VT_SIZE> g_tableNo18 = MakeTable(false);

void ResetOrchPub()
{
    RIX_TEST_SetOrchPub(RIX_TEST_ORCHPUB_OK, kDefaultSlot, kDefaultCpu, kDefaultOrchId);
}

[[maybe_unused]] const bool g_registered = [] {
    RixPlatInternal_AddResetHook(ResetOrchPub);
    return true;
}();

}  // namespace

extern "C" {

uint32_t COMP_GetVTable(uint32_t compId, uint32_t vtId, const COMP_VFunc **table)
{
    if (rixplat::HitFast(rixplat::Op_COMP_GetVTable) || table == nullptr) {
        return kCallFails;
    }
    if (compId != COMP_ID_ORCHPUB || vtId != COMP_VT_ORCHPUB) {
        return kCallFails;
    }
    switch (g_mode.load()) {
        case RIX_TEST_ORCHPUB_CALL_FAILS:
            return kCallFails;
        case RIX_TEST_ORCHPUB_NO_TABLE:
            *table = nullptr;
            return 0;
        case RIX_TEST_ORCHPUB_NO_ENTRY18:
            *table = g_tableNo18.data();
            return 0;
        default:
            *table = g_table.data();
            return 0;
    }
}

void RIX_TEST_SetOrchPub(int mode, uint32_t slot, uint32_t cpu, uint32_t orchId)
{
    g_slot.store(slot);
    g_cpu.store(cpu);
    g_orchId.store(orchId);
    g_mode.store(mode);
}

}  // extern "C"
