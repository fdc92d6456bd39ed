/* The broker: offers the module its traffic through the test kit's channels, the way a real
 * broker's connections would. Keyed route updates on DAM, packed next-hop updates on FES, ARP
 * probes, interface statistics and transfer tables on UP, smoothing items on EVT; it pauses
 * while a channel is back-pressed. Runs on the main thread. */
#include "record.h"

#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>

#include "rix_platform_test.h"

static void ExNap(long ns)
{
    struct timespec ts = {0, ns};
    nanosleep(&ts, NULL);
}

static uint64_t ExRand(void)
{
    /* xorshift64* */
    uint64_t x = g_run.rng;
    x ^= x >> 12;
    x ^= x << 25;
    x ^= x >> 27;
    g_run.rng = x;
    return x * 0x2545F4914F6CDD1DULL;
}

static uint32_t ExRandBelow(uint32_t n)
{
    return (uint32_t)(((ExRand() >> 32) * (uint64_t)n) >> 32);
}

/* x to the power -s for x >= 1, without the maths library: exp(-s * ln x). The traffic
 * only needs a plausible skew, not the last bit. */
static double ExPowNeg(double x, double s)
{
    uint64_t bits;
    memcpy(&bits, &x, sizeof(bits));
    int e = (int)((bits >> 52) & 0x7FFu) - 1023;
    bits = (bits & 0x000FFFFFFFFFFFFFULL) | 0x3FF0000000000000ULL;
    double m;
    memcpy(&m, &bits, sizeof(m));
    double z = (m - 1.0) / (m + 1.0), z2 = z * z, term = z, lnm = 0.0;
    for (int k = 1; k < 40; k += 2) {
        lnm += term / k;
        term *= z2;
    }
    const double ln2 = 0.69314718055994530942;
    double y = -s * (2.0 * lnm + e * ln2);
    /* exp(y) = 2^k * exp(r) with |r| <= ln2 / 2 */
    int k2 = (int)(y / ln2 + (y < 0.0 ? -0.5 : 0.5));
    double r = y - k2 * ln2, sum = 1.0, t = 1.0;
    for (int i = 1; i < 24; i++) {
        t *= r / i;
        sum += t;
    }
    if (k2 < -1000) {
        return 0.0;
    }
    uint64_t scale = (uint64_t)(k2 + 1023) << 52;
    double f;
    memcpy(&f, &scale, sizeof(f));
    return sum * f;
}

/* Seeds the generator and builds the key distribution. */
int ExBrokerInit(void)
{
    g_run.rng = g_run.opt.seed * 0x9E3779B97F4A7C15ULL + 0x632BE59BD9B4E019ULL;
    uint32_t n = g_run.opt.keys;
    g_run.zipfCdf = malloc(sizeof(double) * n);
    if (g_run.zipfCdf == NULL) {
        return -1;
    }
    double sum = 0.0;
    for (uint32_t i = 0; i < n; i++) {
        sum += ExPowNeg((double)i + 1.0, g_run.opt.skew);
        g_run.zipfCdf[i] = sum;
    }
    for (uint32_t i = 0; i < n; i++) {
        g_run.zipfCdf[i] /= sum;
    }
    return 0;
}

void ExBrokerFree(void)
{
    free(g_run.zipfCdf);
    g_run.zipfCdf = NULL;
}

/* A key drawn by the Zipf law; ranks are spread over the key space so hot keys are not adjacent. */
static uint32_t ExPickKey(void)
{
    double u = (double)(ExRand() >> 11) * (1.0 / 9007199254740992.0);
    uint32_t lo = 0, hi = g_run.opt.keys - 1u;
    while (lo < hi) {
        uint32_t mid = lo + (hi - lo) / 2u;
        if (g_run.zipfCdf[mid] < u) {
            lo = mid + 1u;
        } else {
            hi = mid;
        }
    }
    return (uint32_t)(((uint64_t)lo * 2654435761u) % g_run.opt.keys);
}

