/* librix_autosync_orch: the whole exported interface. */
#ifndef RIX_AUTOSYNC_ORCH_H
#define RIX_AUTOSYNC_ORCH_H

#include "rix_as_common.h"
#include "rix_as_names.h"
#include "rix_as_orch.h"
#include "rix_as_chan.h"
#include "rix_as_tblmsg.h"
#include "rix_as_smooth.h"
#include "rix_mergeque.h"
#include "rix_as_merge.h"
#include "rix_as_syncgrp.h"

#endif
