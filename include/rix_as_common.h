/* Definitions shared by every header of librix_autosync_orch. */
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

/* The module's allocator (null on failure) and release function. */
typedef void *(*ASOrchMemAllocFunc)(uint32_t size);
typedef void (*ASOrchMemFreeFunc)(void *ptr);

#define ASORCH_OK 0u
#define ASORCH_ERR 1u

/* Log levels of RIX_AUTOSYNC_RixLog. */
#define ASORCH_LOG_INFO 0u
#define ASORCH_LOG_ERROR 1u

/* Formats one line (at most 255 characters, else dropped) and hands it to the platform's
 * diagnostic log under the tag "AUTOSYNC_ORCH". */
ASORCH_API void RIX_AUTOSYNC_RixLog(uint32_t level, const char *format, ...)
    __attribute__((format(printf, 2, 3)));

ASORCH_EXTERN_C_END

#endif
