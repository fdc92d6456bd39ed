// The whole life of two orchestrators on the counting allocator, stepped by hand so that it
// makes the same calls in the same order every time: one on the mb role fed by every message
// form, one on another role fed by what the first syncs; both go past their queues' high water
// marks and drain below the low marks; destroyed with records still pending. The failure
// sweeps run it with one allocation or one platform call failing.
#ifndef RIX_TEST_SCENARIO_H
#define RIX_TEST_SCENARIO_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace rixtest {

// Broken promises, whatever failed underneath: a record delivered twice, out of order or
// corrupt, a result code the interface does not give, a callback after destroy.
struct ScenarioReport {
    std::vector<std::string> faults;
};
// The scenario in this process (scenario.cpp). strict: no failure is armed, so the books must
// come out exact (what was offered, delivered, coalesced, back-pressed, in which order).
void RunScenario(ScenarioReport &report, bool strict);
// What the orchestrators left behind: empty when nothing, else a reason (blocks of the module's
// allocator, abstraction-layer instances, hash tables or blocks, descriptors opened, module
// names, queue names). tableKept: a table whose release the platform refused keeps its blocks.
std::string LeftBehind(int fdsOpened, uint32_t hashTablesBefore, bool tableKept);

// The runners (sweep_runner.cpp). One run of the scenario in a child process (fork): prepare, arm, run, then the leak
// checks.
struct ChildOutcome {
    enum Kind { Ok, Leak, Fault, Crash } kind = Crash;
    std::string detail;   // why, with the child's own diagnostics (sanitizer report, reasons)
    std::string payload;  // what the child's payload function returned (Ok runs)
};
// tablesKept: hash tables that may stay because the platform refused to delete them.
ChildOutcome RunScenarioInChild(const std::function<void()> &arm, bool strict,
                                const std::function<std::string()> &payload = {}, uint32_t tablesKept = 0);

// The same run in this process, without fork, for a debugger: prints the faults and what was
// left behind; 0 when clean. The sweeps take it when RIX_SWEEP_SITE names one site.
int RunScenarioHere(const std::function<void()> &arm);

// Tallies runs and keeps the first failures' reproductions.
struct SweepTally {
    uint32_t runs = 0, crashes = 0, leaks = 0, faults = 0;
    std::vector<std::string> firstFailures;
    void Add(const ChildOutcome &o, const std::string &site);
    // Prints "<name>: <sites>, R runs, C crashes, L leaks", the broken promises and the first
    // failures; true when every run was clean.
    bool Report(const char *name, const std::string &sites) const;
};

}  // namespace rixtest

#endif
