// Merge rules, key identity and the bucket hash of message vectors.
#include <cstring>

#include "test_support.h"

namespace {

TEST(MergeRulesTest, RuleTableCombinesOnlyItsOwnPairs)
{
    ASSERT_EQ(g_ASOrchMergeRulesNum, 6u);
    const uint32_t expected[3][2] = {{0u, 1u}, {2u, 1u}, {2u, 1u}};
    for (uint32_t oldOp = 0; oldOp < 3u; ++oldOp) {
        for (uint32_t newOp = 0; newOp < 2u; ++newOp) {
            uint32_t out = 99u;
            EXPECT_EQ(ASOrchGetMergeRule(oldOp, newOp, &out), 0u);
            EXPECT_EQ(out, expected[oldOp][newOp]) << oldOp << "," << newOp;
        }
    }
    // (0,2) and (1,3) index into rows of other pairs; (3,0) runs past the table; a huge
    // oldOpType wraps the index back to row 0.
    const uint32_t refused[][2] = {{0u, 2u}, {1u, 3u}, {3u, 0u}, {2u, 2u}, {0x80000000u, 0u}};
    for (const auto &pair : refused) {
        uint32_t out = 99u;
        EXPECT_EQ(ASOrchGetMergeRule(pair[0], pair[1], &out), 1u) << pair[0] << "," << pair[1];
        EXPECT_EQ(out, 99u);
    }
}

TEST(MergeRulesTest, KeyIdentityAndPinnedBucketHash)
{
    // Just what the hash reads: the two channels' moduli.
    ASOrchHandle handle{};
    ASOrchMergeHandle entries[2]{};
    entries[0].hashSize = 8192u;
    entries[1].hashSize = 1000u;
    handle.mergeHandle = entries;

    uint8_t k1[6] = {1, 2, 3, 4, 5, 6};
    uint8_t k2[6] = {1, 2, 3, 4, 5, 6};
    uint8_t d1[2] = {1, 1};
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

    uint8_t eight[8] = {0, 1, 2, 3, 4, 5, 6, 7};
    uint8_t twelve[12];
    std::memset(twelve, 0xFF, sizeof(twelve));
    ASOrchMsgVec v{0u, 0u, nullptr, 0u, nullptr, 0u, 0u, nullptr};
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
