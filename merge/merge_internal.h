// Helpers shared by the merge files; not exported.
#ifndef RIX_AS_MERGE_INTERNAL_H
#define RIX_AS_MERGE_INTERNAL_H

#include "include/rix_as_orch.h"

extern "C" {

// The registration node of vec's msgId, or null (also for a channel never built).
ASOrchMergeMsgNode *ASOrchGetMergeMsg(const ASIntHash *hash, const ASOrchMsgVec *vec);

}

namespace asmerge {

// Returns the nodes and the bucket block of a merge-message hash to the module's allocator.
void ReleaseMergeMsgHash(ASOrchHandle *handle, ASIntHash *hash);

// Takes every pending vector out of a queue and releases its block without processing it.
void DiscardPending(MergeQueCb *queue);

}  // namespace asmerge

#endif
