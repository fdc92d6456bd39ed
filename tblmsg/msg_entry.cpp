// Message entry: a recv message's body becomes fixed-size records, handed as one run to the
// module's own function or one by one to the merge layer.
#include "tblmsg/tblmsg_internal.h"

#include "core/walk_guard.h"
#include "merge/merge_internal.h"

namespace {

// A record's key lies inside the record, or the merge layer would copy bytes past the body.
bool KeyOutsideRecord(const ASOrchTblMsgRecvCtrl *ctrl)
{
    if (ctrl->userDefProc == nullptr && ctrl->keySize > ctrl->ipcSize) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "tblmsg key exceeds record. msgId = %u, keySize = %u, ipcSize = %u.",
                            ctrl->msgId, ctrl->keySize, ctrl->ipcSize);
        return true;
    }
    return false;
}

// Counts a body's records: count(payload, size) is payload / size, remainder(...) its rest.
template <class Count>
uint32_t UnSerialPack(ASOrchTblMsgRecvCtrl *ctrl, ASOrchMsg *msg, ASOrchHandle *handle, Count count)
{
    const uint32_t size = ctrl->ipcSize;
    if (msg->len < ASORCH_RECV_HDR_LEN) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "msgLen is not multi of ipcSize, len = %u, size = %u.", msg->len, size);
        return ASORCH_ERR;
    }
    const uint32_t payload = msg->len - ASORCH_RECV_HDR_LEN;
    uint32_t records = 0;
    if (size == 0 || !count(payload, size, &records)) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "msgLen is not multi of ipcSize, len = %u, size = %u.", payload, size);
        return ASORCH_ERR;
    }
    if (KeyOutsideRecord(ctrl)) {
        return ASORCH_ERR;
    }
    ASOrchIpcBuf ipcBuf{records, static_cast<uint8_t *>(msg->data) + ASORCH_RECV_HDR_LEN, size};
    ORCH_AutoSyncProcMqueOrUserDef(ctrl, &ipcBuf, handle);
    return ASORCH_OK;
}

bool CountByDivision(uint32_t payload, uint32_t size, uint32_t *records)
{
    *records = payload / size;
    return payload % size == 0;
}

}  // namespace

namespace asorch::tblmsg {

uint32_t DispatchRegistered(RecvNode *node, ASOrchMsg *msg, ASOrchHandle *handle)
{
    ASOrchTblMsgRecvCtrl *ctrl = &node->ctrl;
    if (ctrl->unpackFunc != nullptr) {
        return ORCH_AutoSyncMsgProcSerialPack(ctrl, msg, handle);
    }
    const asorch::Divisor &div = node->recSize;
    return UnSerialPack(ctrl, msg, handle, [&div](uint32_t payload, uint32_t size, uint32_t *records) {
        if (div.d != size) {  // the record was changed after registration
            uint32_t rest = 0u;
            *records = asorch::DivUnprepared(payload, size, &rest);
            return rest == 0u;
        }
        *records = asorch::Div(payload, div);
        return *records * size == payload;
    });
}

}  // namespace asorch::tblmsg

extern "C" {

uint32_t ASOrchMsgDispatchProc(ASOrchTblMsgRecvCtrl *ctrl, ASOrchMsg *msg, ASOrchHandle *handle)
{
    if (asorch::NullArg(__func__, ctrl == nullptr || msg == nullptr || msg->data == nullptr)) {
        return ASORCH_ERR;
    }
    if (ctrl->unpackFunc != nullptr) {
        return ORCH_AutoSyncMsgProcSerialPack(ctrl, msg, handle);
    }
    return ORCH_AutoSyncMsgProcUnSerialPack(ctrl, msg, handle);
}

uint32_t ORCH_AutoSyncMsgProcUnSerialPack(ASOrchTblMsgRecvCtrl *ctrl, ASOrchMsg *msg, ASOrchHandle *handle)
{
    if (asorch::NullArg(__func__, ctrl == nullptr || msg == nullptr || msg->data == nullptr)) {
        return ASORCH_ERR;
    }
    return UnSerialPack(ctrl, msg, handle, CountByDivision);
}

uint32_t ORCH_AutoSyncMsgProcSerialPack(ASOrchTblMsgRecvCtrl *ctrl, ASOrchMsg *msg, ASOrchHandle *handle)
{
    if (asorch::NullArg(__func__, ctrl == nullptr || msg == nullptr)) {
        return ASORCH_ERR;
    }
    if (ctrl->unpackFunc == nullptr || ctrl->unpackFreeFunc == nullptr || ctrl->ipcSize == 0) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "unpack para is null.");
        return ASORCH_ERR;
    }
    if (KeyOutsideRecord(ctrl)) {
        return ASORCH_ERR;
    }
    ASOrchUnpackResult result{};
    ctrl->unpackFunc(msg->data, msg->len, &result, msg);
    if (result.opType != ctrl->opType) {
        ctrl->unpackFreeFunc(&result);
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "ipc unpack msgId = %u opType = %u is error.", ctrl->msgId,
                            result.opType);
        return ASORCH_ERR;
    }
    ASOrchIpcBuf ipcBuf{result.ipcNum, result.ipcBuf, ctrl->ipcSize};
    ORCH_AutoSyncProcMqueOrUserDef(ctrl, &ipcBuf, handle);
    ctrl->unpackFreeFunc(&result);
    return ASORCH_OK;
}

