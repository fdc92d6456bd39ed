/* Test control of the stand-in platform libraries: captured log lines, recorded calls and
 * registrations, failure injection, stepping a thread's loop by hand. Not part of the real
 * platform; a module's host tests use it as a test kit. */
#ifndef RIX_PLATFORM_TEST_H
#define RIX_PLATFORM_TEST_H

#include "rix_eal.h"

RIX_PLAT_EXTERN_C_BEGIN

/* Back to the initial state: no failures armed, call counts 0, captured lines dropped,
 * capture off, orchpub table normal, mb role on for new instances. */
RIX_PLAT_API void RIX_TEST_Reset(void);

/* ---- Log capture (thread-safe) ---- */
RIX_PLAT_API void RIX_TEST_LogCapture(int on); /* on: lines are kept, not printed */
RIX_PLAT_API void RIX_TEST_LogClear(void);
RIX_PLAT_API uint32_t RIX_TEST_LogCount(void);
/* Message text of line i (without the tag), or null. Valid until the next clear. */
RIX_PLAT_API const char *RIX_TEST_LogLine(uint32_t i);
RIX_PLAT_API const char *RIX_TEST_LogTag(uint32_t i);
/* Number of captured lines whose message contains text. */
RIX_PLAT_API uint32_t RIX_TEST_LogFind(const char *text);

/* ---- Calls and failures, by operation name (e.g. "RIX_EAL_RegThread") ---- */
RIX_PLAT_API uint32_t RIX_TEST_CallCount(const char *op);
/* The nth call of op from now on (1 = the next one) fails, once. */
RIX_PLAT_API void RIX_TEST_FailNth(const char *op, uint32_t nth);
/* Every call of op fails until cleared with on = 0. */
RIX_PLAT_API void RIX_TEST_FailAlways(const char *op, int on);
/* What a failing call returns: null for pointers, -1 for signed results, 1 otherwise
 * (COMP_GetVTable: 5). Exceptions: LITE_HASH_RemoveNodeByKey, LITE_HASH_GetListCntByKey and
 * LITE_HASH_GetHashCnt return 0; ZUL_AVL3_Insert_Or_Find returns the node as if its key were
 * taken; ZUL_AVL3_Delete does nothing. Functions without a result are only counted. A failing
 * string function or formatter leaves an empty string, as a real violation does. */

/* ---- "orchpub" component table ---- */
enum {
    RIX_TEST_ORCHPUB_OK = 0,
    RIX_TEST_ORCHPUB_CALL_FAILS = 1, /* COMP_GetVTable returns 5 */
    RIX_TEST_ORCHPUB_NO_TABLE = 2,   /* returns 0 and leaves the table pointer null */
    RIX_TEST_ORCHPUB_NO_ENTRY18 = 3  /* entry 18 is null */
};
RIX_PLAT_API void RIX_TEST_SetOrchPub(int mode, uint32_t slot, uint32_t cpu, uint32_t orchId);

/* ---- EAL instances ---- */
RIX_PLAT_API void RIX_TEST_SetDefaultMbRole(uint32_t isMb); /* for instances created later */
RIX_PLAT_API void RIX_TEST_EalSetMbRole(void *eal, uint32_t isMb);
RIX_PLAT_API const char *RIX_TEST_EalName(void *eal);
RIX_PLAT_API const RIX_EAL_CreatePara *RIX_TEST_EalCreatePara(void *eal);
RIX_PLAT_API uint32_t RIX_TEST_EalLiveCount(void); /* instances not yet destroyed */

RIX_PLAT_API uint32_t RIX_TEST_EalThreadCount(void *eal);
RIX_PLAT_API const RIX_EAL_ThreadCfg *RIX_TEST_EalThread(void *eal, uint32_t i);
RIX_PLAT_API uint32_t RIX_TEST_EalChanCount(void *eal);
RIX_PLAT_API const RIX_EAL_ChanPara *RIX_TEST_EalChan(void *eal, uint32_t i); /* copy of the record */
RIX_PLAT_API uint32_t RIX_TEST_EalSyncGrpCount(void *eal);
RIX_PLAT_API const RIX_EAL_SyncGrpPara *RIX_TEST_EalSyncGrp(void *eal, uint32_t i);
RIX_PLAT_API uint32_t RIX_TEST_EalMsgSetCount(void *eal);
RIX_PLAT_API void RIX_TEST_EalMsgSet(void *eal, uint32_t i, uint32_t *grpId, uint32_t *msgSet);
RIX_PLAT_API uint32_t RIX_TEST_EalFlowCtlCount(void *eal);
RIX_PLAT_API const RIX_EAL_FlowCtl *RIX_TEST_EalFlowCtl(void *eal, uint32_t i, uint32_t *grpId);
/* Number of calls; the last words through the pointers (which may be null). */
RIX_PLAT_API uint32_t RIX_TEST_EalReservePort(void *eal, uint32_t *word0, uint32_t *word1);
RIX_PLAT_API uint32_t RIX_TEST_EalModStateRsp(void *eal, uint32_t *word0, uint32_t *word1);
RIX_PLAT_API uint32_t RIX_TEST_EalOndemand(void *eal, uint32_t *word0, uint32_t *word1);
RIX_PLAT_API uint32_t RIX_TEST_EalInitCount(void *eal);
RIX_PLAT_API uint32_t RIX_TEST_EalStartCount(void *eal);
RIX_PLAT_API uint32_t RIX_TEST_EalModInitOkCount(void *eal);

