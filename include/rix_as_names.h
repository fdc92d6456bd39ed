/* Module-name registry and the small containers. */
#ifndef RIX_AS_NAMES_H
#define RIX_AS_NAMES_H

#include "rix_as_common.h"

ASORCH_EXTERN_C_BEGIN

ASORCH_EXTERN_C_END

#endif
