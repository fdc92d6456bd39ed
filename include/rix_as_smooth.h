/* Smoothing items of transfer messages. */
#ifndef RIX_AS_SMOOTH_H
#define RIX_AS_SMOOTH_H

#include "rix_as_common.h"
#include "rix_as_tblmsg.h"

ASORCH_EXTERN_C_BEGIN

ASORCH_EXTERN_C_END

#endif
