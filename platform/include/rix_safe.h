/* Bounded memory and string functions (ISO/IEC TR 24731-1 behaviour), from librix_utils_base.
 * A non-zero result (negative for the formatters, which otherwise return the length written)
 * means a null argument, a destination too small or overlapping buffers. The string functions
 * and formatters then leave an empty string (dest[0] = 0) when dest is usable; memcpy_s zeroes
 * the destination's destMax bytes and memset_s sets them. A text that needs the destination's
 * full size or more (length >= destMax) is refused whole, never truncated. */
#ifndef RIX_SAFE_H
#define RIX_SAFE_H

#include <stdarg.h>
#include "rix_plat_common.h"

RIX_PLAT_EXTERN_C_BEGIN

RIX_PLAT_API int memcpy_s(void *dest, size_t destMax, const void *src, size_t count);
RIX_PLAT_API int memset_s(void *dest, size_t destMax, int c, size_t count);
RIX_PLAT_API int strcpy_s(char *dest, size_t destMax, const char *src);
RIX_PLAT_API int strcat_s(char *dest, size_t destMax, const char *src);
RIX_PLAT_API int sprintf_s(char *dest, size_t destMax, const char *format, ...) __attribute__((format(printf, 3, 4)));
RIX_PLAT_API int vsprintf_s(char *dest, size_t destMax, const char *format, va_list args)
    __attribute__((format(printf, 3, 0)));

RIX_PLAT_EXTERN_C_END

#endif
