/* Component function tables, from librix_utils_base. */
#ifndef COMP_VTABLE_H
#define COMP_VTABLE_H

#include "rix_plat_common.h"

RIX_PLAT_EXTERN_C_BEGIN

#define COMP_ID_ORCHPUB 1000u
#define COMP_VT_ORCHPUB 1003u

/* An entry of a component table; callers cast it to the entry's own type. */
typedef void (*COMP_VFunc)(void);

/* Entries of the "orchpub" table used by the orchestrator. */
#define ORCHPUB_VT_GET_SLOT 2u                /* uint32_t (*)(void) */
#define ORCHPUB_VT_GET_CPU 3u                 /* uint32_t (*)(void) */
#define ORCHPUB_VT_GET_ORCHID_BY_SLOT_CPU 18u /* uint32_t (*)(uint32_t slot, uint32_t cpu, uint32_t *id) */
#define ORCHPUB_VT_SIZE 32u

typedef uint32_t (*ORCHPUB_GetSlotFunc)(void);
typedef uint32_t (*ORCHPUB_GetCpuFunc)(void);
typedef uint32_t (*ORCHPUB_GetOrchIdBySlotAndCpuFunc)(uint32_t slot, uint32_t cpu, uint32_t *orchId);

/* Returns 0 and sets *table, or non-zero. */
RIX_PLAT_API uint32_t COMP_GetVTable(uint32_t compId, uint32_t vtId, const COMP_VFunc **table);

RIX_PLAT_EXTERN_C_END

#endif
