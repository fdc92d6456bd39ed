// Allocation-failure sweep: the scenario once to count its N allocations, then for every k
// the k-th allocation failing once, and every allocation from the k-th on failing, each run
// in its own process. No run may crash, leak or break a promise.
#include <cstdlib>
#include <string>

#include "scenario.h"
#include "test_support.h"

namespace {

TEST(AllocSweep, EveryAllocationFailingOnceOrForGoodLeavesNothing)
{
    // RIX_SWEEP_SITE=k (once) or k+ (from k on) repeats one run in this process, for a debugger.
    if (const char *site = std::getenv("RIX_SWEEP_SITE"); site != nullptr) {
        const std::string s(site);
        const uint64_t k = std::stoull(s);
        const bool from = s.back() == '+';
        EXPECT_EQ(rixtest::RunScenarioHere([&] { from ? rixtest::FailAllocFrom(k) : rixtest::FailAllocNth(k); }), 0);
        return;
    }
    const rixtest::ChildOutcome base =
        rixtest::RunScenarioInChild([] {}, true, [] { return std::to_string(rixtest::GetAllocStats().allocs); });
    ASSERT_EQ(base.kind, rixtest::ChildOutcome::Ok) << "the scenario without failures:\n" << base.detail;
    const uint32_t sites = static_cast<uint32_t>(std::stoul(base.payload));
    ASSERT_GT(sites, 20u) << "the scenario allocates too little to be the whole life of an orchestrator";

    rixtest::SweepTally tally;
    for (uint32_t k = 1; k <= sites; ++k) {
        tally.Add(rixtest::RunScenarioInChild([k] { rixtest::FailAllocNth(k); }, false),
                  "allocation " + std::to_string(k) + " failing once");
        tally.Add(rixtest::RunScenarioInChild([k] { rixtest::FailAllocFrom(k); }, false),
                  "allocations from " + std::to_string(k) + " on failing");
    }
    EXPECT_TRUE(tally.Report("alloc sweep", std::to_string(sites) + " sites"));
    EXPECT_EQ(tally.runs, 2u * sites);
}

}  // namespace
