/* Table messages: registry, message entry, table parsing, dispatch and versions. */
#ifndef RIX_AS_TBLMSG_H
#define RIX_AS_TBLMSG_H

#include "rix_as_common.h"

ASORCH_EXTERN_C_BEGIN

/* Transfer message ids: msgId & ~0xF == ASORCH_TRANS_MSGID_BASE. */
#define ASORCH_TRANS_MSGID_BASE 0x7F7F7F70u

/* What a module hands to ASOrchMsgProc; the library keeps neither the record nor the body.
 * The body of a receive message (any msgId outside the transfer ids) without unpackFunc:
 *     offset 0: 8-byte header, written by the sender and not read here;
 *     offset 8: the records, ipcSize bytes each, back to back.
 * The record count is (len - 8) / ipcSize; len - 8 must be an exact multiple of ipcSize, or
 * the message is refused (1, "msgLen is not multi of ipcSize, len = %u, size = %u."). A body
 * of exactly 8 bytes holds no record and succeeds. With unpackFunc the whole body, header
 * included, goes to unpackFunc and its layout is the module's.
 * The body of a transfer message: 8-byte header, the TLV area length (u32 at offset 8, at
 * least 12), then ASOrchTransTlv records back to back. All integers in host byte order. */
typedef struct ASOrchMsg {
    void *data; /* the body */
    uint32_t msgId;
    uint32_t len; /* body length, header included */
} ASOrchMsg;

/* The unit the merge layer stores, merges and dispatches: one record. Two vectors have the
 * same key when msgId, version, keyLen and the keyLen key bytes are equal. A vector built
 * from a message points into the body (key and data both at the record's start); the merge
 * layer copies key and data into one block before it queues one, and releases that block
 * after msgProc returns. In msgProc the vector and its block are valid during the call only. */
