/* Channels towards the broker and the worker threads. */
#ifndef RIX_AS_CHAN_H
#define RIX_AS_CHAN_H

#include "rix_as_common.h"

ASORCH_EXTERN_C_BEGIN

/* Channel numbers: they index chanPort, g_ASOrchChanParam and RIX_EAL_GetChannelHdl. DAM,
 * FES and UP are received on the DATA thread, EVT on the EVENT thread (on DATA when the
 * module has no EVENT thread). */
#define ASORCH_CHAN_DAM 0u
#define ASORCH_CHAN_FES 1u
#define ASORCH_CHAN_UP 2u
#define ASORCH_CHAN_EVT 3u
#define ASORCH_CHAN_NUM 4u
#define ASORCH_CHAN_PORT_SLOTS 8u

/* Thread ids; bit i of a thread mask stands for thread i. DATA is required and runs the merge
 * queues' drains; SYNC and EVENT are optional. */
#define ASORCH_THREAD_DATA 0u
#define ASORCH_THREAD_SYNC 1u
#define ASORCH_THREAD_EVENT 2u
#define ASORCH_THREAD_NUM 3u

/* One chanPort slot of the base parameters. */
typedef struct ASOrchChanPort {
    uint32_t realServerPort; /* 0: channel not wanted, but at least one of slots 0 to 3
                              * must be non-zero; a port in slots 4 to 7 is refused;
                              * low 16 bits used */
    uint32_t chanArg;        /* handed to the layer unchanged */
} ASOrchChanPort;

typedef uint32_t (*ASOrchChanServerIpFunc)(void);

/* The channel record handed to the abstraction layer (156 bytes on the target). */
typedef struct ASOrchChanPara {
    uint32_t chanNo;
    uint32_t word1;
    char chanName[32];
    uint32_t rsv10[8];
    uint32_t word18;
    uint32_t recvThreadId;
    uint32_t word20;
    ASOrchChanServerIpFunc serverIpFunc;
    uint32_t word22;
    uint32_t rsv23;
    uint16_t serverPort; /* network byte order */
    uint16_t rsv24;
    uint32_t rsv25[2];
    uint32_t word27;
    uint32_t rsv28;
    uint32_t word29;
    uint32_t rsv30[9];
} ASOrchChanPara;

/* The thread descriptor handed to the abstraction layer (40 bytes). */
typedef struct ASOrchThreadCfg {
    uint32_t threadId;
    char threadName[32];
    uint32_t threadAttr;
} ASOrchThreadCfg;

ASORCH_LAYOUT_ASSERT(sizeof(ASOrchChanPara) == 156, "channel record is 156 bytes");
ASORCH_LAYOUT_ASSERT(offsetof(ASOrchChanPara, word1) == 4, "word 1 at 4");
ASORCH_LAYOUT_ASSERT(offsetof(ASOrchChanPara, chanName) == 8, "chanName at 8");
ASORCH_LAYOUT_ASSERT(offsetof(ASOrchChanPara, word18) == 72, "word 18 at 72");
ASORCH_LAYOUT_ASSERT(offsetof(ASOrchChanPara, recvThreadId) == 76, "thread id at 76");
ASORCH_LAYOUT_ASSERT(offsetof(ASOrchChanPara, word20) == 80, "word 20 at 80");
ASORCH_LAYOUT_ASSERT(offsetof(ASOrchChanPara, serverIpFunc) == 84, "server address at 84");
ASORCH_LAYOUT_ASSERT(offsetof(ASOrchChanPara, word22) == 88, "word 22 at 88");
ASORCH_LAYOUT_ASSERT(offsetof(ASOrchChanPara, serverPort) == 96, "port at 96");
ASORCH_LAYOUT_ASSERT(offsetof(ASOrchChanPara, word27) == 108, "word 27 at 108");
ASORCH_LAYOUT_ASSERT(offsetof(ASOrchChanPara, word29) == 116, "word 29 at 116");
ASORCH_LAYOUT_ASSERT(sizeof(ASOrchThreadCfg) == 40, "thread descriptor is 40 bytes");
ASORCH_LAYOUT_ASSERT(offsetof(ASOrchThreadCfg, threadAttr) == 36, "threadAttr at 36");

struct ASOrchBasePara;

/* Short channel names "DAM", "FES", "UP", "EVT" at 0 to 3; null at 4 to 7. */
ASORCH_API extern const char *const g_ASChannelName[ASORCH_CHAN_PORT_SLOTS];
/* One row per channel, in channel order; registration works on a copy of a row. */
ASORCH_API extern const ASOrchChanPara g_ASOrchChanParam[ASORCH_CHAN_NUM];

ASORCH_API const char *ASGetChnlName(uint32_t chanNo);
/* Base step "channel": registers every channel whose slot has a port, towards the broker at
 * 127.0.0.1. 1 with "%s, no valid realServerPort." when no slot has one, with "%s, chanPort
 * slot %u has no channel." for a port in slots 4 to 7, or when the layer refuses a channel. */
ASORCH_API uint32_t ASOrchRegBaseChan(ASOrchHandle *handle, struct ASOrchBasePara *para);
/* Registers one channel from a copy of row (name prefixed, port filled in). */
ASORCH_API uint32_t ASOrchRegChannel(ASOrchHandle *handle, const ASOrchChanPort *port, const ASOrchChanPara *row);
/* Puts the module name in front of a 32-byte channel name, in place; nameLen is not used. */
ASORCH_API uint32_t ASOrchChanAddNamePrefix(ASOrchHandle *handle, uint32_t nameLen, char *chanName);
/* Fills a channel record from its slot: the port (network byte order), chanArg, the
 * broker-address function and the layer's fixed words. */
ASORCH_API void ASOrchChanParamCfg(ASOrchChanPara *chan, const ASOrchChanPort *port);
/* The broker's address, IPv4 in network byte order. */
ASORCH_API uint32_t ASOrchGetChanServerIp(void);

/* Builds a mask from count (1 to 3) distinct thread ids: the first, then count - 1 more
 * as uint32_t variable arguments. */
ASORCH_API uint32_t ASOrchThreadSet(uint32_t *mask, uint32_t count, uint32_t firstId, ...);
/* Base step "RegThread": registers the threads of the handle's mask, named after the module;
 * 1 when the mask lacks the DATA bit. Keeps the mask in the handle. */
ASORCH_API uint32_t ASOrchRegThread(ASOrchHandle *handle, struct ASOrchBasePara *para);
/* The parts of "RegThread": thread names, then the registration of count rows. */
ASORCH_API uint32_t ASOrchSetThreadName(ASOrchHandle *handle, ASOrchThreadCfg *rows, uint32_t count);
ASORCH_API uint32_t ASOrchRegThreadBase(ASOrchHandle *handle, struct ASOrchBasePara *para, ASOrchThreadCfg *rows,
                                        uint32_t count);

ASORCH_EXTERN_C_END

#endif
