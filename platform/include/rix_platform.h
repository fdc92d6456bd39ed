/* The platform's sibling libraries as the orchestrator uses them. */
#ifndef RIX_PLATFORM_H
#define RIX_PLATFORM_H

#include "rix_plat_common.h"
#include "rix_safe.h"
#include "frm_diaglog.h"
#include "comp_vtable.h"
#include "lite_hash.h"
#include "zul_avl3.h"
#include "rix_epoll.h"
#include "rix_eal.h"
#include "rix_entry.h"

#endif
