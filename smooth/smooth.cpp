// Smoothing TLVs: items looked up in a fixed table of 192 handler slots, each building the
// state record that the module's callbacks or the platform's entry points receive.
#include <array>

#include "rix_as_smooth.h"
#include "rix_entry.h"
#include "rix_safe.h"
#include "tblmsg/tblmsg_internal.h"

namespace asorch::smooth {
namespace {

using tblmsg::LoadU32;

// Item lengths by type, header included.
constexpr uint32_t kClassStateLen = 16;
constexpr uint32_t kVrfStateLen = 32;
constexpr uint32_t kVrfClassDataLen = 28;
constexpr uint32_t kPidStateLen = 20;
constexpr uint32_t kLrClassLen = 16;
constexpr uint32_t kDamClassLen = 16;

// Word n of an item sits at byte 4 * n.
uint32_t Word(const ASOrchSmoothItem *item, uint32_t n)
{
    return LoadU32(item, 4 * n);
}
uint32_t OptType(const ASOrchSmoothItem *item)
{
    return Word(item, 0);
}
uint32_t Length(const ASOrchSmoothItem *item)
{
    return Word(item, 1);
}
uint32_t TableId(const ASOrchSmoothItem *item)
{
    return Word(item, 2);
}

constexpr std::array<ASOrchSmoothHandler, ASORCH_SMOOTH_SLOT_NUM> kHandlers = [] {
    std::array<ASOrchSmoothHandler, ASORCH_SMOOTH_SLOT_NUM> t{};
    t[ASORCH_SMOOTH_CLASS_BEGIN] = ASOrchSmoothClassState;
    t[ASORCH_SMOOTH_CLASS_END] = ASOrchSmoothClassState;
    t[ASORCH_SMOOTH_VRF_STATE] = ASOrchSmoothVrfState;
    t[ASORCH_SMOOTH_VRF_DATA_BEGIN] = ASOrchSmoothVrfClassData;
    t[ASORCH_SMOOTH_VRF_DATA_END] = ASOrchSmoothVrfClassData;
    t[ASORCH_SMOOTH_PID_STATE] = ASOrchSmoothPidState;
    t[ASORCH_SMOOTH_LR_CLASS] = ASOrchSmoothLrClassData;
    t[ASORCH_SMOOTH_LR_CLASS2] = ASOrchSmoothLrClassData;
    t[ASORCH_SMOOTH_DAM_CLASS] = ASOrchSmoothDamClassData;
    t[ASORCH_SMOOTH_DAM_CLASS2] = ASOrchSmoothDamClassData;
    return t;
}();

static_assert(kHandlers[12] == nullptr && kHandlers[189] == nullptr, "unlisted slots stay empty");

int32_t Next(const ASOrchSmoothItem *item, int32_t remain)
{
    return remain - static_cast<int32_t>(Length(item));
}

// smoothProc replaces the platform's entry; smoothPreProc only precedes it. True when the
// platform's entry is still to be called.
template <class Rec>
bool RunCallbacks(const ASOrchSmoothItem *item, Rec &rec, ASOrchSmoothCbFunc pre, ASOrchSmoothCbFunc proc)
{
    if (proc != nullptr) {
        (void)proc(TableId(item), OptType(item), &rec, sizeof(rec));
        return false;
    }
    if (pre != nullptr) {
        (void)pre(TableId(item), OptType(item), &rec, sizeof(rec));
    }
    return true;
}

template <class Rec>
bool Zeroed(Rec &rec)
{
    return memset_s(&rec, sizeof(rec), 0, sizeof(rec)) == 0;
}

}  // namespace
}  // namespace asorch::smooth

using namespace asorch::smooth;

extern "C" {

uint32_t ASOrchSmoothMsgCheck(const ASOrchSmoothItem *item, uint32_t msgSize, int32_t remain)
{
    if (asorch::NullArg(__func__, item == nullptr)) {
        return ASORCH_ERR;
    }
    const uint32_t length = Length(item);
    if (length != msgSize || int64_t{length} > int64_t{remain}) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR,
                            "smooth check msgSize failed. tableId = %u, optType = %u, length = %u, msgSize = %u",
                            TableId(item), OptType(item), length, msgSize);
        return ASORCH_ERR;
    }
    return ASORCH_OK;
}