void ORCH_AutoSyncProcMqueOrUserDef(ASOrchTblMsgRecvCtrl *ctrl, ASOrchIpcBuf *ipcBuf, ASOrchHandle *handle)
{
    if (asorch::NullArg(__func__, ctrl == nullptr || ipcBuf == nullptr)) {
        return;
    }
    if (ctrl->userDefProc != nullptr) {
        ASOrchIpcUserDef userDef{ctrl->userDefProc, ASOrchTblProcInfo{ctrl->version, ctrl->mergeType, 0}};
        ASOrchProcIpcUserDef(handle, ipcBuf, &userDef);
        return;
    }
    // One vector serves every record: the merge layer copies what it keeps.
    ASOrchMsgVec vec;
    ORCH_AutoSyncFillMergeMsgVec(&vec, ctrl, ctrl->version);
    if (asorch::merge::WriteRun(handle, ctrl->mergeType, vec, *ipcBuf)) {
        return;
    }
    ASOrchIpcMqueArg arg{&vec, ctrl->mergeType};
    ORCH_AutoSyncProcIpcBuf(ipcBuf, handle, ASOrchProc1IpcMque, &arg);
}

void ASOrchProcIpcUserDef(ASOrchHandle *handle, ASOrchIpcBuf *ipcBuf, ASOrchIpcUserDef *userDef)
{
    if (asorch::NullArg(__func__, ipcBuf == nullptr || userDef == nullptr || userDef->proc == nullptr)) {
        return;
    }
    const uint32_t ret = userDef->proc(handle, ipcBuf->ipcBuf, ipcBuf->ipcNum, &userDef->info);
    if (ret != 0) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "ORCH_ASMsgProc fail, ret %u!", ret);
    }
}

void ORCH_AutoSyncProcIpcBuf(ASOrchIpcBuf *ipcBuf, ASOrchHandle *handle, ASOrchIpcRecordFunc fn, void *arg)
{
    if (asorch::NullArg(__func__, ipcBuf == nullptr || fn == nullptr)) {
        return;
    }
    auto *record = static_cast<uint8_t *>(ipcBuf->ipcBuf);
    // A destroy asked for by the module's callback ends the walk.
    for (uint32_t i = 0; i < ipcBuf->ipcNum && !asorch::Closing(handle); ++i) {
        (void)fn(record, handle, arg);
        record += ipcBuf->ipcSize;
    }
}

void ORCH_AutoSyncFillMergeMsgVec(ASOrchMsgVec *vec, const ASOrchTblMsgRecvCtrl *ctrl, uint32_t version)
{
    if (asorch::NullArg(__func__, vec == nullptr || ctrl == nullptr)) {
        return;
    }
    vec->msgId = ctrl->mergeMsgId;
    vec->opType = (ctrl->mergeOpType != 0) ? 1u : 0u;
    vec->key = nullptr;
    vec->keyLen = ctrl->keySize;
    vec->data = nullptr;
    vec->dataLen = ctrl->ipcSize;
    vec->version = version;
    vec->usrData = nullptr;
}

uint32_t ASOrchProc1IpcMque(void *record, ASOrchHandle *handle, void *arg)
{
    if (asorch::NullArg(__func__, arg == nullptr || static_cast<ASOrchIpcMqueArg *>(arg)->vec == nullptr)) {
        return ASORCH_ERR;
    }
    auto *mque = static_cast<ASOrchIpcMqueArg *>(arg);
    mque->vec->key = record;
    mque->vec->data = record;
    return ASOrchMsgMerge(handle, mque->mergeType, mque->vec);
}

}  // extern "C"
