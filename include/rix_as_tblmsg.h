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
    void *entries;     /* ASOrchTblMsgRecvReg or ASOrchTblMsgTransReg elements */
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

/* The elements of a module's registration arrays: the control records without the fields
 * that the registry keeps. */
typedef struct ASOrchTblMsgRecvReg {
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
} ASOrchTblMsgRecvReg;

typedef struct ASOrchTblMsgTransReg {
    uint32_t tableId;
    uint32_t tblSize;
    ASOrchSmoothCbFunc smoothPreProc;
    ASOrchSmoothCbFunc smoothProc;
    uint32_t procParam;
    ASOrchTblMsgProcFunc tblMsgProc;
} ASOrchTblMsgTransReg;

ASORCH_LAYOUT_ASSERT(sizeof(ASOrchTblMsgRecvReg) == 40, "recv registration element is ten words");
ASORCH_LAYOUT_ASSERT(sizeof(ASOrchTblMsgTransReg) == 24, "trans registration element is six words");
ASORCH_LAYOUT_ASSERT(sizeof(ASOrchMsgVec) == 32, "ASOrchMsgVec is eight words");
ASORCH_LAYOUT_ASSERT(sizeof(ASOrchTblMsgRecvCtrl) == 44, "recv control record is eleven words");
ASORCH_LAYOUT_ASSERT(sizeof(ASOrchTblMsgTransCtrl) == 32, "trans control record is eight words");
ASORCH_LAYOUT_ASSERT(sizeof(ASOrchTblProcInfo) == 12, "info record is three words");

/* One TLV of a transfer message: a 12-byte header, then tlvLen value bytes. */
typedef struct ASOrchTransTlv {
    uint32_t tableId;
    uint32_t tlvType;  /* 1, 2 plain table; 18, 19 composite; anything else smoothing */
    uint32_t tlvLen;   /* value bytes, header not included */
} ASOrchTransTlv;

#define ASORCH_TLV_HDR_LEN 12u
#define ASORCH_TLV_PLAIN 1u
#define ASORCH_TLV_PLAIN_SINGLE 2u
#define ASORCH_TLV_COMP 18u
#define ASORCH_TLV_COMP2 19u
/* Body of a transfer message: 8-byte header, TLV area length, TLVs. */
#define ASORCH_TRANS_AREA_OFFSET 8u
#define ASORCH_TRANS_TLV_OFFSET 12u
/* Body of a recv message that is not serially packed: 8-byte header, then records. */
#define ASORCH_RECV_HDR_LEN 8u
#define ASORCH_TBLMSG_HASH_BUCKETS 128u

/* The user-defined path: the function and the info it is given. */
typedef struct ASOrchIpcUserDef {
    ASOrchRecvProcFunc proc;
    ASOrchTblProcInfo info;
} ASOrchIpcUserDef;

/* Called for every record of an IPC buffer; arg is the caller's. */
typedef uint32_t (*ASOrchIpcRecordFunc)(void *record, ASOrchHandle *handle, void *arg);

/* The argument of ASOrchProc1IpcMque: the vector reused for every record and the merge type. */
typedef struct ASOrchIpcMqueArg {
    ASOrchMsgVec *vec;
    uint32_t mergeType;
} ASOrchIpcMqueArg;

/* Base-registration steps "ReservePort" and "TblMsg", and the release of both registries. */
struct ASOrchBasePara;
ASORCH_API uint32_t ASOrchReservePort(ASOrchHandle *handle, struct ASOrchBasePara *para);
ASORCH_API uint32_t ASOrchRegTblMsg(ASOrchHandle *handle, struct ASOrchBasePara *para);
ASORCH_API void ASOrchFreeTblMsg(ASOrchHandle *handle);

/* Registry. A list is used when count is non-zero and entries non-null. */
ASORCH_API uint32_t ASOrchTblMsgRecvIsValid(const ASOrchTblMsgList *list);
ASORCH_API uint32_t ASOrchTblMsgTransIsExist(const ASOrchTblMsgList *list);
ASORCH_API uint32_t ASOrchRegTblMsgRecv(ASOrchHandle *handle, struct ASOrchBasePara *para);
ASORCH_API uint32_t ASOrchRegTblMsgTrans(ASOrchHandle *handle, struct ASOrchBasePara *para);
ASORCH_API uint32_t ASOrchInitTblMsgRecvHash(ASOrchHandle *handle, const ASOrchTblMsgList *list);
ASORCH_API uint32_t ASOrchInitTblMsgTransHash(ASOrchHandle *handle, const ASOrchTblMsgList *list, uint32_t isFes);
ASORCH_API uint32_t ASOrchFillTblMsgRecvHashTable(ASOrchHandle *handle, void *hash, const ASOrchTblMsgList *list);
ASORCH_API uint32_t ASOrchFillTblMsgTransHashTable(ASOrchHandle *handle, void *hash, const ASOrchTblMsgList *list,
                                                   uint32_t isFes);
