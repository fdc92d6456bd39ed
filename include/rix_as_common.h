/* Definitions shared by every header of librix_autosync_orch, and the conventions that hold
 * for the whole interface unless a function's comment says otherwise.
 *
 * Results
 *   A function returning a uint32_t status gives ASORCH_OK (0) on success and ASORCH_ERR (1)
 *   on failure. A few hand a platform result on unchanged (said where it applies); those may
 *   be any non-zero value on failure. A function returning a pointer gives null on failure;
 *   sync-group id lookups give -1 for "no such group". Nothing is retried.
 *
 * Logging
 *   Every failure writes one line at level ASORCH_LOG_ERROR, most successes one at
 *   ASORCH_LOG_INFO, through RIX_AUTOSYNC_RixLog: the platform's diagnostic log
 *   (FRM_DiagLogWrite) under the tag "AUTOSYNC_ORCH". Lines about an orchestrator begin with
 *   its module name. On the message path some failures are visible only as a log line, not
 *   in the result (see ASOrchMsgProc); the host test kit (rix_platform_test.h) captures lines.
 *
 * Memory and ownership
 *   The library allocates nothing of its own. Everything an orchestrator keeps comes from the
 *   memAlloc given to ASOrchCreate and goes back through its memFree, which must be callable
 *   from every thread that runs the library (the DATA thread releases merged records). A merge
 *   queue created with RIX_MergeQueCreate uses the functions in its create parameters.
 *   Registration copies what it keeps: ASOrchBasePara and the arrays it points to may be
 *   released when ASOrchRegBase returns. ASOrchMsgProc keeps nothing of msg or msg->data: the
 *   records are handed to the module's functions during the call, or copied (key and data, one
 *   block from memAlloc) into a merge queue; the body stays the caller's and is never freed
 *   by the library. Pointers handed to a module's callback (records, tables, message vectors)
 *   are valid only during that call.
 *
 * Threads
 *   The library starts no threads; the platform's abstraction layer runs the DATA thread
 *   (always) and the SYNC and EVENT threads on request, each an epoll loop. ASOrchCreate,
 *   the ASOrchAdvSet* setters, ASOrchRegBase, ASOrchInit, ASOrchStart, ASOrchModInitOk and
 *   ASOrchDestroy run on one thread of the module, and a process creates or destroys one
 *   orchestrator at a time (the module-name list has no lock). After registration the
 *   registries are only read, so ASOrchMsgProc may run on any thread, with one exception:
 *   a merge queue has no lock, so everything that writes into one (ASOrchMsgProc for records
 *   of merge type 0 to 3, ASOrchMsgMerge, ASOrchMergeSyncGrpDatas, RIX_MergeQue* on it) must
 *   run on the thread that drains it -- the DATA thread, which also receives the DAM, FES and
 *   UP channels -- or be serialised with it by the module. The ASOrchSync* senders may be
 *   called from any thread. A module's callbacks run on the thread that caused them: msgProc
 *   of merged records on the DATA thread, every other on the thread that called
 *   ASOrchMsgProc. The only locks are the two mutexes of the process-wide merge-queue name
 *   tree.
 *
 * Exported internals
 *   Besides the calls a module makes, the headers export the steps and helpers behind them
 *   (the seven registration steps, message entry, table parsing, the merge path, the queue's
 *   parts) for tests and hot patches. They behave as described for the call they belong to;
 *   a module needs only the functions that README.md and examples/ use. */
#ifndef RIX_AS_COMMON_H
#define RIX_AS_COMMON_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
#define ASORCH_EXTERN_C_BEGIN extern "C" {
#define ASORCH_EXTERN_C_END }
#else
#define ASORCH_EXTERN_C_BEGIN
#define ASORCH_EXTERN_C_END
#endif

/* Marks what the library exports; everything else is hidden. */
#define ASORCH_API __attribute__((visibility("default")))

/* Layouts given in bytes hold on the 32-bit target; elsewhere pointers widen them. */
#if UINTPTR_MAX == 0xFFFFFFFFu
#define ASORCH_TARGET_32BIT 1
#ifdef __cplusplus
#define ASORCH_LAYOUT_ASSERT(cond, msg) static_assert(cond, msg)
#else
#define ASORCH_LAYOUT_ASSERT(cond, msg) _Static_assert(cond, msg)
#endif
#else
#define ASORCH_TARGET_32BIT 0
/* Still a declaration, so the trailing semicolon stays valid under -pedantic. */
#ifdef __cplusplus
#define ASORCH_LAYOUT_ASSERT(cond, msg) static_assert(true, msg)
#else
#define ASORCH_LAYOUT_ASSERT(cond, msg) _Static_assert(1, msg)
#endif
#endif

ASORCH_EXTERN_C_BEGIN

typedef struct ASOrchHandle ASOrchHandle;

/* The module's allocator (null on failure) and release function; both may be called from
 * the DATA thread as well as from the thread that calls the library. */
typedef void *(*ASOrchMemAllocFunc)(uint32_t size);
typedef void (*ASOrchMemFreeFunc)(void *ptr);

#define ASORCH_OK 0u
#define ASORCH_ERR 1u

/* Log levels of RIX_AUTOSYNC_RixLog. */
#define ASORCH_LOG_INFO 0u
#define ASORCH_LOG_ERROR 1u

/* Formats one line (at most 255 characters; a longer line is dropped whole, not cut) and
 * hands it to the platform's diagnostic log under the tag "AUTOSYNC_ORCH". The level is not
 * passed on. Any thread. */
ASORCH_API void RIX_AUTOSYNC_RixLog(uint32_t level, const char *format, ...) __attribute__((format(printf, 2, 3)));

ASORCH_EXTERN_C_END

#endif
