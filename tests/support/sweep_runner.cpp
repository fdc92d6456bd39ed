// Runs the scenario in a child process per run, or in this one for a debugger, and tallies
// the runs of a sweep.
#include <dirent.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "scenario.h"
#include "test_support.h"

namespace rixtest {
namespace {

int FdCount()
{
    int n = 0;
    DIR *d = opendir("/proc/self/fd");
    if (d == nullptr) {
        return -1;
    }
    while (readdir(d) != nullptr) {
        ++n;
    }
    closedir(d);
    return n;
}

std::string ReadAll(int fd)
{
    std::string out;
    char buf[4096];
    (void)lseek(fd, 0, SEEK_SET);
    for (ssize_t n; (n = read(fd, buf, sizeof(buf))) > 0;) {
        out.append(buf, static_cast<size_t>(n));
    }
    return out;
}

enum ChildExit { kExitOk = 0, kExitLeak = 70, kExitFault = 71 };

// Prepares, arms and runs the scenario, then takes the payload and the captured lines and,
// with nothing armed any more, what was left behind.
struct Armed {
    ScenarioReport report;
    std::string payload, left;
    std::vector<std::string> lines;
};
Armed RunArmed(const std::function<void()> &arm, bool strict, const std::function<std::string()> &payload,
               uint32_t tablesKept)
{
    Armed out;
    RIX_TEST_Reset();
    RIX_TEST_LogCapture(1);
    ResetAllocStats();
    const int fds = FdCount();
    const uint32_t tables = RIX_TEST_HashTableCount();
    arm();
    RunScenario(out.report, strict);
    out.payload = payload ? payload() : std::string();
    out.lines = Lines();
    RIX_TEST_Reset();
    out.left = LeftBehind(FdCount() - fds, tables + tablesKept, tablesKept != 0u);
    return out;
}

}  // namespace

ChildOutcome RunScenarioInChild(const std::function<void()> &arm, bool strict,
                                const std::function<std::string()> &payload, uint32_t tablesKept)
{
    ChildOutcome out;
    std::FILE *err = std::tmpfile();
    std::FILE *pay = std::tmpfile();
    if (err == nullptr || pay == nullptr) {
        out.detail = "no temporary file";
        return out;
    }
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(fileno(err), 2);
        alarm(60);  // a hang is reported as a crash by SIGALRM
        const Armed run = RunArmed(arm, strict, payload, tablesKept);
        int code = kExitOk;
        for (const std::string &f : run.report.faults) {
            std::fprintf(stderr, "fault: %s\n", f.c_str());
            code = kExitFault;
        }
        if (::testing::Test::HasFailure()) {
            std::fprintf(stderr, "fault: a check of the test support failed (block freed twice?)\n");
            code = kExitFault;
        }
        if (!run.left.empty()) {
            std::fprintf(stderr, "left behind: %s\n", run.left.c_str());
            code = code == kExitOk ? kExitLeak : code;
        }
        if (code != kExitOk) {
            // The orchestrators' own lines tell where the failure went in.
            uint32_t shown = 0;
            for (const std::string &l : run.lines) {
                if ((l.find("ail") != std::string::npos || l.find("rror") != std::string::npos) && ++shown <= 10u) {
                    std::fprintf(stderr, "  log: %s\n", l.c_str());
                }
            }
        }
        std::fputs(run.payload.c_str(), pay);
        std::fflush(nullptr);
#ifdef RIX_COVERAGE
        std::exit(code);  // _exit would skip every library's counter dump: the child's paths count
#else
        _exit(code);
#endif
    }
    int status = 0;
    if (pid < 0 || waitpid(pid, &status, 0) != pid) {
        out.detail = "fork or wait failed";
    } else if (WIFEXITED(status) && WEXITSTATUS(status) == kExitOk) {
        out.kind = ChildOutcome::Ok;
    } else if (WIFEXITED(status) && WEXITSTATUS(status) == kExitLeak) {
        out.kind = ChildOutcome::Leak;
    } else if (WIFEXITED(status) && WEXITSTATUS(status) == kExitFault) {
        out.kind = ChildOutcome::Fault;
    } else {
        out.kind = ChildOutcome::Crash;
        out.detail = WIFSIGNALED(status) ? "killed by signal " + std::to_string(WTERMSIG(status)) + "\n"
                                         : "exit status " + std::to_string(WEXITSTATUS(status)) + "\n";
    }
    out.detail += ReadAll(fileno(err));
    out.payload = ReadAll(fileno(pay));
    std::fclose(err);
    std::fclose(pay);
    return out;
}

int RunScenarioHere(const std::function<void()> &arm)
{
    const Armed run = RunArmed(arm, false, {}, 0u);
    for (const std::string &f : run.report.faults) {
        std::printf("fault: %s\n", f.c_str());
    }
    for (const std::string &l : run.lines) {
        std::printf("  log: %s\n", l.c_str());
    }
    std::printf("left behind: %s\n", run.left.empty() ? "nothing" : run.left.c_str());
    return run.report.faults.empty() && run.left.empty() ? 0 : 1;
}

void SweepTally::Add(const ChildOutcome &o, const std::string &site)
{
    ++runs;
    if (o.kind == ChildOutcome::Ok) {
        return;
    }
    (o.kind == ChildOutcome::Crash ? crashes : o.kind == ChildOutcome::Leak ? leaks : faults) += 1;
    if (firstFailures.size() < 8u) {
        // The sanitizer's summary lines and the first frames are enough to find the place.
        std::string d = o.detail;
        if (d.size() > 3000u) {
            d = d.substr(0, 3000u) + "\n  [...]";
        }
        firstFailures.push_back(site + ":\n" + d);
    }
}

bool SweepTally::Report(const char *name, const std::string &sites) const
{
    std::printf("%s: %s, %u runs, %u crashes, %u leaks\n", name, sites.c_str(), runs, crashes, leaks);
    if (faults != 0u) {
        std::printf("%s: %u runs broke a promise (wrong result, record delivered twice or corrupt)\n", name, faults);
    }
    for (const std::string &f : firstFailures) {
        std::printf("--- %s\n", f.c_str());
    }
    return crashes + leaks + faults == 0u;
}

}  // namespace rixtest
