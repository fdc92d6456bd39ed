// Queues created, found, printed and destroyed from many threads at once, under names that
// are private to a thread and names that every thread fights over.
#include <sys/epoll.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "test_support.h"

namespace {

constexpr int kThreads = 8;
constexpr auto kDuration = std::chrono::seconds(10);
constexpr uint32_t kShared = 3;

uint32_t HashU32(const void *key)
{
    return *static_cast<const uint32_t *>(key);
}
uint32_t CmpU32(const void *a, const void *b, uint32_t)
{
    return *static_cast<const uint32_t *>(a) == *static_cast<const uint32_t *>(b) ? 1u : 0u;
}
const void *KeyOf(const void *stored)
{
    return stored;
}

struct Tally {
    uint64_t created = 0;
    uint64_t refused = 0;
};

void Worker(int id, std::atomic<bool> *stop, Tally *tally)
{
    const int epFd = epoll_create1(EPOLL_CLOEXEC);
    MergeQueCreatePara para{
        rixtest::CountingAlloc, rixtest::CountingFree, 0u, 4u, 16u, HashU32, CmpU32, epFd, KeyOf, nullptr, nullptr};
    std::vector<char> buf(4096);
    for (uint32_t round = 0; !stop->load(std::memory_order_relaxed); ++round) {
        char name[32];
        if (round % 2 == 0) {
            snprintf(name, sizeof name, "own_%d_%u", id, round % 5);
        } else {
            snprintf(name, sizeof name, "shared_%u", round % kShared);
        }
        MergeQueCb *q = RIX_MergeQueCreate(name, &para);
        if (q == nullptr) {
            ++tally->refused;
            EXPECT_EQ(round % 2, 1u) << name;  // only shared names collide
        } else {
            ++tally->created;
            for (uint32_t k = 0; k < 4; ++k) {
                EXPECT_EQ(RIX_MergeQueWrite(q, &k, &k, 0), 0u);
            }
            EXPECT_EQ(RIX_MergeQueNameTreeFind(name), q);
            // Only the creator destroys, so its own queue cannot vanish while printed.
            EXPECT_GT(RIX_PrintMergeQueInfo(name, buf.data(), static_cast<uint32_t>(buf.size())), 0u);
        }
        (void)RIX_MergeQueNameTreeFind("shared_0");
        EXPECT_GT(RIX_PrintMergeQueListAll(buf.data(), static_cast<uint32_t>(buf.size())), 0u);
        RIX_MergeQueDestory(q);
        if (id == 0) {
            RIX_TEST_LogClear();
        }
    }
    close(epFd);
}

class MergeQueThreadsTest : public rixtest::PlatformTest {};

TEST_F(MergeQueThreadsTest, ConcurrentLifecyclesLeaveAnEmptyTreeAndNoLeak)
{
    std::atomic<bool> stop{false};
    std::vector<Tally> tallies(kThreads);
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back(Worker, i, &stop, &tallies[i]);
    }
    std::this_thread::sleep_for(kDuration);
    stop = true;
    for (auto &t : threads) {
        t.join();
    }
    uint64_t created = 0;
    for (const Tally &t : tallies) {
        created += t.created;
    }
    EXPECT_GT(created, static_cast<uint64_t>(kThreads));
    std::string list(4096, '\0');
    list.resize(RIX_PrintMergeQueListAll(list.data(), 4096));
    EXPECT_EQ(list, "------------------------\nIndex    MQ-1THD Name    \n------------------------\n");
    EXPECT_EQ(rixtest::LiveAllocations(), 0);
    EXPECT_EQ(RIX_TEST_HashBlocksInUse(), 0u);
}

}  // namespace
