// Shared between the three stand-in libraries: the operation table used for call counts and
// failure injection, and the reset hooks. Lives in librix_utils_base.
#ifndef RIX_PLAT_INTERNAL_H
#define RIX_PLAT_INTERNAL_H

#include <cstdint>

#include "rix_plat_common.h"

// clang-format off
#define RIX_PLAT_OPS(X)                                                                           \
    X(memcpy_s) X(memset_s) X(strcpy_s) X(strcat_s) X(sprintf_s) X(vsprintf_s)                    \
    X(FRM_DiagLogWrite) X(COMP_GetVTable)                                                         \
    X(LITE_HASH_CreateWithLock) X(LITE_HASH_DeleteHash) X(LITE_HASH_NewData) X(LITE_HASH_FreeData) \
    X(LITE_HASH_AddNode) X(LITE_HASH_FindNodeFromFirst) X(LITE_HASH_RemoveNodeByKey)              \
    X(LITE_HASH_GetListCntByKey) X(LITE_HASH_GetHashCnt)                                          \
    X(ZUL_AVL3_Find) X(ZUL_AVL3_Insert_Or_Find) X(ZUL_AVL3_Delete) X(ZUL_AVL3_First) X(ZUL_AVL3_Next) \
    X(RIX_EPOLL_Add) X(RIX_EPOLL_DEL) X(eventfd_s) X(RIX_TIMER_Create)                            \
    X(RIX_EAL_Create) X(RIX_EAL_Init) X(RIX_EAL_Start) X(RIX_EAL_ModInitOk) X(RIX_EAL_Destroy)     \
    X(RIX_EAL_GetEpollFd) X(RIX_EAL_SetOndemandParam) X(RIX_EAL_RegModStateRsp)                   \
    X(RIX_EAL_RegUcChannel) X(RIX_EAL_RegThread) X(RIX_EAL_SelfRoleIsMb) X(RIX_EAL_ReservePort)   \
    X(RIX_EAL_GetChannelHdl) X(RIX_EAL_RegSyncGroup) X(RIX_EAL_RegSyncGrpMsgSet)                  \
    X(RIX_EAL_SetSyncGrpFlowCtl) X(RIX_EAL_SyncMsg) X(RIX_EAL_SyncBackPress)                      \
    X(RIX_EAL_SyncUnBackPress)                                                                    \
    X(RIX_CHAN_USendMsg) X(RIX_CHAN_BackPress) X(RIX_CHAN_UnBackPress)                            \
    X(RIX_ENTRY_ProcVrfStateBegin) X(RIX_ENTRY_ProcVrfStateEnd) X(RIX_ENTRY_ProcVrfState)         \
    X(RIX_ENTRY_ProcVrfDataBegin) X(RIX_ENTRY_ProcVrfDataEnd) X(RIX_ENTRY_ProcPidState)
// clang-format on

namespace rixplat {

#define RIX_PLAT_OP_ENUM(name) Op_##name,
enum OpId : uint32_t { RIX_PLAT_OPS(RIX_PLAT_OP_ENUM) OpCount };
#undef RIX_PLAT_OP_ENUM

}  // namespace rixplat

extern "C" {
// Counts one call of op; true when the call must fail. For the other libraries; the base
// library counts inline (base/op_hit.h).
RIX_PLAT_API bool RixPlatInternal_Hit(uint32_t op);
// Called by RIX_TEST_Reset, in registration order (each library registers its own state).
typedef void (*RixPlatInternal_ResetHook)(void);
RIX_PLAT_API void RixPlatInternal_AddResetHook(RixPlatInternal_ResetHook hook);
}

namespace rixplat {
inline bool Hit(OpId op)
{
    return RixPlatInternal_Hit(op);
}
}  // namespace rixplat

#endif
