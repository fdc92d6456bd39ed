// Merge rules, key identity and the bucket hash of message vectors.
#include <cstring>
#include <random>
#include <utility>

#include "core/divisor.h"
#include "test_support.h"

namespace {

// What a module is handed when a record meets a pending one of its key: an arriving delete (1)
// always stays a delete; an arriving set (0) stays a set after a set and becomes a
// delete-then-set (2) after a delete or a delete-then-set. Any other pair has no rule and leaves
// the result alone, also where its index lands in another pair's row, past the table, or wraps.
TEST(MergeRulesTest, ADeleteWinsAndASetAfterADeleteBecomesDeleteThenSet)
{
    uint32_t out = 99u;
    for (uint32_t pending : {0u, 1u, 2u}) {
        EXPECT_EQ(ASOrchGetMergeRule(pending, 1u, &out), 0u);
        EXPECT_EQ(out, 1u) << pending;
        EXPECT_EQ(ASOrchGetMergeRule(pending, 0u, &out), 0u);
        EXPECT_EQ(out, pending == 0u ? 0u : 2u) << pending;
    }
    out = 99u;
    for (auto [pending, arriving] : {std::pair{0u, 2u}, {1u, 3u}, {3u, 0u}, {2u, 2u}, {0x80000000u, 0u}}) {
        EXPECT_EQ(ASOrchGetMergeRule(pending, arriving, &out), 1u) << pending << "," << arriving;
    }
    EXPECT_EQ(out, 99u);
}

uint32_t NoHash(const void *)
{
    return 0u;
}

class MergeHashTest : public rixtest::OrchTest {};

// The exported merge callback, for a queue of the module's own: the arriving vector takes the
// combined opType and the pending copy's block goes back to its owner; age information and
// pairs without a rule are only logged.
TEST_F(MergeHashTest, ExportedMergeNotifyCombinesAndReleasesThePendingCopy)
{
    const int64_t idle = rixtest::LiveAllocations();
    ASOrchMsgVec pending{7u, 1u, rixtest::CountingAlloc(8u), 8u, nullptr, 0u, 0u, h_};
    ASOrchMsgVec arriving{7u, 0u, nullptr, 8u, nullptr, 0u, 0u, h_};
    ASOrchPubMergeNotify(&arriving, &pending);
    EXPECT_EQ(arriving.opType, 2u);
    EXPECT_EQ(pending.key, nullptr);
    EXPECT_EQ(rixtest::LiveAllocations(), idle);
    ASOrchPubMergeNotify(nullptr, &pending);
    arriving.opType = ASORCH_OPTYPE_AGEINFO;
    ASOrchPubMergeRule(&pending, &arriving);
    EXPECT_EQ(arriving.opType, ASORCH_OPTYPE_AGEINFO);
    EXPECT_TRUE(rixtest::HasLine("Orch autosync merge notify is ageinfo error, msgId 7"));
    pending.opType = 3u;
    arriving.opType = 0u;
    ASOrchPubMergeRule(&pending, &arriving);
    EXPECT_EQ(arriving.opType, 0u);
    EXPECT_TRUE(rixtest::HasLine("Orch autosync merge notify get rule error"));
    EXPECT_EQ(ASOrchGetMergeRule(0u, 0u, nullptr), 1u);
}

TEST_F(MergeHashTest, KeyIdentityAndPinnedBucketHash)
{
    // The two channels' moduli: a power of two and one that is not.
    ASOrchMergeMsg msgs[1] = {{0x100u, {nullptr, nullptr, nullptr, nullptr}}};
    base_.mergeMque[0] = {msgs, 1u, 8192u, NoHash, 0u, 0u};
    base_.mergeMque[1] = {msgs, 1u, 1000u, NoHash, 0u, 0u};
    ASSERT_EQ(ASOrchRegMerge(h_, &base_), 0u);
    ASOrchHandle &handle = *h_;

    uint8_t k1[6] = {1, 2, 3, 4, 5, 6}, k2[6] = {1, 2, 3, 4, 5, 6}, d1[2] = {1, 1};
    ASOrchMsgVec a{0x100u, 0u, k1, 6u, d1, 2u, 0u, nullptr};
    ASOrchMsgVec b{0x100u, 1u, k2, 6u, nullptr, 0u, 0u, nullptr};
    EXPECT_EQ(ASOrchPubCmpFunc(&a, &b), 1u);  // data and opType play no part
    for (uint32_t ASOrchMsgVec::*field : {&ASOrchMsgVec::version, &ASOrchMsgVec::msgId, &ASOrchMsgVec::keyLen}) {
        ASOrchMsgVec c = b;
        c.*field -= 1u;
        EXPECT_EQ(ASOrchPubCmpFunc(&a, &c), 0u);
    }
    // A 6-byte key hashes its first word only: a different tail shares the bucket but not the key.
    k2[5] = 9u;
    EXPECT_EQ(ASOrchPubCmpFunc(&a, &b), 0u);
    EXPECT_EQ(ASOrchMergeHashFunc(&handle, 0u, &a), 8110u);
    EXPECT_EQ(ASOrchMergeHashFunc(&handle, 0u, &b), 8110u);
    a.keyLen = 4u;
    EXPECT_EQ(ASOrchMergeHashFunc(&handle, 0u, &a), 8110u);
    EXPECT_EQ(ASOrchPubGetKeyPtr(&a), &a);

    uint8_t eight[8] = {0, 1, 2, 3, 4, 5, 6, 7}, twelve[12];
    std::memset(twelve, 0xFF, sizeof(twelve));
    ASOrchMsgVec v{};
    EXPECT_EQ(ASOrchMergeHashFunc(&handle, 0u, &v), 1950u);
    v = ASOrchMsgVec{7u, 1u, eight, 8u, nullptr, 0u, 3u, nullptr};
    EXPECT_EQ(ASOrchMergeHashFunc(&handle, 0u, &v), 2175u);
    EXPECT_EQ(ASOrchMergeHashFunc(&handle, 1u, &v), 751u);
    v = ASOrchMsgVec{0xDEADBEEFu, 0u, twelve, 12u, nullptr, 0u, 0xFFFFFFFFu, nullptr};
    EXPECT_EQ(ASOrchMergeHashFunc(&handle, 0u, &v), 6098u);
    // Five whole words and a tail: a step of four words, then one alone.
    uint8_t longer[22];
    for (uint32_t i = 0; i < sizeof(longer); ++i) {
        longer[i] = static_cast<uint8_t>(i * 37u + 11u);
    }
    v = ASOrchMsgVec{0x100u, 0u, longer, 22u, nullptr, 0u, 5u, nullptr};
    EXPECT_EQ(ASOrchMergeHashFunc(&handle, 0u, &v), 4068u);
    EXPECT_EQ(ASOrchMergeHashFunc(&handle, 1u, &v), 892u);
    ASOrchMergeHandle *built = handle.mergeHandle;
    handle.mergeHandle = nullptr;  // no channel built: still a valid bucket
    EXPECT_EQ(ASOrchMergeHashFunc(&handle, 0u, &v), 0u);
    handle.mergeHandle = built;
}

// Short keys are compared in overlapping words: a difference in any one byte, at any length,
// still tells two keys apart, and equal bytes at different addresses still match.
TEST(MergeRulesTest, KeysOfEveryLengthDifferInEveryByte)
{
    uint8_t k1[40], k2[40];
    for (uint32_t i = 0; i < sizeof(k1); ++i) {
        k1[i] = k2[i] = static_cast<uint8_t>(0xA0u + i);
    }
    for (uint32_t len = 1; len <= sizeof(k1); ++len) {
        ASOrchMsgVec a{9u, 0u, k1, len, nullptr, 0u, 0u, nullptr};
        ASOrchMsgVec b{9u, 0u, k2, len, nullptr, 0u, 0u, nullptr};
        ASSERT_EQ(ASOrchPubCmpFunc(&a, &b), 1u) << "length " << len;
        for (uint32_t at = 0; at < len; ++at) {
            k2[at] ^= 0x10u;
            EXPECT_EQ(ASOrchPubCmpFunc(&a, &b), 0u) << "length " << len << ", byte " << at;
            k2[at] ^= 0x10u;
        }
        k2[len % sizeof(k2)] ^= 0x10u;  // past the key: plays no part
        EXPECT_EQ(ASOrchPubCmpFunc(&a, &b), len < sizeof(k1) ? 1u : 0u) << "length " << len;
        k2[len % sizeof(k2)] ^= 0x10u;
    }
}

// The division-free forms agree with / and % for every size class and the edges of each.
TEST(MergeRulesTest, DivisionFreeFormsEqualTheOperators)
{
    std::mt19937 rng(7u);
    const uint32_t sizes[] = {1u,    2u,    3u,     7u,      1000u,       1023u,       1024u,
                              4097u, 8192u, 65535u, 100003u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu};
    for (uint32_t size : sizes) {
        const asorch::Divisor div = asorch::MakeDivisor(size);
        std::vector<uint32_t> xs = {0u, 1u, size - 1u, size, size + 1u, 2u * size - 1u, 0xFFFFFFFFu, 0xFFFFFFFEu};
        for (int i = 0; i < 20000; ++i) {
            xs.push_back(rng());
        }
        for (uint32_t x : xs) {
            ASSERT_EQ(asorch::Mod(x, div), x % size) << x << " % " << size;
            ASSERT_EQ(asorch::Div(x, div), x / size) << x << " / " << size;
            uint32_t rest = 0u;
            ASSERT_EQ(asorch::DivUnprepared(x, size, &rest), x / size) << x << " / " << size;
            ASSERT_EQ(rest, x % size) << x << " % " << size;
        }
    }
}

}  // namespace