typedef struct ASOrchMsgVec {
    uint32_t msgId;   /* the receive registration's mergeMsgId */
    uint32_t opType;  /* 0 to 3: 0 add/set, 1 delete, 2 delete then set (made only by a
                       * merge), 3 age information (never merged); see g_ASOrchMergeRules */
    void *key;        /* the record's first keyLen bytes */
    uint32_t keyLen;  /* the registration's keySize; 0 is refused by the merge layer */
    void *data;       /* the whole record */
    uint32_t dataLen; /* the registration's ipcSize */
    uint32_t version; /* the registration's version; vectors of different versions never merge */
    void *usrData;    /* the handle that owns a stored copy; null in a vector not stored */
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

/* A serially packed body: unpackFunc gets the whole body and a zeroed result to fill with
 * the opType found (it must equal the registration's opType, else the message fails) and
 * ipcNum records of the registration's ipcSize at ipcBuf. Its return value is not used.
 * unpackFreeFunc releases what it produced; it is called exactly once per unpackFunc call,
 * after the records were routed or on an opType mismatch. Both run on the ASOrchMsgProc
 * thread. */
typedef void (*ASOrchUnpackFunc)(void *data, uint32_t len, ASOrchUnpackResult *result, ASOrchMsg *msg);
typedef void (*ASOrchUnpackFreeFunc)(ASOrchUnpackResult *result);
/* userDefProc: all records of one message at once (num may be 0), in place in the body or
 * the unpack result; the module knows its own ipcSize. info: {version, procParam = the
 * registration's mergeType, tlvType = 0}. Non-zero is only logged. Runs on the ASOrchMsgProc
 * thread. */
typedef uint32_t (*ASOrchRecvProcFunc)(ASOrchHandle *handle, void *records, uint32_t num, ASOrchTblProcInfo *info);
/* tblMsgProc: the entries of one TLV in place in the body: nums entries of tblSize bytes.
 * For a composite table (TLV type 18, 19) tables points at the TLV header and tblSize is the
 * whole TLV's length, nums 1. info: {version, the registration's procParam, the TLV's type}.
 * Non-zero is only logged. Runs on the ASOrchMsgProc thread. */
typedef uint32_t (*ASOrchTblMsgProcFunc)(ASOrchHandle *handle, void *tables, uint32_t nums, uint32_t tblSize,
                                         ASOrchTblProcInfo *info);
/* Smoothing callback: the item's tableId and optType, the record (null for DAM class data)
 * and its size. smoothPreProc runs before the platform's smoothing entry point, smoothProc
 * instead of it (see rix_as_smooth.h). */
typedef uint32_t (*ASOrchSmoothCbFunc)(uint32_t tableId, uint32_t optType, void *record, uint32_t size);

/* A registration list inside the base parameters; used when count is non-zero and entries
 * non-null, skipped silently otherwise. The elements are copied at registration. */
typedef struct ASOrchTblMsgList {
    void *entries; /* ASOrchTblMsgRecvReg or ASOrchTblMsgTransReg elements */
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
    uint32_t version; /* kept by the registry */
} ASOrchTblMsgRecvCtrl;

typedef struct ASOrchTblMsgTransCtrl {
    uint32_t tableId;
    uint32_t tblSize;
    ASOrchSmoothCbFunc smoothPreProc;
    ASOrchSmoothCbFunc smoothProc;
    uint32_t procParam;
    ASOrchTblMsgProcFunc tblMsgProc;
    uint32_t isFes;   /* set by the registry */
    uint32_t version; /* kept by the registry */
} ASOrchTblMsgTransCtrl;

/* The elements of a module's registration arrays: the control records without the fields
 * that the registry keeps. Only a duplicate msgId or tableId fails registration. A receive
 * record with ipcSize 0, or without userDefProc and with keySize above ipcSize, is accepted
 * with the line "%s, recv msgId %u: record size %u, key size %u, its messages will be
 * refused." and every message of its msgId then fails in ASOrchMsgProc; a merge type 0 to 3
 * with keySize 0 is accepted with "%s, recv msgId %u: key size is 0, its records cannot be
 * merged." and each of its records is dropped. */
typedef struct ASOrchTblMsgRecvReg {
    uint32_t mergeMsgId;                 /* msgId of the records' vectors (the ASOrchMergeMsg id) */
    uint32_t msgId;                      /* the message's id: the registry key */
    uint32_t opType;                     /* what unpackFunc must report; unused without it */
    ASOrchUnpackFunc unpackFunc;         /* null: plain body (8-byte header, then records) */
    ASOrchUnpackFreeFunc unpackFreeFunc; /* required with unpackFunc */
    uint32_t ipcSize;                    /* bytes of one record; must be non-zero */
    uint32_t mergeType;                  /* 0 to 3: into the merge queue (bit 0: FES, else DAM;
                                          * 2, 3: an update moves to the tail); 4: at once via
                                          * the DAM message table; 5 and up: at once via FES */
    ASOrchRecvProcFunc userDefProc;      /* set: all records go here instead of the merge layer */
    uint32_t mergeOpType;                /* 0: vectors get opType 0 (add/set); else 1 (delete) */
    uint32_t keySize;                    /* the key: the first keySize bytes of each record; not
                                          * above ipcSize, and non-zero when records are merged */
} ASOrchTblMsgRecvReg;

typedef struct ASOrchTblMsgTransReg {
    uint32_t tableId;                 /* the TLVs' tableId: the registry key */
    uint32_t tblSize;                 /* bytes of one entry of a type-1 TLV */
    ASOrchSmoothCbFunc smoothPreProc; /* may be null */
    ASOrchSmoothCbFunc smoothProc;    /* may be null */
    uint32_t procParam;               /* handed to tblMsgProc in info */
    ASOrchTblMsgProcFunc tblMsgProc;  /* null: the table's TLVs are logged and skipped */
} ASOrchTblMsgTransReg;

ASORCH_LAYOUT_ASSERT(sizeof(ASOrchTblMsgRecvReg) == 40, "recv registration element is ten words");
ASORCH_LAYOUT_ASSERT(sizeof(ASOrchTblMsgTransReg) == 24, "trans registration element is six words");
ASORCH_LAYOUT_ASSERT(sizeof(ASOrchMsgVec) == 32, "ASOrchMsgVec is eight words");
ASORCH_LAYOUT_ASSERT(sizeof(ASOrchTblMsgRecvCtrl) == 44, "recv control record is eleven words");
ASORCH_LAYOUT_ASSERT(sizeof(ASOrchTblMsgTransCtrl) == 32, "trans control record is eight words");
ASORCH_LAYOUT_ASSERT(sizeof(ASOrchTblProcInfo) == 12, "info record is three words");

/* One TLV of a transfer message: a 12-byte header, then tlvLen value bytes. Types 1 and 2
 * are plain tables; in the FES layout (transTblMsg[1]) their value starts with an 8-byte
 * prefix: word 1 not read, word 2 the entries' byte length (type 1) or the size of one entry
 * (type 2); the entries follow at TLV offset 20. In the DAM layout (transTblMsg[0]) the
 * entries start at offset 12: type 1 holds tlvLen / tblSize entries, type 2 one entry of
 * tlvLen bytes. */
typedef struct ASOrchTransTlv {
    uint32_t tableId;
    uint32_t tlvType; /* 1, 2 plain table; 18, 19 composite; anything else smoothing */
    uint32_t tlvLen;  /* value bytes, header not included */
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

/* Base-registration steps "ReservePort" (the layer's result unchanged) and "TblMsg" (both
 * registries; registers nothing and returns 0 when the process lacks the mb role), and the
 * release of both registries (also done by ASOrchDestroy). */
struct ASOrchBasePara;
ASORCH_API uint32_t ASOrchReservePort(ASOrchHandle *handle, struct ASOrchBasePara *para);
ASORCH_API uint32_t ASOrchRegTblMsg(ASOrchHandle *handle, struct ASOrchBasePara *para);
ASORCH_API void ASOrchFreeTblMsg(ASOrchHandle *handle);

/* Registry. A list is used when count is non-zero and entries non-null. A duplicate key
 * fails the step and leaves that registry empty. Lookups log and return null for an unknown
 * key; the control records they return stay owned by the registry, and only the version
 * counters change after registration. */
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

/* Message entry of receive messages: the parts of ASOrchMsgProc's receive path. Records are
 * handed on in order, one ASOrchMsgMerge call each; a record's failure is logged, not
 * returned. */
ASORCH_API uint32_t ASOrchMsgDispatchProc(ASOrchTblMsgRecvCtrl *ctrl, ASOrchMsg *msg, ASOrchHandle *handle);
ASORCH_API uint32_t ORCH_AutoSyncMsgProcUnSerialPack(ASOrchTblMsgRecvCtrl *ctrl, ASOrchMsg *msg, ASOrchHandle *handle);
ASORCH_API uint32_t ORCH_AutoSyncMsgProcSerialPack(ASOrchTblMsgRecvCtrl *ctrl, ASOrchMsg *msg, ASOrchHandle *handle);
ASORCH_API void ORCH_AutoSyncProcMqueOrUserDef(ASOrchTblMsgRecvCtrl *ctrl, ASOrchIpcBuf *ipcBuf, ASOrchHandle *handle);
ASORCH_API void ASOrchProcIpcUserDef(ASOrchHandle *handle, ASOrchIpcBuf *ipcBuf, ASOrchIpcUserDef *userDef);
ASORCH_API void ORCH_AutoSyncProcIpcBuf(ASOrchIpcBuf *ipcBuf, ASOrchHandle *handle, ASOrchIpcRecordFunc fn, void *arg);
ASORCH_API void ORCH_AutoSyncFillMergeMsgVec(ASOrchMsgVec *vec, const ASOrchTblMsgRecvCtrl *ctrl, uint32_t version);
ASORCH_API uint32_t ASOrchProc1IpcMque(void *record, ASOrchHandle *handle, void *arg);

/* Table pack parsing. The TLV's value must lie inside tlvLen readable bytes. Nothing is
 * returned: a missing control record or tblMsgProc, a tblSize of 0 or entries beyond tlvLen
 * are logged and the TLV is skipped; tblMsgProc's failure is logged. */
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

/* ---- Dispatch, versions and the channel senders ---- */

/* The entry for every message the module receives; on the thread that received it (the
 * DATA thread for records that go into a merge queue, see rix_as_common.h). Keeps nothing of
 * msg: when it returns, the records were processed or copied into a queue.
 * 1: null handle, msg or msg->data; a receive body refused whole (too short, not a multiple
 *    of ipcSize, ipcSize 0, keySize above ipcSize, unpack function missing or reporting
 *    another opType); a transfer body whose TLV area is under 12 bytes, or whose area or
 *    one of its TLVs overruns the body (the TLVs before that one were processed).
 * 0 also when records were dropped, shown only by a log line:
 *    - an unregistered msgId ("msg proc unknown msg! msgId:%u"), also every message of a
 *      process without the mb role;
 *    - a record the merge layer refuses: empty key, allocation or queue write failure;
 *      a merge type 0 to 3 whose channel has no merge queue is dropped with no line at all;
 *    - immediate processing (merge type 4 and up) without a msgProc for the msgId and
 *      opType, or whose msgProc fails;
 *    - userDefProc or tblMsgProc returning non-zero; a TLV with an unknown tableId or a
 *      smoothing item that fails.
 * Records that reach a merge queue are processed later, on the DATA thread. */
ASORCH_API uint32_t ASOrchMsgProc(ASOrchHandle *handle, ASOrchMsg *msg);
ASORCH_API uint32_t ASOrchMsgIsValid(ASOrchHandle *handle, ASOrchMsg *msg);
ASORCH_API uint32_t ASOrchMsgRecvProc(ASOrchHandle *handle, ASOrchMsg *msg);
ASORCH_API uint32_t ASOrchMsgTransProc(ASOrchHandle *handle, ASOrchMsg *msg);
ASORCH_API uint32_t ASOrchMsgInfoProc(ASOrchHandle *handle, const ASOrchTransTlv *tlv);
/* Advance a registration's version (wrapping) and return the new value: later records of
 * msgId never merge with pending ones of the old version, and tblMsgProc sees it in info.
 * 1 for an unknown key. A plain increment: serialise it with the threads that deliver msgId. */
ASORCH_API uint32_t ASOrchIncTblMsgVersion(ASOrchHandle *handle, uint32_t msgId, uint32_t *version);
ASORCH_API uint32_t ASOrchIncTransTblMsgVersion(ASOrchHandle *handle, uint32_t tableId, uint32_t *version);
/* Send msg (len bytes, passed unchanged) to the broker on the FES or DAM channel (chanType
 * 1 or 0); the channel's result unchanged. */
ASORCH_API uint32_t ASOrchFesChanMsgVec(ASOrchHandle *handle, void *msg, uint32_t len);
ASORCH_API uint32_t ASOrchDamChanMsgVec(ASOrchHandle *handle, void *msg, uint32_t len);
ASORCH_API uint32_t ASOrchFesDamChanMsgVec(ASOrchHandle *handle, void *msg, uint32_t len, uint32_t chanType);

ASORCH_EXTERN_C_END

#endif
