// Shared test helpers: a counting allocator that can fail the n-th allocation, a fixture
// that resets the stand-in platform and captures log lines, and guarded buffers.
#ifndef RIX_TEST_SUPPORT_H
#define RIX_TEST_SUPPORT_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "rix_autosync_orch.h"
#include "rix_platform.h"
#include "rix_platform_test.h"

namespace rixtest {

// Counting allocator with the module allocator's signature. Thread-safe.
struct AllocStats {
    uint64_t allocs;
    uint64_t frees;
    uint64_t failed;
    int64_t liveBytes;
};
void *CountingAlloc(uint32_t size);
void CountingFree(void *ptr);
AllocStats GetAllocStats();
int64_t LiveAllocations();  // allocs - frees
void ResetAllocStats();
void FailAllocNth(uint64_t nth);   // the nth allocation from now (1 = next) returns null; 0 disarms
void FailAllocFrom(uint64_t nth);  // the nth allocation from now and every later one fail; 0 disarms

// A module's bucket hash for merge channel Chan: the stored copy names its orchestrator.
template <uint32_t Chan>
uint32_t MergeHash(const void *key)
{
    auto *v = static_cast<const ASOrchMsgVec *>(key);
    return ASOrchMergeHashFunc(static_cast<ASOrchHandle *>(v->usrData), Chan, v);
}

// Create parameters that use the counting allocator.
ASOrchCreatePara CountingCreatePara();

// Log lines captured from the stand-in's diagnostic log.
std::vector<std::string> Lines();
bool HasLine(const std::string &exact);
size_t CountContaining(const std::string &text);
std::string DumpLines();  // for failure messages

// Resets the stand-ins and the counting allocator, captures log lines.
class PlatformTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;
};

// A fresh orchestrator (name_, "DEMO" unless a derived constructor says otherwise) on the
// counting allocator, log cleared; teardown destroys it (unless a test did and cleared h_) and
// requires every block, the abstraction-layer instance and the module name back.
class OrchTest : public PlatformTest {
protected:
    void SetUp() override;
    void TearDown() override;
    void Recreate();  // TearDown's checks, then a fresh orchestrator
    const char *name_ = "DEMO";
    ASOrchCreatePara para_ = CountingCreatePara();
    ASOrchHandle *h_ = nullptr;
    void *eal_ = nullptr;
    ASOrchBasePara base_{};
};

// A buffer whose end touches an inaccessible page: reading one byte past it faults
// (and ASan reports), so a test proves a parser stays inside a body.
class GuardedBuffer {
public:
    explicit GuardedBuffer(size_t size);
    ~GuardedBuffer();
    GuardedBuffer(const GuardedBuffer &) = delete;
    GuardedBuffer &operator=(const GuardedBuffer &) = delete;
    uint8_t *data() { return data_; }
    size_t size() const { return size_; }

private:
    uint8_t *base_ = nullptr;
    size_t mapped_ = 0;
    uint8_t *data_ = nullptr;
    size_t size_ = 0;
};

}  // namespace rixtest

#endif
