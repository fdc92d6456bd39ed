// libFuzzer target: arbitrary bytes as the body of recv and transfer messages, through
// ASOrchMsgProc, against a registration that reaches every TLV type, both table layouts,
// serial unpacking, the merge queues and every smoothing slot.
//
// Input: byte 0 selects the message, the rest is the body (copied to a block of exactly its
// size, so any read past it is reported).
//   bit 7 set:   transfer message 0x7F7F7F70 | (byte & 0xF); bit 6 makes the platform's
//                smoothing entry points fail.
//   bit 7 clear: recv message id (byte & 7); 0 to 6 are registered.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

#include "rix_autosync_orch.h"
#include "rix_platform_test.h"

namespace {

constexpr uint32_t kMergeMsgId = 77;
constexpr uint32_t kRec = 16;

volatile uint32_t g_sink;

void Touch(const void *p, uint64_t n)
{
    const auto *b = static_cast<const volatile uint8_t *>(p);
    uint32_t s = 0;
    for (uint64_t i = 0; i < n; ++i) {
        s += b[i];
    }
    g_sink = g_sink + s;
}

void *Alloc(uint32_t n)
{
    return std::malloc(n == 0 ? 1 : n);
}
void Free(void *p)
{
    std::free(p);
}

uint32_t TblProc(ASOrchHandle *, void *tables, uint32_t nums, uint32_t size, ASOrchTblProcInfo *info)
{
    Touch(tables, uint64_t{nums} * size);
    Touch(info, sizeof(*info));
    return nums & 1u;
}

uint32_t SmoothCb(uint32_t, uint32_t, void *record, uint32_t size)
{
    if (record != nullptr) {
        Touch(record, size);
    }
    return 0;
}

uint32_t UserProc(ASOrchHandle *, void *records, uint32_t num, ASOrchTblProcInfo *)
{
    Touch(records, uint64_t{num} * kRec);
    return num & 1u;
}

uint32_t MsgProc(ASOrchHandle *, ASOrchMsgVec *vec)
{
    Touch(vec->key, vec->keyLen);
    Touch(vec->data, vec->dataLen);
    return vec->opType == 2 ? 1u : 0u;
}

// The module's serial format: word 2 of the body is the operation type, records follow.
void Unpack(void *data, uint32_t len, ASOrchUnpackResult *result, ASOrchMsg *)
{
    if (len < 12) {
        return;
    }
    std::memcpy(&result->opType, static_cast<uint8_t *>(data) + 8, 4);
    result->opType &= 1u;
    result->ipcNum = (len - 12) / kRec;
    result->ipcBuf = static_cast<uint8_t *>(data) + 12;
}
void UnpackFree(ASOrchUnpackResult *result)
{
    result->ipcNum = 0;
}

uint32_t KeyHash(const void *key)
{
    const auto *vec = static_cast<const ASOrchMsgVec *>(key);
    uint32_t h = 2166136261u;
    for (uint32_t i = 0; i < vec->keyLen; ++i) {
        h = (h ^ static_cast<const uint8_t *>(vec->key)[i]) * 16777619u;
    }
    return h;
}

ASOrchTblMsgRecvReg g_recv[] = {
    // mergeMsgId, msgId, opType, unpack, free, ipcSize, mergeType, userDef, mergeOpType, keySize
    {kMergeMsgId, 1, 0, nullptr, nullptr, kRec, 4, nullptr, 0, 4},    // immediate, DAM
    {kMergeMsgId, 2, 0, nullptr, nullptr, kRec, 7, UserProc, 0, 4},   // user-defined
    {kMergeMsgId, 3, 1, Unpack, UnpackFree, kRec, 0, nullptr, 1, 4},  // serial, DAM queue
    {kMergeMsgId, 4, 0, nullptr, nullptr, 8, 3, nullptr, 0, 8},       // FES queue, to tail
    {kMergeMsgId, 5, 0, nullptr, nullptr, kRec, 0, nullptr, 0, 20},   // key beyond record
    {kMergeMsgId, 6, 0, nullptr, nullptr, 0, 0, nullptr, 0, 0},       // no record size
    {kMergeMsgId, 0, 1, Unpack, nullptr, kRec, 0, nullptr, 1, 4},     // serial without a release
};
ASOrchTblMsgTransReg g_dam[] = {
    // tableId, tblSize, smoothPreProc, smoothProc, procParam, tblMsgProc
    {10, 8, SmoothCb, nullptr, 1, TblProc},
    {11, 0, nullptr, SmoothCb, 2, TblProc},
    {12, 24, SmoothCb, SmoothCb, 3, TblProc},
    {13, 4, nullptr, nullptr, 4, nullptr},
};
ASOrchTblMsgTransReg g_fes[] = {
    {20, 4, SmoothCb, nullptr, 5, TblProc},
    {21, 0, nullptr, SmoothCb, 6, TblProc},
    {22, 16, nullptr, nullptr, 7, nullptr},
};
ASOrchMergeMsg g_mergeMsg[] = {{kMergeMsgId, {MsgProc, MsgProc, MsgProc, nullptr}}};

ASOrchHandle *Orchestrator()
{
    static ASOrchHandle *handle = [] {
        RIX_TEST_Reset();
        RIX_TEST_LogCapture(1);
        ASOrchCreatePara para{1, 0, Alloc, Free, 2};
        ASOrchHandle *h = ASOrchCreate("fuzz", &para);
        if (h == nullptr) {
            std::abort();
        }
        ASOrchBasePara base{};
        base.recvTblMsg[0] = {g_recv, 3};
        base.recvTblMsg[1] = {g_recv + 3, 4};
        base.transTblMsg[0] = {g_dam, sizeof(g_dam) / sizeof(g_dam[0])};
        base.transTblMsg[1] = {g_fes, sizeof(g_fes) / sizeof(g_fes[0])};
        base.mergeMque[0] = {g_mergeMsg, 1, 256, KeyHash, 0, 0};
        base.mergeMque[1] = {g_mergeMsg, 1, 256, KeyHash, 0, 0};
        if (ASOrchRegTblMsg(h, &base) != 0 || ASOrchRegMerge(h, &base) != 0) {
            std::abort();
        }
        return h;
    }();
    return handle;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    ASOrchHandle *handle = Orchestrator();
    if (size == 0 || size > (1u << 20)) {
        return 0;
    }
    const uint8_t sel = data[0];
    const size_t len = size - 1;
    auto *body = static_cast<uint8_t *>(std::malloc(len == 0 ? 1 : len));
    if (len != 0) {
        std::memcpy(body, data + 1, len);
    }
    uint32_t msgId = sel & 7u;
    if ((sel & 0x80u) != 0) {
        msgId = ASORCH_TRANS_MSGID_BASE | (sel & 0xFu);
        if ((sel & 0x40u) != 0) {
            for (const char *op : {"RIX_ENTRY_ProcVrfStateBegin", "RIX_ENTRY_ProcVrfStateEnd", "RIX_ENTRY_ProcVrfState",
                                   "RIX_ENTRY_ProcVrfDataBegin", "RIX_ENTRY_ProcVrfDataEnd"}) {
                RIX_TEST_FailAlways(op, 1);
            }
        }
    }
    ASOrchMsg msg{body, msgId, static_cast<uint32_t>(len)};
    (void)ASOrchMsgProc(handle, &msg);
    // Drain what the queues hold, on this thread, before the body goes away.
    (void)RIX_TEST_EalRunUntilIdle(ASOrchGetEalHdl(handle), 0);
    std::free(body);
    RIX_TEST_Reset();
    RIX_TEST_LogCapture(1);
    return 0;
}
