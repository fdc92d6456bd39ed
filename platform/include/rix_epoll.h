/* Epoll helper, event descriptors and timers, from librix_utils_eal. */
#ifndef RIX_EPOLL_H
#define RIX_EPOLL_H

#include "rix_plat_common.h"

RIX_PLAT_EXTERN_C_BEGIN

#define RIX_EPOLL_IN 1u

/* Called by the loop that runs the epoll set, with the watched descriptor, the ready
 * events and the context given at registration. The set is level-triggered. */
typedef uint32_t (*RIX_EPOLL_CALLBACK)(int32_t fd, uint32_t events, void *ctx);

/* 0 on success. */
RIX_PLAT_API int32_t RIX_EPOLL_Add(int32_t epFd, int32_t fd, uint32_t events, RIX_EPOLL_CALLBACK callback, void *ctx);
RIX_PLAT_API int32_t RIX_EPOLL_DEL(int32_t epFd, int32_t fd);

/* An eventfd, or a negative value with errno set. */
RIX_PLAT_API int32_t eventfd_s(uint32_t initval, int32_t flags);

/* Timer callback: called on the epoll set's thread with the timer's argument. */
typedef void (*RIX_TIMER_CALLBACK)(uintptr_t arg);

/* A periodic timer (timerfd) registered on epFd: word 1 the period in milliseconds,
 * word 2 a RIX_TIMER_CALLBACK, word 3 its argument. Returns the timer's descriptor, or a
 * negative value. */
RIX_PLAT_API int32_t RIX_TIMER_Create(uintptr_t periodMs, uintptr_t callback, uintptr_t arg, int32_t epFd);

RIX_PLAT_EXTERN_C_END

#endif
