// The stand-in base library: bounded functions at their limits, the diagnostic log, the
// orchpub table and failure injection.
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "test_support.h"

namespace {

using rixtest::PlatformTest;

class PlatformBase : public PlatformTest {};

int Format(char *dest, size_t destMax, const char *fmt, ...) __attribute__((format(printf, 3, 4)));
int Format(char *dest, size_t destMax, const char *fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    int n = vsprintf_s(dest, destMax, fmt, args);
    va_end(args);
    return n;
}

TEST_F(PlatformBase, StringCopyAndConcatAtTheirLimits)
{
    char buf[16];
    const std::string fits(15, 'a');
    const std::string full(16, 'b');
    EXPECT_EQ(strcpy_s(buf, sizeof(buf), fits.c_str()), 0);
    EXPECT_EQ(fits, buf);
    EXPECT_NE(strcpy_s(buf, sizeof(buf), full.c_str()), 0);
    EXPECT_EQ(buf[0], '\0');

    std::memset(buf, 'x', sizeof(buf));
    EXPECT_NE(strcpy_s(buf, sizeof(buf), nullptr), 0);
    EXPECT_EQ(buf[0], '\0');
    EXPECT_NE(strcpy_s(nullptr, sizeof(buf), "a"), 0);
    EXPECT_NE(strcpy_s(buf, 0, "a"), 0);

    ASSERT_EQ(strcpy_s(buf, sizeof(buf), "0123456789"), 0);
    EXPECT_EQ(strcat_s(buf, sizeof(buf), "abcde"), 0);  // 15 characters in 16
    EXPECT_STREQ(buf, "0123456789abcde");
    EXPECT_NE(strcat_s(buf, sizeof(buf), "f"), 0);
    EXPECT_EQ(buf[0], '\0');

    std::memset(buf, 'z', sizeof(buf));  // not terminated: refused
    EXPECT_NE(strcat_s(buf, sizeof(buf), ""), 0);
    EXPECT_EQ(buf[0], '\0');

    // Overlapping source and destination.
    ASSERT_EQ(strcpy_s(buf, sizeof(buf), "abcdef"), 0);
    EXPECT_NE(strcpy_s(buf + 1, sizeof(buf) - 1, buf), 0);
}

TEST_F(PlatformBase, FormattersRefuseWholeNeverTruncate)
{
    char buf[256];
    const std::string fits(255, 'f');
    const std::string full(256, 'g');
    EXPECT_EQ(sprintf_s(buf, sizeof(buf), "%s", fits.c_str()), 255);
    EXPECT_EQ(fits, buf);
    EXPECT_LT(sprintf_s(buf, sizeof(buf), "%s", full.c_str()), 0);
    EXPECT_EQ(buf[0], '\0');
    EXPECT_EQ(Format(buf, sizeof(buf), "%u-%s", 42u, "x"), 4);
    EXPECT_STREQ(buf, "42-x");
    EXPECT_LT(Format(buf, 4, "%u-%s", 42u, "x"), 0);
    EXPECT_EQ(buf[0], '\0');
    EXPECT_LT(sprintf_s(nullptr, 8, "x"), 0);
    EXPECT_LT(sprintf_s(buf, 0, "x"), 0);

    // A refused text never writes past the bound it was given.
    rixtest::GuardedBuffer guarded(8);
    char *g = reinterpret_cast<char *>(guarded.data());
    EXPECT_LT(sprintf_s(g, guarded.size(), "%s", "0123456789"), 0);
    EXPECT_EQ(g[0], '\0');
    EXPECT_NE(strcpy_s(g, guarded.size(), "0123456789"), 0);
    EXPECT_NE(strcat_s(g, guarded.size(), "0123456789"), 0);
}

TEST_F(PlatformBase, MemoryFunctionsAtTheirLimits)
{
    uint8_t dst[8];
    const uint8_t src[9] = {1, 2, 3, 4, 5, 6, 7, 8, 9};
    EXPECT_EQ(memcpy_s(dst, sizeof(dst), src, 8), 0);
    EXPECT_EQ(0, std::memcmp(dst, src, 8));
    EXPECT_NE(memcpy_s(dst, sizeof(dst), src, 9), 0);
    EXPECT_EQ(std::vector<uint8_t>(dst, dst + 8), std::vector<uint8_t>(8, 0));  // zeroed
    EXPECT_NE(memcpy_s(dst, sizeof(dst), nullptr, 1), 0);
    EXPECT_NE(memcpy_s(nullptr, 8, src, 1), 0);
    EXPECT_EQ(memcpy_s(dst, sizeof(dst), src, 0), 0);

    EXPECT_EQ(memset_s(dst, sizeof(dst), 0xAB, 8), 0);
    EXPECT_EQ(std::vector<uint8_t>(dst, dst + 8), std::vector<uint8_t>(8, 0xAB));
    EXPECT_NE(memset_s(dst, 4, 0, 5), 0);
    EXPECT_EQ(dst[3], 0);  // the bound is still set
    EXPECT_EQ(dst[4], 0xAB);
}

TEST_F(PlatformBase, LogLinesAreCapturedOrPrinted)
{
    FRM_DiagLogWrite("AUTOSYNC_ORCH", "first line");
    FRM_DiagLogWrite("OTHER", "second, first again");
    ASSERT_EQ(RIX_TEST_LogCount(), 2u);
    EXPECT_STREQ(RIX_TEST_LogTag(0), "AUTOSYNC_ORCH");
    EXPECT_STREQ(RIX_TEST_LogLine(0), "first line");
    EXPECT_STREQ(RIX_TEST_LogTag(1), "OTHER");
    EXPECT_EQ(RIX_TEST_LogLine(2), nullptr);
    EXPECT_EQ(RIX_TEST_LogFind("first"), 2u);

    // Pointers stay valid while more lines arrive from several threads.
    const char *kept = RIX_TEST_LogLine(0);
    std::vector<std::thread> writers;
    for (int t = 0; t < 4; ++t) {
        writers.emplace_back([] {
            for (int i = 0; i < 500; ++i) {
                FRM_DiagLogWrite("T", "concurrent");
            }
        });
    }
    for (std::thread &w : writers) {
        w.join();
    }
    EXPECT_EQ(RIX_TEST_LogFind("concurrent"), 2000u);
    EXPECT_STREQ(kept, "first line");

    RIX_TEST_LogClear();
    EXPECT_EQ(RIX_TEST_LogCount(), 0u);
    RIX_TEST_LogCapture(0);
    testing::internal::CaptureStderr();
    FRM_DiagLogWrite("TAG", "to stderr");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "TAG: to stderr\n");
    EXPECT_EQ(RIX_TEST_LogCount(), 0u);
}

