// ASOrchMsgProc: recv messages go to message entry, transfer messages are walked TLV by TLV.
#include "tblmsg/tblmsg_internal.h"

#include "core/common.h"
#include "core/walk_guard.h"

#include "rix_as_smooth.h"
#include "rix_eal.h"

namespace asorch::tblmsg {
namespace {

constexpr uint32_t kTransIdMask = ~0xFu;

// The roads of a message whose arguments ASOrchMsgProc has checked once; the exported step
// functions are doors that check and take the same road.
uint32_t InfoRoad(ASOrchHandle *handle, const ASOrchTransTlv *tlv)
{
    const TlvHeader hdr = LoadTlv(tlv);
    ASOrchTblMsgTransCtrl *ctrl = ASOrchGetTblMsgTrans(handle, hdr.tableId);
    if (ctrl == nullptr) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "%s, get tbl trans tbl failed.tableId = %u.", handle->name, hdr.tableId);
        return ASORCH_ERR;
    }
    switch (hdr.tlvType) {
        case ASORCH_TLV_PLAIN:
        case ASORCH_TLV_PLAIN_SINGLE:
            ASOrchTransTblParsePack(handle, tlv, ctrl);
            return ASORCH_OK;
        case ASORCH_TLV_COMP:
        case ASORCH_TLV_COMP2:
            ASOrchTransCompTblParsePack(handle, tlv, ctrl);
            return ASORCH_OK;
        default:
            return ASOrchTransTblSmooth(handle, tlv, ctrl);
    }
}

uint32_t TransRoad(ASOrchHandle *handle, ASOrchMsg *msg)
{
    const auto *body = static_cast<const uint8_t *>(msg->data);
    if (msg->len < ASORCH_TRANS_TLV_OFFSET) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "%s, recv feibrk trans msg %u shorter than its header. len = %u.",
                            handle->name, msg->msgId, msg->len);
        return ASORCH_ERR;
    }
    const uint32_t area = LoadU32(body, ASORCH_TRANS_AREA_OFFSET);
    if (area < ASORCH_TLV_HDR_LEN) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "%s, recv feibrk trans msg is error.", handle->name);
        return ASORCH_ERR;
    }
    if (area > msg->len - ASORCH_TRANS_TLV_OFFSET) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR,
                            "%s, recv feibrk trans msg %u tlv area exceeds body. tlvArea = %u, len = %u.", handle->name,
                            msg->msgId, area, msg->len);
        return ASORCH_ERR;
    }
    const uint8_t *tlvs = body + ASORCH_TRANS_TLV_OFFSET;
    uint32_t offset = 0;
    uint32_t index = 0;
    // The checks keep every TLV, header and value, inside the area, so offset cannot wrap.
    while (area > offset && !asorch::Closing(handle)) {
        if (area - offset < ASORCH_TLV_HDR_LEN) {
            RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR,
                                "%s, feibrk trans msg %u tlv %u header exceeds area. offset = %u, tlvArea = %u.",
                                handle->name, msg->msgId, index, offset, area);
            return ASORCH_ERR;
        }
        const auto *tlv = reinterpret_cast<const ASOrchTransTlv *>(tlvs + offset);
        const TlvHeader hdr = LoadTlv(tlv);
        if (hdr.tlvLen > area - offset - ASORCH_TLV_HDR_LEN) {
            RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR,
                                "%s, feibrk trans msg %u tlv %u exceeds area. tbl = %u, offset = %u, tlvLen = %u, "
                                "tlvArea = %u.",
                                handle->name, msg->msgId, index, hdr.tableId, offset, hdr.tlvLen, area);
            return ASORCH_ERR;
        }
        if (InfoRoad(handle, tlv) != 0) {
            RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR,
                                "%s, proc feibrk trans msg %u failed. tbl = %u, tlvType = %u, tlvLen = %u",
                                handle->name, index, hdr.tableId, hdr.tlvType, hdr.tlvLen);
        }
        offset += hdr.tlvLen + ASORCH_TLV_HDR_LEN;
        ++index;
    }
    return ASORCH_OK;
}