uint32_t ASOrchVrfStateEntry(ASOrchHandle *handle, const ASOrchSmoothItem *item, const ASOrchClassStateRec *record)
{
    if (asorch::NullArg(__func__, handle == nullptr || item == nullptr || record == nullptr)) {
        return ASORCH_ERR;
    }
    if (OptType(item) == ASORCH_SMOOTH_CLASS_BEGIN) {
        return RIX_ENTRY_ProcVrfStateBegin(record);
    }
    return RIX_ENTRY_ProcVrfStateEnd(record, handle->memAlloc, handle->memFree);
}

uint32_t ASOrchVrfClassItemEntry(const ASOrchSmoothItem *item, const ASOrchVrfClassDataRec *record)
{
    if (asorch::NullArg(__func__, item == nullptr || record == nullptr)) {
        return ASORCH_ERR;
    }
    if (OptType(item) == ASORCH_SMOOTH_VRF_DATA_BEGIN) {
        return RIX_ENTRY_ProcVrfDataBegin(record);
    }
    return RIX_ENTRY_ProcVrfDataEnd(record);
}

int32_t ASOrchSmoothClassState(ASOrchHandle *handle, const ASOrchSmoothItem *item, int32_t remain,
                               ASOrchSmoothCbFunc smoothPreProc, ASOrchSmoothCbFunc smoothProc)
{
    if (asorch::NullArg(__func__, handle == nullptr || item == nullptr)) {
        return -1;
    }
    ASOrchClassStateRec rec;
    if (ASOrchSmoothMsgCheck(item, kClassStateLen, remain) != 0 || !Zeroed(rec)) {
        return -1;
    }
    rec.tableId = TableId(item);
    rec.srcPid = Word(item, 3);
    if (RunCallbacks(item, rec, smoothPreProc, smoothProc) && ASOrchVrfStateEntry(handle, item, &rec) != 0) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR,
                            "%s, smooth classitem proc failed. tableId = %u, optType = %u, srcPid = %u", handle->name,
                            rec.tableId, OptType(item), rec.srcPid);
        return -1;
    }
    return Next(item, remain);
}

int32_t ASOrchSmoothVrfState(ASOrchHandle *handle, const ASOrchSmoothItem *item, int32_t remain,
                             ASOrchSmoothCbFunc smoothPreProc, ASOrchSmoothCbFunc smoothProc)
{
    if (asorch::NullArg(__func__, handle == nullptr || item == nullptr)) {
        return -1;
    }
    ASOrchVrfStateRec rec;
    if (ASOrchSmoothMsgCheck(item, kVrfStateLen, remain) != 0 || !Zeroed(rec)) {
        return -1;
    }
    rec.tableId = TableId(item);
    rec.word3 = Word(item, 3);
    rec.word4 = Word(item, 4);
    rec.word5 = Word(item, 5);
    rec.topologyId = Word(item, 6);
    rec.vrfState = Word(item, 7);
    if (RunCallbacks(item, rec, smoothPreProc, smoothProc) && RIX_ENTRY_ProcVrfState(&rec) != 0) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR,
                            "%s, smooth classState proc failed. tableId = %u, topologyId = %u, vrfState = %u",
                            handle->name, rec.tableId, rec.topologyId, rec.vrfState);
        return -1;
    }
    return Next(item, remain);
}

int32_t ASOrchSmoothVrfClassData(ASOrchHandle *handle, const ASOrchSmoothItem *item, int32_t remain,
                                 ASOrchSmoothCbFunc smoothPreProc, ASOrchSmoothCbFunc smoothProc)
{
    if (asorch::NullArg(__func__, handle == nullptr || item == nullptr)) {
        return -1;
    }
    ASOrchVrfClassDataRec rec;
    if (ASOrchSmoothMsgCheck(item, kVrfClassDataLen, remain) != 0 || !Zeroed(rec)) {
        return -1;
    }
    rec.tableId = TableId(item);
    rec.srcPid = Word(item, 3);
    rec.word4 = Word(item, 4);
    rec.word5 = Word(item, 5);
    rec.word6 = Word(item, 6);
    if (RunCallbacks(item, rec, smoothPreProc, smoothProc) && ASOrchVrfClassItemEntry(item, &rec) != 0) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR,
                            "%s, smooth vrfClassitem proc failed. tableId = %u, optType = %u, srcPid = %u",
                            handle->name, rec.tableId, OptType(item), rec.srcPid);
        return -1;
    }
    return Next(item, remain);
}

