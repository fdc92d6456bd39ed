// Thread-mask test shared by the channel and thread registration; not exported.
#ifndef RIX_AS_CHANNEL_THREAD_BIT_H
#define RIX_AS_CHANNEL_THREAD_BIT_H

#include <cstdint>

extern "C" {

// 1 when bit is below 32 and set in mask.
uint32_t ASOrchThreadBitTest(uint32_t bit, uint32_t mask);

}

#endif
