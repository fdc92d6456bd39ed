/* The check patterns of the example's data: the broker writes them, the module and the peer
 * verify them, so that a byte lost or moved on the way shows. */
#ifndef RIX_EXAMPLE_RECORD_H
#define RIX_EXAMPLE_RECORD_H

#include "example.h"

static inline uint32_t ExTableTag(int table)
{
    return table == EX_T_DAM ? EX_TAG_DAM : EX_TAG_FES;
}

static inline int ExTableOfTag(uint32_t tag)
{
    return tag == EX_TAG_DAM ? EX_T_DAM : tag == EX_TAG_FES ? EX_T_FES : -1;
}

static inline uint32_t ExMix(uint32_t a, uint32_t b)
{
    uint32_t h = a * 0x9E3779B1u ^ (b + 0x7F4A7C15u + (a << 6) + (a >> 2));
    h ^= h >> 15;
    h *= 0x2C1B3C6Du;
    h ^= h >> 12;
    return h;
}

static inline uint32_t ExRecordCheck(const ExRecord *r)
{
    uint32_t h = ExMix(r->key, r->tag);
    h = ExMix(h, r->keyVer);
    h = ExMix(h, r->seq);
    h = ExMix(h, r->op);
    return ExMix(h, r->state);
}

/* Fills a whole record: the fields, their check and the pattern of the remaining bytes. */
static inline void ExRecordFill(uint8_t *out, uint32_t size, const ExRecord *r)
{
    ExRecord tmp = *r;
    tmp.check = ExRecordCheck(&tmp);
    memcpy(out, &tmp, sizeof(tmp));
    for (uint32_t i = (uint32_t)sizeof(tmp); i < size; i++) {
        out[i] = (uint8_t)(tmp.check + i);
    }
}

/* 0 when the record is intact and of the run's size. */
static inline int ExRecordVerify(const void *data, uint32_t size, ExRecord *out)
{
    if (size != g_run.opt.recordSize) {
        return -1;
    }
    memcpy(out, data, sizeof(*out));
    if (out->check != ExRecordCheck(out)) {
        return -1;
    }
    const uint8_t *b = data;
    for (uint32_t i = (uint32_t)sizeof(*out); i < size; i++) {
        if (b[i] != (uint8_t)(out->check + i)) {
            return -1;
        }
    }
    return 0;
}

/* Transfer tables: every word of an entry is derived from {table, entry index, salt}. */
static inline uint32_t ExEntryWord(uint32_t tableId, uint32_t salt, uint32_t entry, uint32_t word)
{
    return ExMix(ExMix(tableId, salt), entry * 64u + word);
}

static inline void ExFillEntries(uint8_t *out, uint32_t tableId, uint32_t salt, uint32_t num, uint32_t size)
{
    for (uint32_t e = 0; e < num; e++) {
        uint8_t *p = out + (size_t)e * size;
        ExWr32(p, salt);
        ExWr32(p + 4, e);
        for (uint32_t w = 2; w < size / 4u; w++) {
            ExWr32(p + 4 * w, ExEntryWord(tableId, salt, e, w));
        }
    }
}

static inline int ExVerifyEntries(const uint8_t *tables, uint32_t tableId, uint32_t num, uint32_t size)
{
    for (uint32_t e = 0; e < num; e++) {
        const uint8_t *p = tables + (size_t)e * size;
        uint32_t salt = ExRd32(p);
        if (ExRd32(p + 4) != e) {
            return -1;
        }
        for (uint32_t w = 2; w < size / 4u; w++) {
            if (ExRd32(p + 4 * w) != ExEntryWord(tableId, salt, e, w)) {
                return -1;
            }
        }
    }
    return 0;
}

#endif
