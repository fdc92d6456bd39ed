// Merge rules, key identity and the bucket hash of message vectors.
#include <cstring>

#include "test_support.h"

namespace {

TEST(MergeRulesTest, RuleTableCombinesOnlyItsOwnPairs)
{
    // {old, new, result}; result 99: refused and left untouched. (0,2) and (1,3) index into
    // rows of other pairs; (3,0) runs past the table; a huge old opType wraps back to row 0.
    const uint32_t cases[][3] = {{0, 0, 0},  {0, 1, 1},  {1, 0, 2},  {1, 1, 1},  {2, 0, 2},          {2, 1, 1},
                                 {0, 2, 99}, {1, 3, 99}, {3, 0, 99}, {2, 2, 99}, {0x80000000u, 0, 99}};
    for (const auto &c : cases) {
        uint32_t out = 99u;
        EXPECT_EQ(ASOrchGetMergeRule(c[0], c[1], &out), c[2] == 99u ? 1u : 0u) << c[0] << "," << c[1];
        EXPECT_EQ(out, c[2]) << c[0] << "," << c[1];
    }
}

TEST(MergeRulesTest, KeyIdentityAndPinnedBucketHash)
{
    // Just what the hash reads: the two channels' moduli.
    ASOrchMergeHandle entries[2]{};
    entries[0].hashSize = 8192u;
    entries[1].hashSize = 1000u;
    ASOrchHandle handle{};
    handle.mergeHandle = entries;

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
    handle.mergeHandle = nullptr;  // no channel built: still a valid bucket
    EXPECT_EQ(ASOrchMergeHashFunc(&handle, 0u, &v), 0u);
}

}  // namespace
