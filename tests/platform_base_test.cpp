// The stand-in base library: bounded functions at their limits, the diagnostic log, the
// orchpub table and failure injection.
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "test_support.h"

namespace {

class PlatformBase : public rixtest::PlatformTest {};

int VPrint(char *d, size_t n, const char *fmt, ...) __attribute__((format(printf, 3, 4)));
int VPrint(char *d, size_t n, const char *fmt, ...)
{
    va_list args;
    va_start(args, fmt);
    int r = vsprintf_s(d, n, fmt, args);
    va_end(args);
    return r;
}

void OnThreads(int count, const std::function<void()> &body)
{
    std::vector<std::thread> threads;
    for (int t = 0; t < count; ++t) {
        threads.emplace_back(body);
    }
    for (std::thread &t : threads) {
        t.join();
    }
}

TEST_F(PlatformBase, TextFunctionsFitExactlyOrRefuseWhole)
{
    using TextFn = int (*)(char *, size_t, const char *);
    const struct {
        const char *name;
        TextFn fn;
        int ok;
    } rows[] = {// ok: 15 characters in 16
                {"strcpy_s", strcpy_s, 0},
                {"strcat_s",
                 [](char *d, size_t n, const char *s) { return (d && n ? d[0] = 0 : 0), strcat_s(d, n, s); }, 0},
                {"sprintf_s", [](char *d, size_t n, const char *s) { return sprintf_s(d, n, "%s", s); }, 15},
                {"vsprintf_s", [](char *d, size_t n, const char *s) { return VPrint(d, n, "%s", s); }, 15}};
    const std::string fits(15, 'a');
    for (const auto &r : rows) {
        SCOPED_TRACE(r.name);
        auto refused = [&r](int rc) { return r.ok == 0 ? rc != 0 : rc < 0; };
        char buf[16];
        EXPECT_EQ(r.fn(buf, sizeof(buf), fits.c_str()), r.ok);
        EXPECT_EQ(fits, buf);
        EXPECT_TRUE(refused(r.fn(buf, sizeof(buf), (fits + "b").c_str())));
        EXPECT_EQ(buf[0], '\0');
        EXPECT_TRUE(refused(r.fn(nullptr, sizeof(buf), "a")));
        EXPECT_TRUE(refused(r.fn(buf, 0, "a")));
        rixtest::GuardedBuffer guarded(8);  // a refused text never writes past its bound
        char *g = reinterpret_cast<char *>(guarded.data());
        EXPECT_TRUE(refused(r.fn(g, guarded.size(), "0123456789")));
        EXPECT_EQ(g[0], '\0');
    }
    char buf[16];
    std::memset(buf, 'x', sizeof(buf));
    EXPECT_NE(strcpy_s(buf, sizeof(buf), nullptr), 0);
    EXPECT_EQ(buf[0], '\0');
    EXPECT_NE(strcat_s(buf, sizeof(buf), nullptr), 0);
    ASSERT_EQ(strcpy_s(buf, sizeof(buf), "0123456789"), 0);
    EXPECT_EQ(strcat_s(buf, sizeof(buf), "abcde"), 0);  // appended up to exactly 15
    EXPECT_STREQ(buf, "0123456789abcde");
    EXPECT_NE(strcat_s(buf, sizeof(buf), "f"), 0);
    EXPECT_EQ(buf[0], '\0');
    std::memset(buf, 'z', sizeof(buf));  // not terminated: refused
    EXPECT_NE(strcat_s(buf, sizeof(buf), ""), 0);
    EXPECT_EQ(buf[0], '\0');
    ASSERT_EQ(strcpy_s(buf, sizeof(buf), "abcdef"), 0);
    EXPECT_NE(strcpy_s(buf + 1, sizeof(buf) - 1, buf), 0);  // overlapping
    EXPECT_EQ(VPrint(buf, sizeof(buf), "%u-%s", 42u, "x"), 4);
    EXPECT_STREQ(buf, "42-x");
}

TEST_F(PlatformBase, MemoryFunctionsAtTheirLimits)
{
    using Bytes = std::vector<uint8_t>;
    uint8_t dst[8];
    const uint8_t src[9] = {1, 2, 3, 4, 5, 6, 7, 8, 9};
    EXPECT_EQ(memcpy_s(dst, sizeof(dst), src, 8), 0);
    EXPECT_EQ(Bytes(dst, dst + 8), Bytes(src, src + 8));
    EXPECT_NE(memcpy_s(dst, sizeof(dst), src, 9), 0);
    EXPECT_EQ(Bytes(dst, dst + 8), Bytes(8, 0));  // zeroed
    EXPECT_NE(memcpy_s(dst, sizeof(dst), nullptr, 1), 0);
    EXPECT_NE(memcpy_s(nullptr, 8, src, 1), 0);
    EXPECT_EQ(memset_s(dst, sizeof(dst), 0xAB, 8), 0);
    EXPECT_EQ(Bytes(dst, dst + 8), Bytes(8, 0xAB));
    EXPECT_NE(memset_s(dst, 4, 0, 5), 0);
    EXPECT_EQ(Bytes(dst, dst + 8), Bytes({0, 0, 0, 0, 0xAB, 0xAB, 0xAB, 0xAB}));  // the bound is set
    EXPECT_NE(memset_s(nullptr, 8, 0, 1), 0);

    // Every length copies exactly its bytes, whichever way the copy is made.
    uint8_t from[96], to[96];
    for (size_t i = 0; i < sizeof(from); ++i) {
        from[i] = static_cast<uint8_t>(i + 1);
    }
    for (size_t n = 0; n <= 80; ++n) {
        std::memset(to, 0xEE, sizeof(to));
        ASSERT_EQ(memcpy_s(to, sizeof(to), from, n), 0);
        ASSERT_EQ(Bytes(to, to + n), Bytes(from, from + n)) << n;
        ASSERT_EQ(Bytes(to + n, to + sizeof(to)), Bytes(sizeof(to) - n, 0xEE)) << n;
    }

    // Overlap is refused by one byte either way; touching buffers and empty copies pass.
    uint8_t buf[16] = {};
    EXPECT_EQ(memcpy_s(buf + 4, 12, buf, 4), 0);
    EXPECT_EQ(memcpy_s(buf, 4, buf + 4, 4), 0);
    EXPECT_EQ(memcpy_s(buf, 4, buf, 0), 0);
    std::memset(buf, 7, sizeof(buf));
    EXPECT_EQ(memcpy_s(buf + 3, 8, buf, 4), ERANGE);
    EXPECT_EQ(Bytes(buf, buf + 12), Bytes({7, 7, 7, 0, 0, 0, 0, 0, 0, 0, 0, 7}));
    std::memset(buf, 7, sizeof(buf));
    EXPECT_EQ(memcpy_s(buf, 4, buf + 3, 4), ERANGE);
    EXPECT_EQ(Bytes(buf, buf + 5), Bytes({0, 0, 0, 0, 7}));
    EXPECT_EQ(memcpy_s(buf, SIZE_MAX, src, 1), EINVAL);
    EXPECT_EQ(memset_s(buf, SIZE_MAX, 0, 1), EINVAL);
    EXPECT_EQ(buf[4], 7);  // an unusable bound leaves the destination alone

    // Injection fires on valid arguments too, leaves the destination alone, and every call counts.
    RIX_TEST_FailNth("memcpy_s", 2);
    std::memset(dst, 1, sizeof(dst));
    EXPECT_EQ(memcpy_s(dst, sizeof(dst), src, 0), 0);
    EXPECT_EQ(memcpy_s(dst, sizeof(dst), src, 8), -1);
    EXPECT_EQ(Bytes(dst, dst + 8), Bytes(8, 1));
    RIX_TEST_FailNth("memset_s", 1);
    EXPECT_EQ(memset_s(dst, sizeof(dst), 0, 8), -1);
    EXPECT_EQ(Bytes(dst, dst + 8), Bytes(8, 1));
    EXPECT_EQ(RIX_TEST_CallCount("memcpy_s"), 93u);
    EXPECT_EQ(RIX_TEST_CallCount("memset_s"), 5u);
}

TEST_F(PlatformBase, LogLinesAreCapturedOrPrinted)
{
    FRM_DiagLogWrite("AUTOSYNC_ORCH", "first line");
    FRM_DiagLogWrite("OTHER", "second, first again");
    ASSERT_EQ(RIX_TEST_LogCount(), 2u);
    EXPECT_STREQ(RIX_TEST_LogTag(1), "OTHER");
    EXPECT_EQ(RIX_TEST_LogLine(2), nullptr);
    EXPECT_EQ(RIX_TEST_LogFind("first"), 2u);
    const char *kept = RIX_TEST_LogLine(0);  // stays valid while lines arrive from several threads
    OnThreads(4, [] {
        for (int i = 0; i < 500; ++i) {
            FRM_DiagLogWrite("T", "concurrent");
        }
    });
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
    auto get = [&table] { return COMP_GetVTable(COMP_ID_ORCHPUB, COMP_VT_ORCHPUB, &table); };
    ASSERT_EQ(get(), 0u);
    auto slot = reinterpret_cast<ORCHPUB_GetSlotFunc>(table[ORCHPUB_VT_GET_SLOT]);
    auto cpu = reinterpret_cast<ORCHPUB_GetCpuFunc>(table[ORCHPUB_VT_GET_CPU]);
    auto id = reinterpret_cast<ORCHPUB_GetOrchIdBySlotAndCpuFunc>(table[ORCHPUB_VT_GET_ORCHID_BY_SLOT_CPU]);
    uint32_t orchId = 0;
    RIX_TEST_SetOrchPub(RIX_TEST_ORCHPUB_OK, 3, 2, 77);
    EXPECT_EQ(std::make_pair(slot(), cpu()), std::make_pair(3u, 2u));
    EXPECT_EQ(id(3, 2, &orchId), 0u);
    EXPECT_EQ(orchId, 77u);
    RIX_TEST_SetOrchPub(RIX_TEST_ORCHPUB_CALL_FAILS, 1, 0, 5);
    EXPECT_EQ(get(), 5u);
    RIX_TEST_SetOrchPub(RIX_TEST_ORCHPUB_NO_TABLE, 1, 0, 5);
    table = reinterpret_cast<const COMP_VFunc *>(&orchId);
    EXPECT_EQ(get(), 0u);
    EXPECT_EQ(table, nullptr);
    RIX_TEST_SetOrchPub(RIX_TEST_ORCHPUB_NO_ENTRY18, 1, 0, 5);
    ASSERT_EQ(get(), 0u);
    EXPECT_EQ(table[ORCHPUB_VT_GET_ORCHID_BY_SLOT_CPU], nullptr);
    EXPECT_NE(table[ORCHPUB_VT_GET_SLOT], nullptr);
    RIX_TEST_Reset();
    ASSERT_EQ(get(), 0u);
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
    const COMP_VFunc *table = nullptr;
    RIX_TEST_FailNth("COMP_GetVTable", 1);
    EXPECT_EQ(COMP_GetVTable(COMP_ID_ORCHPUB, COMP_VT_ORCHPUB, &table), 5u);
    EXPECT_EQ(COMP_GetVTable(COMP_ID_ORCHPUB, COMP_VT_ORCHPUB, &table), 0u);
    RIX_TEST_FailAlways("memset_s", 1);
    RIX_TEST_Reset();
    EXPECT_EQ(memset_s(buf, sizeof(buf), 0, 1), 0);
    EXPECT_EQ(RIX_TEST_CallCount("strcpy_s"), 0u);

    // Exactly one of many concurrent calls takes an armed nth failure.
    RIX_TEST_FailNth("memset_s", 300);
    std::atomic<int> failures{0};
    OnThreads(4, [&failures] {
        char local[4];
        for (int i = 0; i < 200; ++i) {
            failures += memset_s(local, sizeof(local), 0, 1) != 0 ? 1 : 0;
        }
    });
    EXPECT_EQ(failures.load(), 1);
    EXPECT_EQ(RIX_TEST_CallCount("memset_s"), 801u);
}

}  // namespace