/* Writes one body into a channel, waiting while the channel is back-pressed. */
static int ExBrokerSend(uint32_t chan, const void *body, uint32_t len)
{
    double giveUp = 0.0;
    for (;;) {
        if (RIX_TEST_ChanBackPressed(g_run.modEal, chan) != 0u) {
            g_run.broker.backPressWaits++;
            ExNap(20000);
            continue;
        }
        if (RIX_TEST_ChanDeliver(g_run.modEal, chan, body, len) == 0u) {
            g_run.broker.messages[chan]++;
            return 0;
        }
        /* The descriptor is full: the module is busy. */
        g_run.broker.deliverRetries++;
        double now = ExNow();
        if (giveUp == 0.0) {
            giveUp = now + 30.0;
        } else if (now > giveUp) {
            ExError("channel %u refused a message of %u bytes for 30 s", chan, len);
            return -1;
        }
        ExNap(50000);
    }
}

static uint64_t ExRemaining(void)
{
    uint64_t done = ExOfferedAll();
    return done >= g_run.opt.records ? 0u : g_run.opt.records - done;
}

/* Records in the next message: as many as fit the body and the burst limit, at most the
 * records still to offer. */
static uint32_t ExBurst(uint32_t perRecord, uint32_t fixed)
{
    uint32_t max = (EX_MAX_BODY - fixed) / perRecord;
    if (max > g_run.opt.maxBurst) {
        max = g_run.opt.maxBurst;
    }
    uint32_t n = 1u + ExRandBelow(max);
    return n > ExRemaining() ? (uint32_t)ExRemaining() : n;
}

static ExRecord ExNextOffer(int table, uint32_t key, uint32_t op)
{
    ExKeyBook *k = &g_run.books[table].keys[key];
    ExRecord r = {key, ExTableTag(table), ++k->offerVer, (uint32_t)++g_run.broker.seq, op, (uint32_t)ExRand(), 0u};
    k->lastOfferedOp = op;
    k->lastOfferedState = r.state;
    return r;
}

/* A burst of route updates on DAM, plain records. */
static int ExSendRoutes(uint8_t *buf)
{
    uint32_t size = g_run.opt.recordSize;
    uint32_t n = ExBurst(size, EX_HDR_SIZE);
    uint32_t op = ExRandBelow(5u) == 0u ? 1u : 0u;
    ExWr32(buf, op == 1u ? EX_MSG_ROUTE_DEL : EX_MSG_ROUTE_ADD);
    ExWr32(buf + 4, n);
    for (uint32_t i = 0; i < n; i++) {
        ExRecord r = ExNextOffer(EX_T_DAM, ExPickKey(), op);
        ExRecordFill(buf + EX_HDR_SIZE + (size_t)i * size, size, &r);
    }
    g_run.broker.offered[EX_T_DAM] += n;
    return ExBrokerSend(ASORCH_CHAN_DAM, buf, EX_HDR_SIZE + n * size);
}

/* A burst of next-hop updates on FES, serially packed. */
static int ExSendNextHops(uint8_t *buf)
{
    uint32_t n = ExBurst((uint32_t)sizeof(ExPackedRec), EX_PACKED_HDR_SIZE);
    uint32_t op = ExRandBelow(4u) == 0u ? 1u : 0u;
    ExWr32(buf, op == 1u ? EX_MSG_NHP_DEL : EX_MSG_NHP_ADD);
    ExWr32(buf + 4, n);
    ExWr32(buf + 8, op == 1u ? EX_NHP_DEL_OPTYPE : EX_NHP_ADD_OPTYPE);
    ExWr32(buf + 12, 0u);
    for (uint32_t i = 0; i < n; i++) {
        ExRecord r = ExNextOffer(EX_T_FES, ExPickKey(), op);
        ExPackedRec pr = {r.key, r.keyVer, r.seq, r.state};
        memcpy(buf + EX_PACKED_HDR_SIZE + (size_t)i * sizeof(pr), &pr, sizeof(pr));
    }
    g_run.broker.offered[EX_T_FES] += n;
    return ExBrokerSend(ASORCH_CHAN_FES, buf, EX_PACKED_HDR_SIZE + n * (uint32_t)sizeof(ExPackedRec));
}

