/* Table messages: registry, message entry, table parsing, dispatch and versions. */
#ifndef RIX_AS_TBLMSG_H
#define RIX_AS_TBLMSG_H

#include "rix_as_common.h"

ASORCH_EXTERN_C_BEGIN

/* Transfer message ids: msgId & ~0xF == ASORCH_TRANS_MSGID_BASE. */
#define ASORCH_TRANS_MSGID_BASE 0x7F7F7F70u

/* What a module hands to ASOrchMsgProc. */
typedef struct ASOrchMsg {
    void *data;     /* the body */
    uint32_t msgId;
    uint32_t len;   /* body length, header included */
} ASOrchMsg;

/* The unit the merge layer stores, merges and dispatches. */
typedef struct ASOrchMsgVec {
    uint32_t msgId;
    uint32_t opType;   /* 0 to 3 */
    void *key;
    uint32_t keyLen;
    void *data;
    uint32_t dataLen;
    uint32_t version;
    void *usrData;     /* the handle that owns a stored copy */
} ASOrchMsgVec;

typedef struct ASOrchIpcBuf {
    uint32_t ipcNum;
    void *ipcBuf;
    uint32_t ipcSize;
} ASOrchIpcBuf;

typedef struct ASOrchUnpackResult {
    uint32_t opType;
    uint32_t ipcNum;
    void *ipcBuf;
} ASOrchUnpackResult;

typedef struct ASOrchTblProcInfo {
    uint32_t version;
    uint32_t procParam;
    uint32_t tlvType;
} ASOrchTblProcInfo;

typedef void (*ASOrchUnpackFunc)(void *data, uint32_t len, ASOrchUnpackResult *result, ASOrchMsg *msg);
typedef void (*ASOrchUnpackFreeFunc)(ASOrchUnpackResult *result);
typedef uint32_t (*ASOrchRecvProcFunc)(ASOrchHandle *handle, void *records, uint32_t num,
                                       ASOrchTblProcInfo *info);
typedef uint32_t (*ASOrchTblMsgProcFunc)(ASOrchHandle *handle, void *tables, uint32_t nums, uint32_t tblSize,
                                         ASOrchTblProcInfo *info);
/* Smoothing callback: the item's tableId and optType, the record (null for DAM class data)
 * and its size. */
typedef uint32_t (*ASOrchSmoothCbFunc)(uint32_t tableId, uint32_t optType, void *record, uint32_t size);

/* A registration list inside the base parameters. */
typedef struct ASOrchTblMsgList {
    void *entries;
    uint32_t count;
} ASOrchTblMsgList;

typedef struct ASOrchTblMsgRecvCtrl {
    uint32_t mergeMsgId;
    uint32_t msgId;
    uint32_t opType;
    ASOrchUnpackFunc unpackFunc;
    ASOrchUnpackFreeFunc unpackFreeFunc;
    uint32_t ipcSize;
    uint32_t mergeType;
    ASOrchRecvProcFunc userDefProc;
    uint32_t mergeOpType;
    uint32_t keySize;
    uint32_t version;  /* kept by the registry */
} ASOrchTblMsgRecvCtrl;

typedef struct ASOrchTblMsgTransCtrl {
    uint32_t tableId;
    uint32_t tblSize;
    ASOrchSmoothCbFunc smoothPreProc;
    ASOrchSmoothCbFunc smoothProc;
    uint32_t procParam;
    ASOrchTblMsgProcFunc tblMsgProc;
    uint32_t isFes;    /* set by the registry */
    uint32_t version;  /* kept by the registry */
} ASOrchTblMsgTransCtrl;

ASORCH_LAYOUT_ASSERT(sizeof(ASOrchMsgVec) == 32, "ASOrchMsgVec is eight words");
ASORCH_LAYOUT_ASSERT(sizeof(ASOrchTblMsgRecvCtrl) == 44, "recv control record is eleven words");
ASORCH_LAYOUT_ASSERT(sizeof(ASOrchTblMsgTransCtrl) == 32, "trans control record is eight words");

/* Base-registration steps "ReservePort" and "TblMsg", and the release of both registries. */
struct ASOrchBasePara;
ASORCH_API uint32_t ASOrchReservePort(ASOrchHandle *handle, struct ASOrchBasePara *para);
ASORCH_API uint32_t ASOrchRegTblMsg(ASOrchHandle *handle, struct ASOrchBasePara *para);
ASORCH_API void ASOrchFreeTblMsg(ASOrchHandle *handle);

ASORCH_EXTERN_C_END

#endif
