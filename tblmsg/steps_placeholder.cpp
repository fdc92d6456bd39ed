// Placeholder rows of the base pipeline until the table-message registry lands:
// they register nothing and succeed.
#include "include/rix_as_orch.h"

extern "C" {

uint32_t ASOrchReservePort(ASOrchHandle *, ASOrchBasePara *) { return 0; }
uint32_t ASOrchRegTblMsg(ASOrchHandle *, ASOrchBasePara *) { return 0; }
void ASOrchFreeTblMsg(ASOrchHandle *) {}

}
