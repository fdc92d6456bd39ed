/* Merge orchestration: rules, merge handles, write path and receive dispatch. */
#ifndef RIX_AS_MERGE_H
#define RIX_AS_MERGE_H

#include "rix_as_common.h"
#include "rix_as_tblmsg.h"
#include "rix_mergeque.h"

ASORCH_EXTERN_C_BEGIN

typedef uint32_t (*ASOrchMergeMsgProc)(ASOrchHandle *handle, ASOrchMsgVec *vec);

typedef struct ASOrchMergeMsg {
    uint32_t msgId;
    ASOrchMergeMsgProc msgProc[4];  /* by opType */
} ASOrchMergeMsg;

/* Merge-queue registration of one channel (DAM, FES). */
typedef struct ASOrchMergeReg {
    ASOrchMergeMsg *mergeMsg;
    uint32_t mergeMsgNum;
    uint32_t hashSize;      /* 0: 8192 */
    MergeQueHashFunc hashFunc;
    uint32_t highWater;     /* 0: 65536 */
    uint32_t lowWater;      /* 0: 8192 */
} ASOrchMergeReg;

ASORCH_LAYOUT_ASSERT(sizeof(ASOrchMergeReg) == 24, "merge registration is six words");

/* Base-registration step "MergeMQue" and the release of the merge handles. */
struct ASOrchBasePara;
ASORCH_API uint32_t ASOrchRegMerge(ASOrchHandle *handle, struct ASOrchBasePara *para);
ASORCH_API void ASOrchFreeMergeHandle(ASOrchHandle *handle);

ASORCH_EXTERN_C_END

#endif
