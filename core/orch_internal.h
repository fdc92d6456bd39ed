// Orchestrator helpers shared inside the library; not exported.
#ifndef RIX_AS_CORE_ORCH_INTERNAL_H
#define RIX_AS_CORE_ORCH_INTERNAL_H

#include "rix_as_orch.h"

extern "C" {

// 1 when both the name and the create parameters are given.
uint32_t ASOrchCreateParaCheck(const char *name, const ASOrchCreatePara *para);
}

#endif
