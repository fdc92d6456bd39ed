// Soak with exact accounting: a started orchestrator, a broker on the main thread writing
// skewed keys into the DAM and FES channels (adds, deletes, age information), water marks low
// enough that the channels are back-pressed and released hundreds of times, the DATA thread
// draining. Every record offered must come out once or be coalesced into a later one, in the
// order of first arrival, with the last version and the combined operation type per key; the
// allocator must balance after destroy.
// Length: RIX_SOAK_SECONDS (e.g. 7200 for two hours), else RIX_SOAK_DEFAULT_SECONDS (set per
// build by ctest), else 10.
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "records.h"
#include "test_support.h"

namespace {

using rixtest::QueueBook;
using rixtest::Rec;

constexpr uint32_t kKeys = 512u;
constexpr uint32_t kRecSize = 16u;
constexpr uint32_t kMaxBurst = 64u;
constexpr uint32_t kMsgAdd[2] = {0x30001u, 0x30011u};  // [DAM, FES]
constexpr uint32_t kMsgDel[2] = {0x30002u, 0x30012u};
constexpr uint32_t kMsgAge[2] = {0x30003u, 0x30013u};  // handled by the module itself
constexpr uint32_t kMergeMsg[2] = {0x40001u, 0x40011u};
constexpr uint32_t kHigh[2] = {48u, 32u}, kLow[2] = {8u, 4u};

// The books are touched only on the DATA thread (writes and drains both run there) until
// the main thread has seen the loop idle.
struct Soak {
    ASOrchHandle *h = nullptr;
    QueueBook q[2];
    std::atomic<uint64_t> outstanding{0};  // offered and not yet delivered or coalesced
    std::atomic<uint64_t> errors{0};
    std::string firstError;
};
Soak *g_soak = nullptr;

void Error(const std::string &what)
{
    if (g_soak->errors.fetch_add(1) == 0) {
        g_soak->firstError = what;
    }
}

uint32_t Delivered(ASOrchHandle *h, ASOrchMsgVec *v, uint32_t slot)
{
    const int c = v->msgId == kMergeMsg[0] ? 0 : v->msgId == kMergeMsg[1] ? 1 : -1;
    Rec r{};
    std::string why = h != g_soak->h || c < 0 ? "msgId " + std::to_string(v->msgId) : rixtest::TakeRecord(v, slot, &r);
    if (why.empty() && r.key >= kKeys) {
        why = "key " + std::to_string(r.key) + " never offered";
    }
    if (!why.empty()) {
        Error(why);
        return 1u;
    }
    g_soak->outstanding.fetch_sub(1);
    if (why = g_soak->q[c].Deliver(r, v->opType, true); !why.empty()) {
        Error(why);
        return 1u;
    }
    return 0u;
}

// The channels' receive function, on the DATA thread: books first, then the orchestrator.
// Age information is the module's own: it goes into the merge path record by record.
void ChanRecv(void *, uint32_t chan, const void *msg, uint32_t len)
{
    uint32_t msgId = 0;
    std::memcpy(&msgId, msg, 4);
    const uint8_t *recs = static_cast<const uint8_t *>(msg) + 8;
    const uint32_t n = (len - 8u) / kRecSize;
    const uint32_t op = msgId == kMsgDel[chan] ? 1u : msgId == kMsgAge[chan] ? 3u : 0u;
    for (uint32_t i = 0; i < n; ++i) {
        Rec r;
        std::memcpy(&r, recs + i * kRecSize, sizeof(r));
        if (g_soak->q[chan].Offer(r, op)) {
            g_soak->outstanding.fetch_sub(1);
        }
    }
    if (op == 3u) {
        for (uint32_t i = 0; i < n; ++i) {
            void *rec = const_cast<uint8_t *>(recs + i * kRecSize);
            ASOrchMsgVec v{kMergeMsg[chan], 3u, rec, 4u, rec, kRecSize, 0u, nullptr};
            if (ASOrchMsgMerge(g_soak->h, chan, &v) != 0u) {
                Error("age information refused");
            }
        }
        return;
    }
    ASOrchMsg m{const_cast<void *>(msg), msgId, len};
    if (ASOrchMsgProc(g_soak->h, &m) != 0u) {
        Error("ASOrchMsgProc refused message " + std::to_string(msgId));
    }
}

double Seconds()
{
    for (const char *name : {"RIX_SOAK_SECONDS", "RIX_SOAK_DEFAULT_SECONDS"}) {
        if (const char *v = std::getenv(name); v != nullptr && std::atof(v) > 0.0) {
            return std::atof(v);
        }
    }
    return 10.0;
}

class SoakTest : public rixtest::PlatformTest {};

TEST_F(SoakTest, EveryOfferComesOutOnceOrCoalescedInFirstArrivalOrder)
{
    Soak soak;
    g_soak = &soak;
    const ASOrchCreatePara para = rixtest::CountingCreatePara();
    soak.h = ASOrchCreate("SOAK", &para);
    ASSERT_NE(soak.h, nullptr);

    static ASOrchTblMsgRecvReg recv[4];
    static ASOrchMergeMsg msgs[2];
    ASOrchBasePara bp{};
    ASSERT_EQ(ASOrchThreadSet(&bp.threadMask, 1u, ASORCH_THREAD_DATA), 0u);
    bp.syncGrpMsgSet[0] = 0x0101u;
    for (uint32_t c = 0; c < 2u; ++c) {
        bp.chanPort[c] = {0x2000u + c, c};
        recv[2 * c] = {kMergeMsg[c], kMsgAdd[c], 0u, nullptr, nullptr, kRecSize, c, nullptr, 0u, 4u};
        recv[2 * c + 1] = {kMergeMsg[c], kMsgDel[c], 0u, nullptr, nullptr, kRecSize, c, nullptr, 1u, 4u};
        msgs[c] = rixtest::MergeMsgOf<Delivered>(kMergeMsg[c]);
    }
    bp.recvTblMsg[0] = {recv, 4u};
    bp.mergeMque[0] = {&msgs[0], 1u, 256u, rixtest::MergeHash<0u>, kHigh[0], kLow[0]};
    bp.mergeMque[1] = {&msgs[1], 1u, 256u, rixtest::MergeHash<1u>, kHigh[1], kLow[1]};
    ASSERT_EQ(ASOrchRegBase(soak.h, &bp), 0u) << rixtest::DumpLines();
    void *eal = ASOrchGetEalHdl(soak.h);
    for (uint32_t c = 0; c < 2u; ++c)
        RIX_TEST_ChanSetRecv(eal, c, ChanRecv, nullptr);
    ASSERT_EQ(ASOrchInit(soak.h), 0u);
    ASSERT_EQ(ASOrchStart(soak.h), 0u);

    // The broker: skewed keys (a quarter of the keys take most offers), bursts of 1 to 64.
    uint64_t rng = 0x9E3779B97F4A7C15ull;
    auto rand32 = [&rng] {
        rng ^= rng >> 12;
        rng ^= rng << 25;
        rng ^= rng >> 27;
        return static_cast<uint32_t>((rng * 0x2545F4914F6CDD1Dull) >> 32);
    };
    std::vector<uint32_t> offerVer(2u * kKeys, 0u);
    uint64_t offered[4] = {}, waits = 0, messages = 0;
    std::vector<uint8_t> body(8u + kMaxBurst * kRecSize);
    const double seconds = Seconds();
    const auto start = std::chrono::steady_clock::now();
    const auto end = start + std::chrono::duration<double>(seconds);
    while (std::chrono::steady_clock::now() < end) {
        const uint32_t c = rand32() & 1u;
        const uint32_t pick = rand32() % 10u;
        const uint32_t op = pick < 6u ? 0u : pick < 9u ? 1u : 3u;
        const uint32_t msgId = op == 0u ? kMsgAdd[c] : op == 1u ? kMsgDel[c] : kMsgAge[c];
        const uint32_t n = 1u + rand32() % kMaxBurst;
        std::memcpy(body.data(), &msgId, 4);
        std::memcpy(body.data() + 4, &n, 4);
        for (uint32_t i = 0; i < n; ++i) {
            const uint32_t u = rand32() % kKeys;
            const uint32_t key = static_cast<uint32_t>((uint64_t{u} * u / kKeys) * u / kKeys);  // cubic skew
            const uint32_t ver = ++offerVer[c * kKeys + key];
            const uint32_t state = rand32();
            const Rec r = rixtest::Seal(key, ver, state);
            std::memcpy(body.data() + 8 + i * kRecSize, &r, kRecSize);
        }
        soak.outstanding.fetch_add(n);
        if ((++messages & 4095u) == 0u) {
            RIX_TEST_LogClear();  // the water-mark lines of hours would fill the memory
        }
        offered[op] += n;
        for (;;) {
            if (RIX_TEST_ChanBackPressed(eal, c) != 0u) {
                ++waits;
                std::this_thread::sleep_for(std::chrono::microseconds(20));
                continue;
            }
            if (RIX_TEST_ChanDeliver(eal, c, body.data(), 8u + n * kRecSize) == 0u) {
                break;
            }
            std::this_thread::sleep_for(std::chrono::microseconds(50));  // descriptor full
        }
    }
    // Drained: everything offered came out or was absorbed (or nothing moves for 30 s).
    auto lastMove = std::chrono::steady_clock::now();
    for (uint64_t last = ~0ull; soak.outstanding.load() != 0u;) {
        (void)RIX_TEST_EalWaitIdle(eal, ASORCH_THREAD_DATA, 200u);
        const uint64_t now = soak.outstanding.load();
        if (now != last) {
            last = now;
            lastMove = std::chrono::steady_clock::now();
        } else if (std::chrono::steady_clock::now() - lastMove > std::chrono::seconds(30)) {
            break;
        }
    }
    ASSERT_EQ(RIX_TEST_EalWaitIdle(eal, ASORCH_THREAD_DATA, 5000u), 0u);
    const double wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();

    uint32_t presses[2], releases[2];
    for (uint32_t c = 0; c < 2u; ++c)
        presses[c] = RIX_TEST_ChanBackPressCount(eal, c, &releases[c]);
    uint64_t total = 0, delivered = 0, coalesced = 0, byOp[4] = {}, badKeys = 0;
    for (uint32_t c = 0; c < 2u; ++c) {
        const QueueBook &b = soak.q[c];
        total += b.offered;
        delivered += b.delivered;
        coalesced += b.coalesced;
        for (int o = 0; o < 4; ++o)
            byOp[o] += b.byOp[o];
        for (uint32_t k = 0; k < kKeys; ++k) {
            const auto last = b.lastVer.find(k);
            badKeys +=
                (last == b.lastVer.end() ? 0u : last->second) != offerVer[c * kKeys + k] || b.pending.count(k) != 0u;
        }
    }
    const uint64_t lost = total - delivered - coalesced;
    std::printf(
        "soak: %.1f s, %llu records offered (add %llu, delete %llu, age %llu), %llu delivered (opType "
        "0/1/2/3: %llu/%llu/%llu/%llu), %llu coalesced, %llu lost, %llu keys off their last offer, "
        "%llu order or state errors; back-press cycles DAM %u/%u, FES %u/%u; broker waited %llu times\n",
        wall, (unsigned long long)total, (unsigned long long)offered[0], (unsigned long long)offered[1],
        (unsigned long long)offered[3], (unsigned long long)delivered, (unsigned long long)byOp[0],
        (unsigned long long)byOp[1], (unsigned long long)byOp[2], (unsigned long long)byOp[3],
        (unsigned long long)coalesced, (unsigned long long)lost, (unsigned long long)badKeys,
        (unsigned long long)soak.errors.load(), presses[0], releases[0], presses[1], releases[1],
        (unsigned long long)waits);
    EXPECT_EQ(soak.errors.load(), 0u) << soak.firstError;
    EXPECT_EQ(total, offered[0] + offered[1] + offered[3]);
    EXPECT_EQ(lost, 0u);
    EXPECT_EQ(badKeys, 0u);
    EXPECT_EQ(presses[0], releases[0]);
    EXPECT_EQ(presses[1], releases[1]);
    // Hundreds of back-press cycles per 10 s, or the water marks are not being exercised.
    EXPECT_GE(presses[0] + presses[1], static_cast<uint32_t>(20.0 * seconds));

    ASOrchDestroy(soak.h);
    const rixtest::AllocStats s = rixtest::GetAllocStats();
    std::printf("soak: allocator %llu blocks allocated, %llu given back, balance %lld after destroy\n",
                (unsigned long long)s.allocs, (unsigned long long)s.frees, (long long)(s.allocs - s.frees));
    EXPECT_EQ(s.allocs, s.frees);
    EXPECT_EQ(s.liveBytes, 0);
    EXPECT_EQ(RIX_TEST_EalLiveCount(), 0u);
    g_soak = nullptr;
}

}  // namespace
