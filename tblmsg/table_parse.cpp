// Plain and composite tables inside transfer-message TLVs, handed in place to tblMsgProc.
#include "tblmsg/tblmsg_internal.h"

namespace asorch::tblmsg {
namespace {

// The FES layout opens its value with two header words; the second sizes the entries.
constexpr uint32_t kFesHdrLen = 8;
constexpr uint32_t kFesWord2 = ASORCH_TLV_HDR_LEN + 4;

enum class Layout { Dam, Fes };

ASOrchTblProcInfo InfoOf(const ASOrchTblMsgTransCtrl *ctrl, const TlvHeader &hdr)
{
    return ASOrchTblProcInfo{ctrl->version, ctrl->procParam, hdr.tlvType};
}

// A table needs its control record and a processing function; the composite tables report
// a missing one with the FES text.
bool HasProc(ASOrchHandle *handle, const ASOrchTblMsgTransCtrl *ctrl, const TlvHeader &hdr, bool fesText)
{
    if (ctrl == nullptr) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "[error]%s, trans table msg proc is NULL, tbl:%u.", handle->name,
                            hdr.tableId);
        return false;
    }
    if (ctrl->tblMsgProc == nullptr) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR,
                            fesText ? "[error]%s, trans fes tblMsgProc is NULL, tbl:%u."
                                    : "[error]%s, trans dam tblMsgProc is NULL, tbl:%u.",
                            handle->name, hdr.tableId);
        return false;
    }
    return true;
}

template <Layout L>
void PlainParsePack(ASOrchHandle *handle, const ASOrchTransTlv *tlv, const ASOrchTblMsgTransCtrl *ctrl)
{
    constexpr bool fes = (L == Layout::Fes);
    const TlvHeader hdr = LoadTlv(tlv);
    if (!HasProc(handle, ctrl, hdr, fes)) {
        return;
    }
    if (fes && hdr.tlvLen < kFesHdrLen) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "[error]%s, trans fes tbl shorter than its header, tbl:%u, tlvLen = %u.",
                            handle->name, hdr.tableId, hdr.tlvLen);
        return;
    }
    const uint32_t size = fes ? ASOrchFesTblSize(tlv, ctrl) : ASOrchDamTblSize(tlv, ctrl);
    if (size == 0) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "[error] tblSize is zero.");
        return;
    }
    uint32_t nums;
    uint32_t room;  // bytes of the value that may hold entries
    if (fes) {
        room = hdr.tlvLen - kFesHdrLen;
        nums = (hdr.tlvType == ASORCH_TLV_PLAIN) ? LoadU32(tlv, kFesWord2) / size : room / size;
    } else {
        room = hdr.tlvLen;
        nums = room / size;
    }
    if (uint64_t{nums} * size > room) {
        RIX_AUTOSYNC_RixLog(
            ASORCH_LOG_ERROR,
            fes ? "[error]%s, trans fes tbl exceeds tlv, tbl:%u, tbl nums = %u, tblsize = %u, tlvLen = %u."
                : "[error]%s, trans dam tbl exceeds tlv, tbl:%u, tbl nums = %u, tblsize = %u, tlvLen = %u.",
            handle->name, hdr.tableId, nums, size, hdr.tlvLen);
        return;
    }
    ASOrchTblProcInfo info = InfoOf(ctrl, hdr);
    auto *entries = const_cast<uint8_t *>(TlvValue(tlv)) + (fes ? kFesHdrLen : 0);
    if (ctrl->tblMsgProc(handle, entries, nums, size, &info) != 0) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR,
                            fes ? "%s, proc trans fes tbl failed. tbl nums = %u, tblsize = %u."
                                : "%s, proc trans dam tbl failed. tbl nums = %u, tblsize = %u.",
                            handle->name, nums, size);
    }
}

}  // namespace
}  // namespace asorch::tblmsg

using namespace asorch::tblmsg;

extern "C" {

uint32_t ASOrchDamTblSize(const ASOrchTransTlv *tlv, const ASOrchTblMsgTransCtrl *ctrl)
{
    if (asorch::NullArg(__func__, tlv == nullptr || ctrl == nullptr)) {
        return 0u;
    }
    const TlvHeader hdr = LoadTlv(tlv);
    return (hdr.tlvType == ASORCH_TLV_PLAIN) ? ctrl->tblSize : hdr.tlvLen;
}

uint32_t ASOrchFesTblSize(const ASOrchTransTlv *tlv, const ASOrchTblMsgTransCtrl *ctrl)
{
    if (asorch::NullArg(__func__, tlv == nullptr || ctrl == nullptr)) {
        return 0u;
    }
    const TlvHeader hdr = LoadTlv(tlv);
    if (hdr.tlvType == ASORCH_TLV_PLAIN) {
        return ctrl->tblSize;
    }
    // Without its header words the table has no entry size.
    return (hdr.tlvLen < kFesHdrLen) ? 0u : LoadU32(tlv, kFesWord2);
}

void ASOrchDamTblParsePack(ASOrchHandle *handle, const ASOrchTransTlv *tlv, const ASOrchTblMsgTransCtrl *ctrl)
{
    if (asorch::NullArg(__func__, handle == nullptr || tlv == nullptr)) {
        return;
    }
    PlainParsePack<Layout::Dam>(handle, tlv, ctrl);
}

void ASOrchFesTblParsePack(ASOrchHandle *handle, const ASOrchTransTlv *tlv, const ASOrchTblMsgTransCtrl *ctrl)
{
    if (asorch::NullArg(__func__, handle == nullptr || tlv == nullptr)) {
        return;
    }
    PlainParsePack<Layout::Fes>(handle, tlv, ctrl);
}

void ASOrchTransTblParsePack(ASOrchHandle *handle, const ASOrchTransTlv *tlv, const ASOrchTblMsgTransCtrl *ctrl)
{
    if (asorch::NullArg(__func__, handle == nullptr || tlv == nullptr)) {
        return;
    }
    if (ctrl != nullptr && ctrl->isFes != 0) {
        ASOrchFesTblParsePack(handle, tlv, ctrl);
    } else {
        ASOrchDamTblParsePack(handle, tlv, ctrl);
    }
}

void ASOrchTransCompTblParsePack(ASOrchHandle *handle, const ASOrchTransTlv *tlv, const ASOrchTblMsgTransCtrl *ctrl)
{
    if (asorch::NullArg(__func__, handle == nullptr || tlv == nullptr)) {
        return;
    }
    const TlvHeader hdr = LoadTlv(tlv);
    if (!HasProc(handle, ctrl, hdr, true)) {
        return;
    }
    ASOrchTblProcInfo info = InfoOf(ctrl, hdr);
    // The whole TLV, header included, is the one entry.
    const uint32_t whole = hdr.tlvLen + ASORCH_TLV_HDR_LEN;
    if (ctrl->tblMsgProc(handle, const_cast<ASOrchTransTlv *>(tlv), 1, whole, &info) != 0) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "%s, proc trans comp tbl failed. tbl = %u, tblType = %u.", handle->name,
                            hdr.tableId, hdr.tlvType);
    }
}

}  // extern "C"