int32_t ASOrchSmoothPidState(ASOrchHandle *handle, const ASOrchSmoothItem *item, int32_t remain,
                             ASOrchSmoothCbFunc smoothPreProc, ASOrchSmoothCbFunc smoothProc)
{
    if (asorch::NullArg(__func__, handle == nullptr || item == nullptr)) {
        return -1;
    }
    if (ASOrchSmoothMsgCheck(item, kPidStateLen, remain) != 0) {
        return -1;
    }
    ASOrchPidStateRec rec{TableId(item), Word(item, 3), Word(item, 4)};
    if (RunCallbacks(item, rec, smoothPreProc, smoothProc)) {
        (void)RIX_ENTRY_ProcPidState(&rec);
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_INFO, "%s, smooth state proc. tableId = %u, pidState = %u, srcPid = %u",
                            handle->name, rec.tableId, rec.pidState, rec.srcPid);
    }
    return Next(item, remain);
}

int32_t ASOrchSmoothLrClassData(ASOrchHandle *, const ASOrchSmoothItem *item, int32_t remain, ASOrchSmoothCbFunc,
                                ASOrchSmoothCbFunc smoothProc)
{
    if (asorch::NullArg(__func__, item == nullptr)) {
        return -1;
    }
    ASOrchLrClassRec rec;
    if (ASOrchSmoothMsgCheck(item, kLrClassLen, remain) != 0 || !Zeroed(rec)) {
        return -1;
    }
    rec.tableId = TableId(item);
    rec.word3 = Word(item, 3);
    if (smoothProc != nullptr) {
        (void)smoothProc(rec.tableId, OptType(item), &rec, sizeof(rec));
    }
    return Next(item, remain);
}

int32_t ASOrchSmoothDamClassData(ASOrchHandle *, const ASOrchSmoothItem *item, int32_t remain,
                                 ASOrchSmoothCbFunc smoothPreProc, ASOrchSmoothCbFunc smoothProc)
{
    if (asorch::NullArg(__func__, item == nullptr)) {
        return -1;
    }
    if (ASOrchSmoothMsgCheck(item, kDamClassLen, remain) != 0) {
        return -1;
    }
    ASOrchSmoothCbFunc cb = (smoothProc != nullptr) ? smoothProc : smoothPreProc;
    if (cb != nullptr) {
        (void)cb(TableId(item), OptType(item), nullptr, 0);
    }
    return Next(item, remain);
}

int32_t ASOrchSmoothMsgProc(ASOrchHandle *handle, const ASOrchSmoothItem *item, int32_t remain,
                            ASOrchSmoothCbFunc smoothPreProc, ASOrchSmoothCbFunc smoothProc)
{
    if (asorch::NullArg(__func__, handle == nullptr || item == nullptr)) {
        return -1;
    }
    // The header is read only when it lies inside what remains.
    if (remain < static_cast<int32_t>(ASORCH_SMOOTH_ITEM_HDR_LEN)) {
        return -1;
    }
    const uint32_t optType = OptType(item);
    if (optType >= ASORCH_SMOOTH_SLOT_NUM || kHandlers[optType] == nullptr) {
        return -1;
    }
    return kHandlers[optType](handle, item, remain, smoothPreProc, smoothProc);
}

uint32_t ASOrchTransTblSmooth(ASOrchHandle *handle, const ASOrchTransTlv *tlv, const ASOrchTblMsgTransCtrl *ctrl)
{
    if (asorch::NullArg(__func__, handle == nullptr || tlv == nullptr || ctrl == nullptr)) {
        return ASORCH_ERR;
    }
    const asorch::tblmsg::TlvHeader hdr = asorch::tblmsg::LoadTlv(tlv);
    const uint8_t *item = asorch::tblmsg::TlvValue(tlv);
    int32_t remain = static_cast<int32_t>(hdr.tlvLen);
    while (remain > 0) {
        if (remain < static_cast<int32_t>(ASORCH_SMOOTH_ITEM_HDR_LEN)) {
            RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR,
                                "%s, smooth item header exceeds tlv. tableId = %u, remain = %d, tlvLen = %u",
                                handle->name, hdr.tableId, remain, hdr.tlvLen);
            remain = -1;
            break;
        }
        const auto *cur = reinterpret_cast<const ASOrchSmoothItem *>(item);
        remain = ASOrchSmoothMsgProc(handle, cur, remain, ctrl->smoothPreProc, ctrl->smoothProc);
        if (remain < 0) {
            break;
        }
        item += Length(cur);
    }
    if (remain != 0) {
        RIX_AUTOSYNC_RixLog(ASORCH_LOG_ERROR, "%s, smooth tbl proc failed. tableId = %u, tlvType = %u, tlvLen = %u",
                            handle->name, hdr.tableId, hdr.tlvType, hdr.tlvLen);
        return ASORCH_ERR;
    }
    return ASORCH_OK;
}

}  // extern "C"
