/* Environment abstraction layer and unicast channels, from librix_utils_eal. */
#ifndef RIX_EAL_H
#define RIX_EAL_H

#include "rix_plat_common.h"

RIX_PLAT_EXTERN_C_BEGIN

/* Records are formats of the layer; a caller's record must have exactly these layouts. */

typedef struct RIX_EAL_CreatePara {
    uint32_t orchId;
    uint32_t para1;
    uint32_t para2;
    RIX_PLAT_MemAllocFunc memAlloc;
    RIX_PLAT_MemFreeFunc memFree;
} RIX_EAL_CreatePara;

typedef struct RIX_EAL_ThreadCfg {
    uint32_t threadId; /* 0 DATA, 1 SYNC, 2 EVENT */
    char threadName[32];
    uint32_t threadAttr;
} RIX_EAL_ThreadCfg;

typedef uint32_t (*RIX_EAL_ServerIpFunc)(void);

typedef struct RIX_EAL_ChanPara {
    uint32_t chanNo; /* 0 DAM, 1 FES, 2 UP, 3 EVT */
    uint32_t word1;
    char chanName[32];
    uint32_t rsv10[8];
    uint32_t word18;
    uint32_t recvThreadId;
    uint32_t word20;
    RIX_EAL_ServerIpFunc serverIpFunc;
    uint32_t word22;
    uint32_t rsv23;
    uint16_t serverPort; /* network byte order */
    uint16_t rsv24;
    uint32_t rsv25[2];
    uint32_t word27;
    uint32_t rsv28;
    uint32_t word29;
    uint32_t rsv30[9];
} RIX_EAL_ChanPara;

typedef struct RIX_EAL_SyncGrpPara {
    uint32_t grpId;
    uint32_t attr1;
    uint32_t attr2;
    uint32_t logicThreadId;
    uint32_t commThreadId;
    uint32_t attr5;
    uint32_t attr6;
    uint32_t attr7;
    uint32_t attr8;
    uint32_t attr9;
    uint32_t verifyInterVal;
    uint32_t attr11;
    uint32_t attr12;
    void (*notifyFunc)(void);
} RIX_EAL_SyncGrpPara;

typedef struct RIX_EAL_FlowCtl {
    uint32_t word[12];
} RIX_EAL_FlowCtl;

/* A message of RIX_EAL_SyncMsg: the caller's bytes, copied by the layer. */
typedef struct RIX_EAL_SyncItem {
    const void *data;
    uint32_t len;
} RIX_EAL_SyncItem;

RIX_PLAT_API void *RIX_EAL_Create(const char *name, const RIX_EAL_CreatePara *para);
RIX_PLAT_API uint32_t RIX_EAL_Init(void *eal);
RIX_PLAT_API uint32_t RIX_EAL_Start(void *eal);
RIX_PLAT_API uint32_t RIX_EAL_ModInitOk(void *eal);
RIX_PLAT_API void RIX_EAL_Destroy(void *eal);
RIX_PLAT_API int32_t RIX_EAL_GetEpollFd(void *eal, uint32_t threadId);
RIX_PLAT_API uint32_t RIX_EAL_SetOndemandParam(void *eal, uint32_t word0, uint32_t word1);
RIX_PLAT_API uint32_t RIX_EAL_RegModStateRsp(void *eal, uint32_t word0, uint32_t word1);
RIX_PLAT_API uint32_t RIX_EAL_RegUcChannel(void *eal, const RIX_EAL_ChanPara *para, uint32_t count);
RIX_PLAT_API uint32_t RIX_EAL_RegThread(void *eal, const RIX_EAL_ThreadCfg *cfg, uint32_t count);
RIX_PLAT_API uint32_t RIX_EAL_SelfRoleIsMb(void *eal);
RIX_PLAT_API uint32_t RIX_EAL_ReservePort(void *eal, uint32_t word0, uint32_t word1);
RIX_PLAT_API void *RIX_EAL_GetChannelHdl(void *eal, uint32_t chanNo);
RIX_PLAT_API uint32_t RIX_EAL_RegSyncGroup(void *eal, const RIX_EAL_SyncGrpPara *rows, uint32_t count);
RIX_PLAT_API uint32_t RIX_EAL_RegSyncGrpMsgSet(void *eal, uint32_t grpId, uint32_t msgSet);
RIX_PLAT_API uint32_t RIX_EAL_SetSyncGrpFlowCtl(void *eal, uint32_t grpId, const RIX_EAL_FlowCtl *flowCtl);
/* msgs: an array of count RIX_EAL_SyncItem. */
RIX_PLAT_API uint32_t RIX_EAL_SyncMsg(void *eal, uint32_t grpId, void *msgs, uint32_t count);
RIX_PLAT_API uint32_t RIX_EAL_SyncBackPress(void *eal, uint32_t grpId);
RIX_PLAT_API uint32_t RIX_EAL_SyncUnBackPress(void *eal, uint32_t grpId);

/* Channels: 0 on success. */
RIX_PLAT_API uint32_t RIX_CHAN_USendMsg(void *chan, uint32_t addr, uint32_t port, void *msg, uint32_t len);
RIX_PLAT_API uint32_t RIX_CHAN_BackPress(void *chan);
RIX_PLAT_API uint32_t RIX_CHAN_UnBackPress(void *chan);

RIX_PLAT_EXTERN_C_END

#endif
