/* Smoothing entry points, from librix_utils_smooth. Each takes the state record by
 * pointer and returns non-zero on failure. */
#ifndef RIX_ENTRY_H
#define RIX_ENTRY_H

#include "rix_plat_common.h"

RIX_PLAT_EXTERN_C_BEGIN

/* Sizes of the records handed to the entry points. */
#define RIX_ENTRY_CLASS_STATE_SIZE 12u
#define RIX_ENTRY_VRF_STATE_SIZE 72u
#define RIX_ENTRY_VRF_CLASS_DATA_SIZE 24u
#define RIX_ENTRY_PID_STATE_SIZE 12u

RIX_PLAT_API uint32_t RIX_ENTRY_ProcVrfStateBegin(const void *classState);
RIX_PLAT_API uint32_t RIX_ENTRY_ProcVrfStateEnd(const void *classState, RIX_PLAT_MemAllocFunc memAlloc,
                                                RIX_PLAT_MemFreeFunc memFree);
RIX_PLAT_API uint32_t RIX_ENTRY_ProcVrfState(const void *vrfState);
RIX_PLAT_API uint32_t RIX_ENTRY_ProcVrfDataBegin(const void *vrfClassData);
RIX_PLAT_API uint32_t RIX_ENTRY_ProcVrfDataEnd(const void *vrfClassData);
RIX_PLAT_API uint32_t RIX_ENTRY_ProcPidState(const void *pidState);

RIX_PLAT_EXTERN_C_END

#endif