ASORCH_API void *ASOrchGetTblMsgHashData(void *hash, const uint32_t *key);
ASORCH_API ASOrchTblMsgRecvCtrl *ASOrchGetTblMsgRecv(ASOrchHandle *handle, uint32_t msgId);
ASORCH_API ASOrchTblMsgTransCtrl *ASOrchGetTblMsgTrans(ASOrchHandle *handle, uint32_t tableId);

/* Message entry of recv messages. */
ASORCH_API uint32_t ASOrchMsgDispatchProc(ASOrchTblMsgRecvCtrl *ctrl, ASOrchMsg *msg, ASOrchHandle *handle);
ASORCH_API uint32_t ORCH_AutoSyncMsgProcUnSerialPack(ASOrchTblMsgRecvCtrl *ctrl, ASOrchMsg *msg,
                                                     ASOrchHandle *handle);
ASORCH_API uint32_t ORCH_AutoSyncMsgProcSerialPack(ASOrchTblMsgRecvCtrl *ctrl, ASOrchMsg *msg, ASOrchHandle *handle);
ASORCH_API void ORCH_AutoSyncProcMqueOrUserDef(ASOrchTblMsgRecvCtrl *ctrl, ASOrchIpcBuf *ipcBuf,
                                               ASOrchHandle *handle);
ASORCH_API void ASOrchProcIpcUserDef(ASOrchHandle *handle, ASOrchIpcBuf *ipcBuf, ASOrchIpcUserDef *userDef);
ASORCH_API void ORCH_AutoSyncProcIpcBuf(ASOrchIpcBuf *ipcBuf, ASOrchHandle *handle, ASOrchIpcRecordFunc fn,
                                        void *arg);
ASORCH_API void ORCH_AutoSyncFillMergeMsgVec(ASOrchMsgVec *vec, const ASOrchTblMsgRecvCtrl *ctrl, uint32_t version);
ASORCH_API uint32_t ASOrchProc1IpcMque(void *record, ASOrchHandle *handle, void *arg);

/* Table pack parsing. The TLV's value must lie inside tlvLen readable bytes. */
ASORCH_API void ASOrchTransTblParsePack(ASOrchHandle *handle, const ASOrchTransTlv *tlv,
                                        const ASOrchTblMsgTransCtrl *ctrl);
ASORCH_API void ASOrchFesTblParsePack(ASOrchHandle *handle, const ASOrchTransTlv *tlv,
                                      const ASOrchTblMsgTransCtrl *ctrl);
ASORCH_API void ASOrchDamTblParsePack(ASOrchHandle *handle, const ASOrchTransTlv *tlv,
                                      const ASOrchTblMsgTransCtrl *ctrl);
ASORCH_API void ASOrchTransCompTblParsePack(ASOrchHandle *handle, const ASOrchTransTlv *tlv,
                                            const ASOrchTblMsgTransCtrl *ctrl);
ASORCH_API uint32_t ASOrchFesTblSize(const ASOrchTransTlv *tlv, const ASOrchTblMsgTransCtrl *ctrl);
ASORCH_API uint32_t ASOrchDamTblSize(const ASOrchTransTlv *tlv, const ASOrchTblMsgTransCtrl *ctrl);

/* Dispatch, versions and the channel senders. */
ASORCH_API uint32_t ASOrchMsgProc(ASOrchHandle *handle, ASOrchMsg *msg);
ASORCH_API uint32_t ASOrchMsgIsValid(ASOrchHandle *handle, ASOrchMsg *msg);
ASORCH_API uint32_t ASOrchMsgRecvProc(ASOrchHandle *handle, ASOrchMsg *msg);
ASORCH_API uint32_t ASOrchMsgTransProc(ASOrchHandle *handle, ASOrchMsg *msg);
ASORCH_API uint32_t ASOrchMsgInfoProc(ASOrchHandle *handle, const ASOrchTransTlv *tlv);
ASORCH_API uint32_t ASOrchIncTblMsgVersion(ASOrchHandle *handle, uint32_t msgId, uint32_t *version);
ASORCH_API uint32_t ASOrchIncTransTblMsgVersion(ASOrchHandle *handle, uint32_t tableId, uint32_t *version);
ASORCH_API uint32_t ASOrchFesChanMsgVec(ASOrchHandle *handle, void *msg, uint32_t len);
ASORCH_API uint32_t ASOrchDamChanMsgVec(ASOrchHandle *handle, void *msg, uint32_t len);
ASORCH_API uint32_t ASOrchFesDamChanMsgVec(ASOrchHandle *handle, void *msg, uint32_t len, uint32_t chanType);

ASORCH_EXTERN_C_END

#endif
