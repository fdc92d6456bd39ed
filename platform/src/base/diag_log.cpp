// The diagnostic log: one line per call on standard error, or kept in memory for tests.
#include <atomic>
#include <cstdio>
#include <cstring>
#include <deque>
#include <mutex>
#include <string>

#include "frm_diaglog.h"
#include "base/op_hit.h"
#include "rix_platform_test.h"

namespace {

struct Line {
    std::string tag;
    std::string message;
};

std::mutex g_logMutex;
// A deque keeps the texts in place while lines are appended, so returned pointers stay valid.
std::deque<Line> g_lines;
std::atomic<bool> g_capture{false};

void ResetLog()
{
    std::lock_guard<std::mutex> lock(g_logMutex);
    g_lines.clear();
    g_capture.store(false);
}

[[maybe_unused]] const bool g_registered = [] {
    RixPlatInternal_AddResetHook(ResetLog);
    return true;
}();

}  // namespace

extern "C" {

void FRM_DiagLogWrite(const char *tag, const char *message)
{
    (void)rixplat::HitFast(rixplat::Op_FRM_DiagLogWrite);
    const char *t = tag != nullptr ? tag : "(null)";
    const char *m = message != nullptr ? message : "(null)";
    if (g_capture.load()) {
        try {
            std::lock_guard<std::mutex> lock(g_logMutex);
            g_lines.push_back(Line{t, m});
        } catch (...) {
            (void)std::fprintf(stderr, "%s: %s\n", t, m);
        }
        return;
    }
    (void)std::fprintf(stderr, "%s: %s\n", t, m);
}

void RIX_TEST_LogCapture(int on)
{
    g_capture.store(on != 0);
}

void RIX_TEST_LogClear(void)
{
    std::lock_guard<std::mutex> lock(g_logMutex);
    g_lines.clear();
}

uint32_t RIX_TEST_LogCount(void)
{
    std::lock_guard<std::mutex> lock(g_logMutex);
    return static_cast<uint32_t>(g_lines.size());
}

const char *RIX_TEST_LogLine(uint32_t i)
{
    std::lock_guard<std::mutex> lock(g_logMutex);
    return i < g_lines.size() ? g_lines[i].message.c_str() : nullptr;
}

const char *RIX_TEST_LogTag(uint32_t i)
{
    std::lock_guard<std::mutex> lock(g_logMutex);
    return i < g_lines.size() ? g_lines[i].tag.c_str() : nullptr;
}

uint32_t RIX_TEST_LogFind(const char *text)
{
    if (text == nullptr) {
        return 0;
    }
    std::lock_guard<std::mutex> lock(g_logMutex);
    uint32_t n = 0;
    for (const Line &line : g_lines) {
        if (line.message.find(text) != std::string::npos) {
            ++n;
        }
    }
    return n;
}

}  // extern "C"
