#include "test_support.h"

#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <mutex>

namespace rixtest {
namespace {

std::mutex g_allocMu;
AllocStats g_stats{};
uint64_t g_failAt = 0;    // allocation number that fails
uint64_t g_failFrom = 0;  // first allocation number of a lasting failure
uint64_t g_seen = 0;

struct Header {
    uint32_t size;
    uint32_t magic;
    uint64_t pad;  // keeps user memory 16-byte aligned on both targets
};
constexpr uint32_t kMagic = 0xA110C8EDu;

}  // namespace

void *CountingAlloc(uint32_t size)
{
    std::lock_guard<std::mutex> lock(g_allocMu);
    ++g_seen;
    if ((g_failAt != 0 && g_seen == g_failAt) || (g_failFrom != 0 && g_seen >= g_failFrom)) {
        ++g_stats.failed;
        return nullptr;
    }
    auto *h = static_cast<Header *>(std::malloc(sizeof(Header) + size));
    if (h == nullptr) {
        return nullptr;
    }
    h->size = size;
    h->magic = kMagic;
    ++g_stats.allocs;
    g_stats.liveBytes += size;
    return h + 1;
}

void CountingFree(void *ptr)
{
    if (ptr == nullptr) {
        return;
    }
    auto *h = static_cast<Header *>(ptr) - 1;
    std::lock_guard<std::mutex> lock(g_allocMu);
    if (h->magic != kMagic) {
        ADD_FAILURE() << "CountingFree of a block it did not allocate, or freed twice";
        return;
    }
    h->magic = 0;
    ++g_stats.frees;
    g_stats.liveBytes -= h->size;
    std::free(h);
}

AllocStats GetAllocStats()
{
    std::lock_guard<std::mutex> lock(g_allocMu);
    return g_stats;
}

int64_t LiveAllocations()
{
    std::lock_guard<std::mutex> lock(g_allocMu);
    return static_cast<int64_t>(g_stats.allocs) - static_cast<int64_t>(g_stats.frees);
}

void ResetAllocStats()
{
    std::lock_guard<std::mutex> lock(g_allocMu);
    g_stats = AllocStats{};
    g_failAt = 0;
    g_failFrom = 0;
    g_seen = 0;
}

void FailAllocNth(uint64_t nth)
{
    std::lock_guard<std::mutex> lock(g_allocMu);
    g_failAt = nth == 0 ? 0 : g_seen + nth;
}

void FailAllocFrom(uint64_t nth)
{
    std::lock_guard<std::mutex> lock(g_allocMu);
    g_failFrom = nth == 0 ? 0 : g_seen + nth;
}

ASOrchCreatePara CountingCreatePara()
{
    ASOrchCreatePara para{};
    para.ealPara1 = 0x11u;
    para.memPtNo = 7u;
    para.memAlloc = CountingAlloc;
    para.memFree = CountingFree;
    para.ealPara2 = 0x22u;
    return para;
}

std::vector<std::string> Lines()
{
    std::vector<std::string> out;
    const uint32_t n = RIX_TEST_LogCount();
    for (uint32_t i = 0; i < n; ++i) {
        const char *line = RIX_TEST_LogLine(i);
        out.emplace_back(line != nullptr ? line : "");
    }
    return out;
}

bool HasLine(const std::string &exact)
{
    for (const auto &l : Lines()) {
        if (l == exact) {
            return true;
        }
    }
    return false;
}

size_t CountContaining(const std::string &text)
{
    size_t n = 0;
    for (const auto &l : Lines()) {
        if (l.find(text) != std::string::npos) {
            ++n;
        }
    }
    return n;
}

std::string DumpLines()
{
    std::string out;
    for (const auto &l : Lines()) {
        out += "  | " + l + "\n";
    }
    return out;
}

void PlatformTest::SetUp()
{
    RIX_TEST_Reset();
    RIX_TEST_LogCapture(1);
    ResetAllocStats();
}

void PlatformTest::TearDown()
{
    RIX_TEST_Reset();
}

void OrchTest::SetUp()
{
    PlatformTest::SetUp();
    h_ = ASOrchCreate(name_, &para_);
    ASSERT_NE(nullptr, h_);
    eal_ = h_->ealHdl;
    RIX_TEST_LogClear();
}

void OrchTest::TearDown()
{
    if (h_ != nullptr) {
        ASOrchDestroy(h_);
        h_ = nullptr;
    }
    EXPECT_EQ(0, LiveAllocations()) << DumpLines();
    EXPECT_EQ(0u, RIX_TEST_EalLiveCount());
    EXPECT_EQ(0u, AutoSyncNameExisted(name_));
    PlatformTest::TearDown();
}

void OrchTest::Recreate()
{
    TearDown();
    SetUp();
}

GuardedBuffer::GuardedBuffer(size_t size) : size_(size)
{
    const size_t page = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    const size_t dataPages = (size + page - 1) / page;
    mapped_ = (dataPages + 1) * page;
    void *m = mmap(nullptr, mapped_, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (m == MAP_FAILED) {
        std::abort();
    }
    base_ = static_cast<uint8_t *>(m);
    mprotect(base_ + dataPages * page, page, PROT_NONE);
    data_ = base_ + dataPages * page - size;
}

GuardedBuffer::~GuardedBuffer()
{
    munmap(base_, mapped_);
}

}  // namespace rixtest