/* Back-press: current state (1 pressed) and the number of press and release calls. */
RIX_PLAT_API uint32_t RIX_TEST_EalSyncBackPressed(void *eal, uint32_t grpId);
RIX_PLAT_API uint32_t RIX_TEST_EalSyncBackPressCount(void *eal, uint32_t grpId, uint32_t *releases);
RIX_PLAT_API uint32_t RIX_TEST_ChanBackPressed(void *eal, uint32_t chanNo);
RIX_PLAT_API uint32_t RIX_TEST_ChanBackPressCount(void *eal, uint32_t chanNo, uint32_t *releases);

/* Sync messages: RIX_EAL_SyncMsg records (group id, count) per call and hands a copy of
 * the items to the peer function, when one is set, on the calling thread. */
typedef void (*RIX_TEST_SyncPeerFunc)(void *ctx, uint32_t grpId, const RIX_EAL_SyncItem *items, uint32_t count);
RIX_PLAT_API void RIX_TEST_EalSetSyncPeer(void *eal, RIX_TEST_SyncPeerFunc peer, void *ctx);
RIX_PLAT_API uint32_t RIX_TEST_EalSyncMsgCount(void *eal); /* calls */
RIX_PLAT_API uint32_t RIX_TEST_EalSyncMsgLast(void *eal, uint32_t *grpId, uint32_t *count);

/* Channels: what RIX_CHAN_USendMsg sent, and a broker side that delivers messages. */
RIX_PLAT_API uint32_t RIX_TEST_ChanSendCount(void *eal, uint32_t chanNo);
/* Copy of the last message sent on the channel, its length, and the address word. */
RIX_PLAT_API const void *RIX_TEST_ChanLastSent(void *eal, uint32_t chanNo, uint32_t *len, uint32_t *addr);
typedef void (*RIX_TEST_ChanRecvFunc)(void *ctx, uint32_t chanNo, const void *msg, uint32_t len);
/* The module's receive function of a registered channel: called on the channel's receiving
 * thread (its epoll loop) for every message the broker writes. */
RIX_PLAT_API void RIX_TEST_ChanSetRecv(void *eal, uint32_t chanNo, RIX_TEST_ChanRecvFunc recv, void *ctx);
/* Broker side: writes one message into the channel's descriptor; 0 on success. */
RIX_PLAT_API uint32_t RIX_TEST_ChanDeliver(void *eal, uint32_t chanNo, const void *msg, uint32_t len);

/* Loops: runs the epoll set of thread tid on the calling thread until nothing is ready;
 * returns the number of callbacks run. For instances that are not started. */
RIX_PLAT_API uint32_t RIX_TEST_EalRunUntilIdle(void *eal, uint32_t threadId);
/* Started instances: waits until the loop of thread tid has been idle once after this call
 * (everything written before the call has been handled). 0 on success, 1 on time-out. */
RIX_PLAT_API uint32_t RIX_TEST_EalWaitIdle(void *eal, uint32_t threadId, uint32_t timeoutMs);
/* Any epoll set (one of an instance or one a test made): runs the callbacks registered with
 * RIX_EPOLL_Add on the calling thread until nothing is ready; the number of callbacks run. */
RIX_PLAT_API uint32_t RIX_TEST_EpollRunUntilIdle(int32_t epFd);

/* Smoothing entry points: calls recorded with a copy of their record. */
RIX_PLAT_API uint32_t RIX_TEST_EntryCount(void);
/* Call i: the entry point's name, the record and its size. */
RIX_PLAT_API const char *RIX_TEST_EntryCall(uint32_t i, const void **record, uint32_t *size);

/* Hash service: data blocks now held by all tables, and the number of pool chunks taken from
 * the system since the last reset (blocks freed and taken again come from a table's pool and
 * do not count). */
RIX_PLAT_API uint32_t RIX_TEST_HashBlocksInUse(void);
RIX_PLAT_API uint32_t RIX_TEST_HashSystemAllocs(void);
/* Hash tables created and not yet deleted. */
RIX_PLAT_API uint32_t RIX_TEST_HashTableCount(void);
/* Bytes a data block of blockSize takes in a table's pool: the bucket node in front of it
 * plus the block, rounded up to the 8-byte alignment of blocks. */
RIX_PLAT_API uint32_t RIX_TEST_HashBlockBytes(uint32_t blockSize);

RIX_PLAT_EXTERN_C_END

#endif
