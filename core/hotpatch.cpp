// The hook through which the platform's patch framework drives the reserved "c2h" slot.
#include <cstring>

#include "rix_as_orch.h"

namespace {

constexpr size_t kPatchLibNameOffset = 397u;  // in the framework's patch descriptor
constexpr char kThisLibrary[] = "librix_autosync_orch.so";
constexpr int32_t kPatchActivate = 0;
constexpr int32_t kPatchDeactivate = 1;

}  // namespace

extern "C" {

ASORCH_API void librix_autosync_orch_ResPatchC2hActivefunc(void)
{
    RIX_AUTOSYNC_RixLog(ASORCH_LOG_INFO, "librix_autosync_orch reserved patch c2h active.");
}

ASORCH_API void librix_autosync_orch_ResPatchC2hDeactivefunc(void)
{
    RIX_AUTOSYNC_RixLog(ASORCH_LOG_INFO, "librix_autosync_orch reserved patch c2h deactive.");
}

ASORCH_API int32_t librix_autosync_orch_PAT_C2HSyncHookFunc(int32_t operCode, uint32_t /* unused */, void *patchDesc,
                                                            uint32_t *handled)
{
    if (handled != nullptr) {
        *handled = 0u;
    }
    if (patchDesc == nullptr) {
        return 0;
    }
    // Bounded by our own name and its terminator: nothing past that is read of the field.
    const char *libName = static_cast<const char *>(patchDesc) + kPatchLibNameOffset;
    if (strncmp(libName, kThisLibrary, sizeof(kThisLibrary)) != 0) {
        return 0;
    }
    int32_t result = 0;
    switch (operCode) {
        case kPatchActivate:
            librix_autosync_orch_ResPatchC2hActivefunc();
            break;
        case kPatchDeactivate:
            librix_autosync_orch_ResPatchC2hDeactivefunc();
            break;
        default:
            RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR,
                                "librix_autosync_orch c2h active or deactive oper failed, operCode %d", operCode);
            result = 1;
            break;
    }
    if (handled != nullptr) {
        *handled = 1u;
    }
    return result;
}
}