/* Records that are not keyed state: ARP probes (at once, DAM) or interface statistics (UP). */
static int ExSendUnmerged(uint8_t *buf, int arp)
{
    uint32_t size = g_run.opt.recordSize;
    uint32_t n = ExBurst(size, EX_HDR_SIZE);
    ExWr32(buf, arp ? EX_MSG_ARP_PROBE : EX_MSG_IF_STATS);
    ExWr32(buf + 4, n);
    for (uint32_t i = 0; i < n; i++) {
        ExRecord r = {ExRandBelow(1u << 20),
                      arp ? EX_TAG_ARP : EX_TAG_STATS,
                      1u,
                      (uint32_t)++g_run.broker.seq,
                      0u,
                      (uint32_t)ExRand(),
                      0u};
        ExRecordFill(buf + EX_HDR_SIZE + (size_t)i * size, size, &r);
    }
    if (arp) {
        g_run.broker.offeredImmediate += n;
        return ExBrokerSend(ASORCH_CHAN_DAM, buf, EX_HDR_SIZE + n * size);
    }
    g_run.broker.offeredUserDef += n;
    return ExBrokerSend(ASORCH_CHAN_UP, buf, EX_HDR_SIZE + n * size);
}

static uint8_t *ExPutTlv(uint8_t *p, uint32_t tableId, uint32_t type, uint32_t len)
{
    ExWr32(p, tableId);
    ExWr32(p + 4, type);
    ExWr32(p + 8, len);
    return p + 12;
}

/* A transfer message on UP: a DAM-layout table, a FES-layout table and a composite table. */
static int ExSendTables(uint8_t *buf)
{
    uint32_t salt = (uint32_t)ExRand();
    uint32_t damN = 1u + ExRandBelow(32u);
    uint32_t fesN = 1u + ExRandBelow(32u);
    uint32_t compN = ExRandBelow(8u);
    uint8_t *p = buf + 12;
    p = ExPutTlv(p, EX_TBL_DAM, 1u, damN * EX_DAM_ENTRY_SIZE);
    ExFillEntries(p, EX_TBL_DAM, salt, damN, EX_DAM_ENTRY_SIZE);
    p += damN * EX_DAM_ENTRY_SIZE;
    p = ExPutTlv(p, EX_TBL_FES, 1u, 8u + fesN * EX_FES_ENTRY_SIZE);
    ExWr32(p, 0u);
    ExWr32(p + 4, fesN * EX_FES_ENTRY_SIZE);
    ExFillEntries(p + 8, EX_TBL_FES, salt, fesN, EX_FES_ENTRY_SIZE);
    p += 8u + fesN * EX_FES_ENTRY_SIZE;
    p = ExPutTlv(p, EX_TBL_COMP, 18u + (salt & 1u), compN * 16u);
    ExFillEntries(p, EX_TBL_COMP, salt, compN, 16u);
    p += compN * 16u;
    uint32_t total = (uint32_t)(p - buf);
    ExWr32(buf, EX_MSG_TRANS_TABLES);
    ExWr32(buf + 4, 3u);
    ExWr32(buf + 8, total - 12u);
    g_run.broker.damEntries += damN;
    g_run.broker.fesEntries += fesN;
    g_run.broker.compTables++;
    return ExBrokerSend(ASORCH_CHAN_UP, buf, total);
}

static uint8_t *ExPutItem(uint8_t *p, uint32_t type, uint32_t len, uint32_t tableId, uint32_t salt)
{
    ExWr32(p, type);
    ExWr32(p + 4, len);
    ExWr32(p + 8, tableId);
    for (uint32_t off = 12u; off < len; off += 4u) {
        ExWr32(p + off, ExMix(salt, off));
    }
    return p + len;
}

/* A transfer message on EVT: smoothing items for the platform's entry points and for the
 * module's own smoothing. */