TEST_F(PlatformBase, OrchPubTableModes)
{
    const COMP_VFunc *table = nullptr;
    ASSERT_EQ(COMP_GetVTable(COMP_ID_ORCHPUB, COMP_VT_ORCHPUB, &table), 0u);
    ASSERT_NE(table, nullptr);
    auto slot = reinterpret_cast<ORCHPUB_GetSlotFunc>(table[ORCHPUB_VT_GET_SLOT]);
    auto cpu = reinterpret_cast<ORCHPUB_GetCpuFunc>(table[ORCHPUB_VT_GET_CPU]);
    auto id = reinterpret_cast<ORCHPUB_GetOrchIdBySlotAndCpuFunc>(table[ORCHPUB_VT_GET_ORCHID_BY_SLOT_CPU]);
    uint32_t orchId = 0;
    EXPECT_EQ(slot(), 1u);
    EXPECT_EQ(cpu(), 0u);
    EXPECT_EQ(id(1, 0, &orchId), 0u);
    EXPECT_EQ(orchId, 5u);

    RIX_TEST_SetOrchPub(RIX_TEST_ORCHPUB_OK, 3, 2, 77);
    EXPECT_EQ(slot(), 3u);
    EXPECT_EQ(cpu(), 2u);
    EXPECT_EQ(id(3, 2, &orchId), 0u);
    EXPECT_EQ(orchId, 77u);

    RIX_TEST_SetOrchPub(RIX_TEST_ORCHPUB_CALL_FAILS, 1, 0, 5);
    EXPECT_EQ(COMP_GetVTable(COMP_ID_ORCHPUB, COMP_VT_ORCHPUB, &table), 5u);
    RIX_TEST_SetOrchPub(RIX_TEST_ORCHPUB_NO_TABLE, 1, 0, 5);
    table = reinterpret_cast<const COMP_VFunc *>(&orchId);
    EXPECT_EQ(COMP_GetVTable(COMP_ID_ORCHPUB, COMP_VT_ORCHPUB, &table), 0u);
    EXPECT_EQ(table, nullptr);
    RIX_TEST_SetOrchPub(RIX_TEST_ORCHPUB_NO_ENTRY18, 1, 0, 5);
    ASSERT_EQ(COMP_GetVTable(COMP_ID_ORCHPUB, COMP_VT_ORCHPUB, &table), 0u);
    EXPECT_EQ(table[ORCHPUB_VT_GET_ORCHID_BY_SLOT_CPU], nullptr);
    EXPECT_NE(table[ORCHPUB_VT_GET_SLOT], nullptr);

    RIX_TEST_Reset();
    ASSERT_EQ(COMP_GetVTable(COMP_ID_ORCHPUB, COMP_VT_ORCHPUB, &table), 0u);
    EXPECT_NE(table[ORCHPUB_VT_GET_ORCHID_BY_SLOT_CPU], nullptr);
    EXPECT_NE(COMP_GetVTable(COMP_ID_ORCHPUB, 1004, &table), 0u);
}

