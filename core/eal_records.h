// The records the library hands to the abstraction layer are the layer's own formats:
// the library's types must match them field for field on every architecture, so that a
// pointer to one can be passed as a pointer to the other.
#ifndef RIX_AS_CORE_EAL_RECORDS_H
#define RIX_AS_CORE_EAL_RECORDS_H

#include <cstddef>

#include "rix_as_orch.h"
#include "rix_eal.h"

#define ASORCH_SAME_FIELD(ours, theirs, f1, f2) \
    static_assert(offsetof(ours, f1) == offsetof(theirs, f2), #ours "." #f1 " is misplaced")

static_assert(sizeof(ASOrchEalCreatePara) == sizeof(RIX_EAL_CreatePara));
ASORCH_SAME_FIELD(ASOrchEalCreatePara, RIX_EAL_CreatePara, orchId, orchId);
ASORCH_SAME_FIELD(ASOrchEalCreatePara, RIX_EAL_CreatePara, ealPara1, para1);
ASORCH_SAME_FIELD(ASOrchEalCreatePara, RIX_EAL_CreatePara, ealPara2, para2);
ASORCH_SAME_FIELD(ASOrchEalCreatePara, RIX_EAL_CreatePara, memAlloc, memAlloc);
ASORCH_SAME_FIELD(ASOrchEalCreatePara, RIX_EAL_CreatePara, memFree, memFree);

static_assert(sizeof(ASOrchThreadCfg) == sizeof(RIX_EAL_ThreadCfg));
ASORCH_SAME_FIELD(ASOrchThreadCfg, RIX_EAL_ThreadCfg, threadId, threadId);
ASORCH_SAME_FIELD(ASOrchThreadCfg, RIX_EAL_ThreadCfg, threadName, threadName);
ASORCH_SAME_FIELD(ASOrchThreadCfg, RIX_EAL_ThreadCfg, threadAttr, threadAttr);

static_assert(sizeof(ASOrchChanPara) == sizeof(RIX_EAL_ChanPara));
ASORCH_SAME_FIELD(ASOrchChanPara, RIX_EAL_ChanPara, chanNo, chanNo);
ASORCH_SAME_FIELD(ASOrchChanPara, RIX_EAL_ChanPara, word1, word1);
ASORCH_SAME_FIELD(ASOrchChanPara, RIX_EAL_ChanPara, chanName, chanName);
ASORCH_SAME_FIELD(ASOrchChanPara, RIX_EAL_ChanPara, rsv10, rsv10);
ASORCH_SAME_FIELD(ASOrchChanPara, RIX_EAL_ChanPara, word18, word18);
ASORCH_SAME_FIELD(ASOrchChanPara, RIX_EAL_ChanPara, recvThreadId, recvThreadId);
ASORCH_SAME_FIELD(ASOrchChanPara, RIX_EAL_ChanPara, word20, word20);
ASORCH_SAME_FIELD(ASOrchChanPara, RIX_EAL_ChanPara, serverIpFunc, serverIpFunc);
ASORCH_SAME_FIELD(ASOrchChanPara, RIX_EAL_ChanPara, word22, word22);
ASORCH_SAME_FIELD(ASOrchChanPara, RIX_EAL_ChanPara, rsv23, rsv23);
ASORCH_SAME_FIELD(ASOrchChanPara, RIX_EAL_ChanPara, serverPort, serverPort);
ASORCH_SAME_FIELD(ASOrchChanPara, RIX_EAL_ChanPara, rsv24, rsv24);
ASORCH_SAME_FIELD(ASOrchChanPara, RIX_EAL_ChanPara, rsv25, rsv25);
ASORCH_SAME_FIELD(ASOrchChanPara, RIX_EAL_ChanPara, word27, word27);
ASORCH_SAME_FIELD(ASOrchChanPara, RIX_EAL_ChanPara, rsv28, rsv28);
ASORCH_SAME_FIELD(ASOrchChanPara, RIX_EAL_ChanPara, word29, word29);
ASORCH_SAME_FIELD(ASOrchChanPara, RIX_EAL_ChanPara, rsv30, rsv30);

static_assert(sizeof(ASOrchSyncGrpPara) == sizeof(RIX_EAL_SyncGrpPara));
ASORCH_SAME_FIELD(ASOrchSyncGrpPara, RIX_EAL_SyncGrpPara, grpId, grpId);
ASORCH_SAME_FIELD(ASOrchSyncGrpPara, RIX_EAL_SyncGrpPara, attr1, attr1);
ASORCH_SAME_FIELD(ASOrchSyncGrpPara, RIX_EAL_SyncGrpPara, attr2, attr2);
ASORCH_SAME_FIELD(ASOrchSyncGrpPara, RIX_EAL_SyncGrpPara, logicThreadId, logicThreadId);
ASORCH_SAME_FIELD(ASOrchSyncGrpPara, RIX_EAL_SyncGrpPara, commThreadId, commThreadId);
ASORCH_SAME_FIELD(ASOrchSyncGrpPara, RIX_EAL_SyncGrpPara, attr5, attr5);
ASORCH_SAME_FIELD(ASOrchSyncGrpPara, RIX_EAL_SyncGrpPara, attr6, attr6);
ASORCH_SAME_FIELD(ASOrchSyncGrpPara, RIX_EAL_SyncGrpPara, attr7, attr7);
ASORCH_SAME_FIELD(ASOrchSyncGrpPara, RIX_EAL_SyncGrpPara, attr8, attr8);
ASORCH_SAME_FIELD(ASOrchSyncGrpPara, RIX_EAL_SyncGrpPara, attr9, attr9);
ASORCH_SAME_FIELD(ASOrchSyncGrpPara, RIX_EAL_SyncGrpPara, verifyInterVal, verifyInterVal);
ASORCH_SAME_FIELD(ASOrchSyncGrpPara, RIX_EAL_SyncGrpPara, attr11, attr11);
ASORCH_SAME_FIELD(ASOrchSyncGrpPara, RIX_EAL_SyncGrpPara, attr12, attr12);
ASORCH_SAME_FIELD(ASOrchSyncGrpPara, RIX_EAL_SyncGrpPara, notifyFunc, notifyFunc);

static_assert(sizeof(ASOrchSynGrpFlowCtrl) == sizeof(RIX_EAL_FlowCtl));
ASORCH_SAME_FIELD(ASOrchSynGrpFlowCtrl, RIX_EAL_FlowCtl, word, word);

#undef ASORCH_SAME_FIELD

namespace asorch {

// The layer's view of a library record; valid because the layouts are pinned above.
inline const RIX_EAL_CreatePara *EalRecord(const ASOrchEalCreatePara *p)
{
    return reinterpret_cast<const RIX_EAL_CreatePara *>(p);
}
inline const RIX_EAL_ThreadCfg *EalRecord(const ASOrchThreadCfg *p)
{
    return reinterpret_cast<const RIX_EAL_ThreadCfg *>(p);
}
inline const RIX_EAL_ChanPara *EalRecord(const ASOrchChanPara *p)
{
    return reinterpret_cast<const RIX_EAL_ChanPara *>(p);
}
inline const RIX_EAL_SyncGrpPara *EalRecord(const ASOrchSyncGrpPara *p)
{
    return reinterpret_cast<const RIX_EAL_SyncGrpPara *>(p);
}
inline const RIX_EAL_FlowCtl *EalRecord(const ASOrchSynGrpFlowCtrl *p)
{
    return reinterpret_cast<const RIX_EAL_FlowCtl *>(p);
}

}  // namespace asorch

#endif
