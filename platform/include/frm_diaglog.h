/* The platform's diagnostic log, from librix_utils_base. */
#ifndef FRM_DIAGLOG_H
#define FRM_DIAGLOG_H

#include "rix_plat_common.h"

RIX_PLAT_EXTERN_C_BEGIN

/* Writes one line "tag: message" (to standard error unless a test captures it). */
RIX_PLAT_API void FRM_DiagLogWrite(const char *tag, const char *message);

RIX_PLAT_EXTERN_C_END

#endif
