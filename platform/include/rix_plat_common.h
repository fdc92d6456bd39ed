/* Common definitions of the platform's sibling libraries (stand-ins). */
#ifndef RIX_PLAT_COMMON_H
#define RIX_PLAT_COMMON_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
#define RIX_PLAT_EXTERN_C_BEGIN extern "C" {
#define RIX_PLAT_EXTERN_C_END }
#else
#define RIX_PLAT_EXTERN_C_BEGIN
#define RIX_PLAT_EXTERN_C_END
#endif

#define RIX_PLAT_API __attribute__((visibility("default")))

/* The module's allocator and release function, as the platform passes them around. */
typedef void *(*RIX_PLAT_MemAllocFunc)(uint32_t size);
typedef void (*RIX_PLAT_MemFreeFunc)(void *ptr);

#endif