TEST_F(PlatformBase, FailureInjectionCountsAndFires)
{
    char buf[8];
    RIX_TEST_FailNth("strcpy_s", 2);
    EXPECT_EQ(strcpy_s(buf, sizeof(buf), "a"), 0);
    EXPECT_NE(strcpy_s(buf, sizeof(buf), "b"), 0);  // the second from now, once
    EXPECT_EQ(buf[0], '\0');
    EXPECT_EQ(strcpy_s(buf, sizeof(buf), "c"), 0);
    EXPECT_EQ(RIX_TEST_CallCount("strcpy_s"), 3u);

    RIX_TEST_FailAlways("sprintf_s", 1);
    EXPECT_LT(sprintf_s(buf, sizeof(buf), "x"), 0);
    EXPECT_LT(sprintf_s(buf, sizeof(buf), "x"), 0);
    RIX_TEST_FailAlways("sprintf_s", 0);
    EXPECT_EQ(sprintf_s(buf, sizeof(buf), "x"), 1);

    RIX_TEST_FailNth("COMP_GetVTable", 1);
    const COMP_VFunc *table = nullptr;
    EXPECT_EQ(COMP_GetVTable(COMP_ID_ORCHPUB, COMP_VT_ORCHPUB, &table), 5u);
    EXPECT_EQ(COMP_GetVTable(COMP_ID_ORCHPUB, COMP_VT_ORCHPUB, &table), 0u);

    // Disarming, an unknown name, and Reset.
    RIX_TEST_FailNth("memcpy_s", 1);
    RIX_TEST_FailNth("memcpy_s", 0);
    EXPECT_EQ(memcpy_s(buf, sizeof(buf), "ab", 2), 0);
    RIX_TEST_FailNth("NoSuchOperation", 1);
    EXPECT_EQ(RIX_TEST_CallCount("NoSuchOperation"), 0u);
    RIX_TEST_FailAlways("memset_s", 1);
    RIX_TEST_Reset();
    EXPECT_EQ(memset_s(buf, sizeof(buf), 0, 1), 0);
    EXPECT_EQ(RIX_TEST_CallCount("strcpy_s"), 0u);
    EXPECT_EQ(RIX_TEST_CallCount("memset_s"), 1u);

    // Exactly one of many concurrent calls takes an armed nth failure.
    RIX_TEST_FailNth("memset_s", 300);
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&failures] {
            char local[4];
            for (int i = 0; i < 200; ++i) {
                if (memset_s(local, sizeof(local), 0, 1) != 0) {
                    ++failures;
                }
            }
        });
    }
    for (std::thread &t : threads) {
        t.join();
    }
    EXPECT_EQ(failures.load(), 1);
    EXPECT_EQ(RIX_TEST_CallCount("memset_s"), 801u);
}

}  // namespace
