// Placeholder row of the base pipeline until merge handles land: registers nothing.
#include "include/rix_as_orch.h"

extern "C" {

uint32_t ASOrchRegMerge(ASOrchHandle *, ASOrchBasePara *) { return 0; }
void ASOrchFreeMergeHandle(ASOrchHandle *) {}

}