uint32_t RecvRoad(ASOrchHandle *handle, ASOrchMsg *msg)
{
    ASOrchTblMsgRecvCtrl *ctrl = ASOrchGetTblMsgRecv(handle, msg->msgId);
    if (ctrl == nullptr) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "msg proc unknown msg! msgId:%u", msg->msgId);
        return ASORCH_OK;
    }
    return asorch::tblmsg::DispatchRegistered(asorch::tblmsg::NodeOf(ctrl), msg, handle);
}

}  // namespace
}  // namespace asorch::tblmsg

using namespace asorch::tblmsg;

extern "C" {

uint32_t ASOrchMsgIsValid(ASOrchHandle *handle, ASOrchMsg *msg)
{
    return (handle != nullptr && msg != nullptr && msg->data != nullptr) ? 1u : 0u;
}

uint32_t ASOrchMsgProc(ASOrchHandle *handle, ASOrchMsg *msg)
{
    if (ASOrchMsgIsValid(handle, msg) == 0) {
        if (handle == nullptr) {
            RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "recv feibrk channel msg handle is null.");
        } else {
            RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "recv feibrk channel msg is null.");
        }
        return ASORCH_ERR;
    }
    asorch::WalkScope walk(handle);
    if ((msg->msgId & kTransIdMask) == ASORCH_TRANS_MSGID_BASE) {
        return TransRoad(handle, msg);
    }
    return RecvRoad(handle, msg);
}

uint32_t ASOrchMsgRecvProc(ASOrchHandle *handle, ASOrchMsg *msg)
{
    if (asorch::NullArg(__func__, handle == nullptr || msg == nullptr || msg->data == nullptr)) {
        return ASORCH_ERR;
    }
    return RecvRoad(handle, msg);
}

uint32_t ASOrchMsgTransProc(ASOrchHandle *handle, ASOrchMsg *msg)
{
    if (asorch::NullArg(__func__, handle == nullptr || msg == nullptr || msg->data == nullptr)) {
        return ASORCH_ERR;
    }
    return TransRoad(handle, msg);
}

uint32_t ASOrchMsgInfoProc(ASOrchHandle *handle, const ASOrchTransTlv *tlv)
{
    if (asorch::NullArg(__func__, handle == nullptr || tlv == nullptr)) {
        return ASORCH_ERR;
    }
    return InfoRoad(handle, tlv);
}

uint32_t ASOrchIncTblMsgVersion(ASOrchHandle *handle, uint32_t msgId, uint32_t *version)
{
    ASOrchTblMsgRecvCtrl *ctrl = ASOrchGetTblMsgRecv(handle, msgId);
    if (ctrl == nullptr) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "Orch set tblmsg version failed. msgId:%u", msgId);
        return ASORCH_ERR;
    }
    ctrl->version += 1;
    if (version != nullptr) {
        *version = ctrl->version;
    }
    return ASORCH_OK;
}

uint32_t ASOrchIncTransTblMsgVersion(ASOrchHandle *handle, uint32_t tableId, uint32_t *version)
{
    ASOrchTblMsgTransCtrl *ctrl = ASOrchGetTblMsgTrans(handle, tableId);
    if (ctrl == nullptr) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "Orch set tblmsg version failed. tableId:%u", tableId);
        return ASORCH_ERR;
    }
    ctrl->version += 1;
    if (version != nullptr) {
        *version = ctrl->version;
    }
    return ASORCH_OK;
}

uint32_t ASOrchFesDamChanMsgVec(ASOrchHandle *handle, void *msg, uint32_t len, uint32_t chanType)
{
    if (handle == nullptr) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "send chan %u msg handle is null.", chanType);
        return ASORCH_ERR;
    }
    void *chan = RIX_EAL_GetChannelHdl(handle->ealHdl, chanType);
    if (chan == nullptr) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "%s, send chan %u msg failed, no channel. len = %u.", handle->name,
                            chanType, len);
        return ASORCH_ERR;
    }
    return RIX_CHAN_USendMsg(chan, asorch::kBrokerAddrWord, 0, msg, len);
}

uint32_t ASOrchFesChanMsgVec(ASOrchHandle *handle, void *msg, uint32_t len)
{
    return ASOrchFesDamChanMsgVec(handle, msg, len, ASORCH_CHAN_FES);
}

uint32_t ASOrchDamChanMsgVec(ASOrchHandle *handle, void *msg, uint32_t len)
{
    return ASOrchFesDamChanMsgVec(handle, msg, len, ASORCH_CHAN_DAM);
}

}  // extern "C"