static int ExSendSmoothing(uint8_t *buf)
{
    uint32_t salt = (uint32_t)ExRand();
    uint8_t *p = buf + 12;
    uint8_t *tlv = p;
    p += 12;
    p = ExPutItem(p, ASORCH_SMOOTH_CLASS_BEGIN, 16u, EX_TBL_SMOOTH_PLAT, salt);
    p = ExPutItem(p, ASORCH_SMOOTH_PID_STATE, 20u, EX_TBL_SMOOTH_PLAT, salt);
    p = ExPutItem(p, ASORCH_SMOOTH_VRF_STATE, 32u, EX_TBL_SMOOTH_PLAT, salt);
    p = ExPutItem(p, ASORCH_SMOOTH_VRF_DATA_BEGIN, 28u, EX_TBL_SMOOTH_PLAT, salt);
    p = ExPutItem(p, ASORCH_SMOOTH_VRF_DATA_END, 28u, EX_TBL_SMOOTH_PLAT, salt);
    p = ExPutItem(p, ASORCH_SMOOTH_CLASS_END, 16u, EX_TBL_SMOOTH_PLAT, salt);
    p = ExPutItem(p, ASORCH_SMOOTH_DAM_CLASS, 16u, EX_TBL_SMOOTH_PLAT, salt);
    ExPutTlv(tlv, EX_TBL_SMOOTH_PLAT, 5u, (uint32_t)(p - tlv) - 12u);
    tlv = p;
    p += 12;
    p = ExPutItem(p, ASORCH_SMOOTH_CLASS_BEGIN, 16u, EX_TBL_SMOOTH_OWN, salt);
    p = ExPutItem(p, ASORCH_SMOOTH_LR_CLASS, 16u, EX_TBL_SMOOTH_OWN, salt);
    p = ExPutItem(p, ASORCH_SMOOTH_LR_CLASS2, 16u, EX_TBL_SMOOTH_OWN, salt);
    p = ExPutItem(p, ASORCH_SMOOTH_PID_STATE, 20u, EX_TBL_SMOOTH_OWN, salt);
    p = ExPutItem(p, ASORCH_SMOOTH_DAM_CLASS2, 16u, EX_TBL_SMOOTH_OWN, salt);
    p = ExPutItem(p, ASORCH_SMOOTH_CLASS_END, 16u, EX_TBL_SMOOTH_OWN, salt);
    ExPutTlv(tlv, EX_TBL_SMOOTH_OWN, 6u, (uint32_t)(p - tlv) - 12u);
    uint32_t total = (uint32_t)(p - buf);
    ExWr32(buf, EX_MSG_TRANS_SMOOTH);
    ExWr32(buf + 4, 2u);
    ExWr32(buf + 8, total - 12u);
    g_run.broker.smoothPre += 7u;       /* every item of the first table */
    g_run.broker.platformEntries += 6u; /* all but the DAM class item */
    g_run.broker.smoothOwn += 6u;       /* every item of the second table */
    return ExBrokerSend(ASORCH_CHAN_EVT, buf, total);
}

/* Offers the traffic until the records are used up or the duration is over. */
void ExRunBroker(double start, int tty)
{
    uint8_t *buf = malloc(EX_MAX_BODY);
    if (buf == NULL) {
        ExError("no memory for the broker");
        return;
    }
    double deadline = g_run.opt.duration > 0.0 ? start + g_run.opt.duration : 0.0;
    double nextShow = start;
    uint64_t iter = 0;
    while (ExRemaining() > 0u) {
        uint32_t pick = ExRandBelow(100u);
        int r;
        if (pick < 45u) {
            r = ExSendRoutes(buf);
        } else if (pick < 80u) {
            r = ExSendNextHops(buf);
        } else if (pick < 86u) {
            r = ExSendUnmerged(buf, 1);
        } else if (pick < 94u) {
            r = ExSendUnmerged(buf, 0);
        } else if (pick < 99u) {
            r = ExSendTables(buf);
        } else {
            r = ExSendSmoothing(buf);
        }
        if (r != 0) {
            break;
        }
        if ((++iter & 63u) == 0u) {
            double now = ExNow();
            if (deadline > 0.0 && now > deadline) {
                break;
            }
            if (tty && now >= nextShow) {
                ExProgress(start);
                nextShow = now + 0.2;
            }
        }
    }
    free(buf);
}
