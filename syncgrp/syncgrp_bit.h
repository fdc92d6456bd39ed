// Selection-bitmap test of the logical sync groups; not exported.
#ifndef RIX_AS_SYNCGRP_SYNCGRP_BIT_H
#define RIX_AS_SYNCGRP_SYNCGRP_BIT_H

#include <cstdint>

extern "C" {

// Bit id (0 to 3) of bitmap; 0 for ids beyond the logical groups.
uint32_t ASOrchSynGrpBitTest(uint32_t id, uint32_t bitmap);
}

#endif
