// Helpers shared by the merge files; not exported.
#ifndef RIX_AS_MERGE_INTERNAL_H
#define RIX_AS_MERGE_INTERNAL_H

#include "rix_as_orch.h"

namespace asorch::merge {

// What the write path hands to its queue as key and data. The queue copies only the vector;
// the merge callback parks the pending copy's block here, and the writer releases it once the
// queue has taken the arriving vector, so a merge that fails leaves the pending entry whole.
struct WriteVec {
    ASOrchMsgVec vec;
    void *retired;
    // The hash service hashes the key at each keyed call of one write (find, add, bucket count);
    // ASOrchMergeHashFunc remembers its answer for the vector being written.
    const ASOrchHandle *memoHandle;
    uint32_t memoChan;
    uint32_t memoBucket;
};
static_assert(offsetof(WriteVec, vec) == 0, "the queue reads the vector at the pointer it is given");

// The vector this thread is writing into a queue, or null.
extern constinit thread_local WriteVec *t_writing __attribute__((tls_model("initial-exec"), visibility("hidden")));

// Writes the records of one message into the queue mergeType picks, each a copy of tmpl with
// key and data at the record; what every record would check alike is checked once. False,
// having written nothing, when the run cannot go this way: then each record goes through
// ASOrchMsgMerge, which says why.
bool WriteRun(ASOrchHandle *handle, uint32_t mergeType, const ASOrchMsgVec &tmpl, const ASOrchIpcBuf &run);

// Returns the nodes and the bucket block of a merge-message hash to the module's allocator.
void ReleaseMergeMsgHash(ASOrchHandle *handle, ASIntHash *hash);

// Releases the private copy that a queued vector refers to (data is the vector).
uint32_t ReleaseCopy(void *data, uint32_t dataSize);

// Takes both readers out of the DATA thread's epoll set, waiting for a drain already running,
// and silences the water-mark monitors: nothing of the queues runs on other threads afterwards.
void Quiesce(ASOrchHandle *handle);

}  // namespace asorch::merge

#endif
