/* Smoothing items of transfer messages: every TLV whose type is not 1, 2, 18 or 19 is a run
 * of these items. A module only registers smoothPreProc / smoothProc in its
 * ASOrchTblMsgTransReg; the functions below are the walk behind ASOrchMsgProc. Per item,
 * smoothProc (when set) is called instead of the platform's RIX_ENTRY_* entry point, else
 * smoothPreProc (when set) before it; their results are not used. They run on the
 * ASOrchMsgProc thread, and the record they get is valid during the call only. */
#ifndef RIX_AS_SMOOTH_H
#define RIX_AS_SMOOTH_H

#include "rix_as_common.h"
#include "rix_as_tblmsg.h"

ASORCH_EXTERN_C_BEGIN

/* Header of one smoothing item; length counts the header and the payload words behind it. */
typedef struct ASOrchSmoothItem {
    uint32_t optType; /* handler slot, below ASORCH_SMOOTH_SLOT_NUM */
    uint32_t length;
    uint32_t tableId;
} ASOrchSmoothItem;

#define ASORCH_SMOOTH_SLOT_NUM 192u
#define ASORCH_SMOOTH_ITEM_HDR_LEN 12u

/* Item types. */
#define ASORCH_SMOOTH_CLASS_BEGIN 7u
#define ASORCH_SMOOTH_CLASS_END 8u
#define ASORCH_SMOOTH_VRF_STATE 9u
#define ASORCH_SMOOTH_VRF_DATA_BEGIN 10u
#define ASORCH_SMOOTH_VRF_DATA_END 11u
#define ASORCH_SMOOTH_PID_STATE 15u
#define ASORCH_SMOOTH_LR_CLASS 16u
#define ASORCH_SMOOTH_LR_CLASS2 17u
#define ASORCH_SMOOTH_DAM_CLASS 190u
#define ASORCH_SMOOTH_DAM_CLASS2 191u

/* Records handed to the smoothing callbacks and the platform's entry points. */
typedef struct ASOrchClassStateRec {
    uint32_t tableId;
    uint32_t srcPid;
    uint8_t flag; /* always 0 */
    uint8_t rsv[3];
} ASOrchClassStateRec;

typedef struct ASOrchVrfStateRec {
    uint32_t tableId;
    uint32_t word3;
    uint32_t word4;
    uint32_t word5;
    uint32_t topologyId;
    uint32_t vrfState;
    uint32_t rsv[12];
} ASOrchVrfStateRec;

typedef struct ASOrchVrfClassDataRec {
    uint32_t tableId;
    uint32_t srcPid;
    uint32_t word4;
    uint32_t word5;
    uint32_t word6;
    uint8_t flag; /* always 0 */
    uint8_t rsv[3];
} ASOrchVrfClassDataRec;

typedef struct ASOrchPidStateRec {
    uint32_t tableId;
    uint32_t srcPid;
    uint32_t pidState;
} ASOrchPidStateRec;

typedef struct ASOrchLrClassRec {
    uint32_t tableId;
    uint32_t word3;
    uint8_t flag; /* always 0 */
    uint8_t rsv[3];
} ASOrchLrClassRec;

ASORCH_LAYOUT_ASSERT(sizeof(ASOrchSmoothItem) == 12, "smoothing item header is three words");
ASORCH_LAYOUT_ASSERT(sizeof(ASOrchClassStateRec) == 12, "class state record is 12 bytes");
ASORCH_LAYOUT_ASSERT(sizeof(ASOrchVrfStateRec) == 72, "VRF state record is 72 bytes");
ASORCH_LAYOUT_ASSERT(sizeof(ASOrchVrfClassDataRec) == 24, "VRF class data record is 24 bytes");
ASORCH_LAYOUT_ASSERT(sizeof(ASOrchPidStateRec) == 12, "pid state record is 12 bytes");
ASORCH_LAYOUT_ASSERT(sizeof(ASOrchLrClassRec) == 12, "LR class record is 12 bytes");

/* A handler: the remaining TLV length after its item, or -1. The item may be unaligned;
 * remain is what is left of the TLV from the item on. */
typedef int32_t (*ASOrchSmoothHandler)(ASOrchHandle *handle, const ASOrchSmoothItem *item, int32_t remain,
                                       ASOrchSmoothCbFunc smoothPreProc, ASOrchSmoothCbFunc smoothProc);

/* Walks one smoothing TLV; 1 (logged) when an item is unknown, has the wrong length,
 * overruns the TLV or its platform entry point fails: the walk stops there, items before it were handled. */
ASORCH_API uint32_t ASOrchTransTblSmooth(ASOrchHandle *handle, const ASOrchTransTlv *tlv,
                                         const ASOrchTblMsgTransCtrl *ctrl);
ASORCH_API int32_t ASOrchSmoothMsgProc(ASOrchHandle *handle, const ASOrchSmoothItem *item, int32_t remain,
                                       ASOrchSmoothCbFunc smoothPreProc, ASOrchSmoothCbFunc smoothProc);
ASORCH_API int32_t ASOrchSmoothClassState(ASOrchHandle *handle, const ASOrchSmoothItem *item, int32_t remain,
                                          ASOrchSmoothCbFunc smoothPreProc, ASOrchSmoothCbFunc smoothProc);
ASORCH_API int32_t ASOrchSmoothVrfState(ASOrchHandle *handle, const ASOrchSmoothItem *item, int32_t remain,
                                        ASOrchSmoothCbFunc smoothPreProc, ASOrchSmoothCbFunc smoothProc);
ASORCH_API int32_t ASOrchSmoothVrfClassData(ASOrchHandle *handle, const ASOrchSmoothItem *item, int32_t remain,
                                            ASOrchSmoothCbFunc smoothPreProc, ASOrchSmoothCbFunc smoothProc);
ASORCH_API int32_t ASOrchSmoothPidState(ASOrchHandle *handle, const ASOrchSmoothItem *item, int32_t remain,
                                        ASOrchSmoothCbFunc smoothPreProc, ASOrchSmoothCbFunc smoothProc);
ASORCH_API int32_t ASOrchSmoothLrClassData(ASOrchHandle *handle, const ASOrchSmoothItem *item, int32_t remain,
                                           ASOrchSmoothCbFunc smoothPreProc, ASOrchSmoothCbFunc smoothProc);
ASORCH_API int32_t ASOrchSmoothDamClassData(ASOrchHandle *handle, const ASOrchSmoothItem *item, int32_t remain,
                                            ASOrchSmoothCbFunc smoothPreProc, ASOrchSmoothCbFunc smoothProc);
ASORCH_API uint32_t ASOrchSmoothMsgCheck(const ASOrchSmoothItem *item, uint32_t msgSize, int32_t remain);
ASORCH_API uint32_t ASOrchVrfStateEntry(ASOrchHandle *handle, const ASOrchSmoothItem *item,
                                        const ASOrchClassStateRec *record);
ASORCH_API uint32_t ASOrchVrfClassItemEntry(const ASOrchSmoothItem *item, const ASOrchVrfClassDataRec *record);

ASORCH_EXTERN_C_END

#endif
