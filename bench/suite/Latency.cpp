// The engine's own latency around a child process: from execute() to the child's first
// instruction of main, and from the child's last moment before exit to the handler's call. The
// child is the stamp tool standing in for `tftp` or `wget`; the floor is the same tool started
// and waited for directly with posix_spawn and a blocking waitpid.

#include <unistd.h>

#include <fstream>
#include <string>
#include <tuple>
#include <vector>

#include "BenchJob.h"
#include "Measure.h"
#include "Sections.h"
#include "platform/Shell.h"
#include "platform/posix/ShellControl.h"
#include "support/TempDir.h"

namespace suite {

namespace {

bool readStamps(const std::string& path, long long& started, long long& ending) {
    std::ifstream in(path);
    return static_cast<bool>(in >> started >> ending);
}

}  // namespace

int RUN_LATENCY(const Options& options, Recorder& recorder) {
    provtest::TempDir directory("prov-bench-latency");
    // In memory where there is a tmpfs: creating a file on a disk file system can take
    // milliseconds, and the tool does that between its two stamps.
    const std::string stampFile = ::access("/dev/shm", W_OK) == 0
                                      ? "/dev/shm/prov-bench-stamps-" + std::to_string(::getpid())
                                      : directory.file("stamps");
    const int runs = options.smallRuns;

    struct Kind {
        std::string label;
        const char* tool;
        const char* url;
        Series toChild;
        Series toHandler;
        Series both;
        Series loopSleeps;
        Series reactorSleeps;
    };
    std::vector<Kind> kinds;
    for (auto [label, tool, url] : {std::tuple<const char*, const char*, const char*>{
                                        "TFTP", "tftp", "tftp://127.0.0.1:69/latency.bin"},
                                    {"HTTP", "wget", "http://127.0.0.1:9/latency.bin"}}) {
        std::string name(label);
        kinds.push_back({name,
                         tool,
                         url,
                         {name + " | execute to child", "us", {}},
                         {name + " | child exit to handler", "us", {}},
                         {name + " | both", "us", {}},
                         {name + " | loop thread sleeps per job", "", {}},
                         {name + " | reactor thread sleeps per job", "", {}}});
        Kt::ShellControl::SET_TOOL(tool, {options.stampTool.c_str(), stampFile.c_str(), tool});
    }
    Series floorStart{"spawn floor | start", "us", {}};
    Series floorEnd{"spawn floor | end", "us", {}};

    // Round by round, the floor and each kind of job by turns, so that all of them meet the
    // same moments of a machine that others use. The first two rounds start the reactor thread
    // and fill the caches.
    int failures = 0;
    for (int i = 0; i < runs + 2 && failures == 0; ++i) {
        long long before = NOW_NS();
        ChildOutcome outcome = RUN_TOOL({options.stampTool, stampFile, "tftp"});
        long long after = NOW_NS();
        long long started = 0;
        long long ending = 0;
        if (!outcome.ok() || !readStamps(stampFile, started, ending)) {
            recorder.note("the stamp tool failed: " + outcome.describe());
            ++failures;
            break;
        }
        if (i >= 2) {
            floorStart.values.push_back(static_cast<double>(started - before) / 1e3);
            floorEnd.values.push_back(static_cast<double>(after - ending) / 1e3);
        }
        for (Kind& kind : kinds) {
            long long loopBefore = MAIN_THREAD_SLEEPS();
            long long reactorBefore = OTHER_THREADS_SLEEPS();
            JobRun run = RUN_ONE_JOB(kind.url);
            long long loopAfter = MAIN_THREAD_SLEEPS();
            long long reactorAfter = OTHER_THREADS_SLEEPS();
            REMOVE("/tmp/provisioning/latency.bin");
            if (run.result.isErr() || !readStamps(stampFile, started, ending)) {
                recorder.note(kind.label + ": job failed: " + run.result.toString().str());
                ++failures;
                break;
            }
            if (i >= 2) {
                double start = static_cast<double>(started - run.executeAtNs) / 1e3;
                double end = static_cast<double>(run.finishedAtNs - ending) / 1e3;
                kind.toChild.values.push_back(start);
                kind.toHandler.values.push_back(end);
                kind.both.values.push_back(start + end);
                kind.loopSleeps.values.push_back(static_cast<double>(loopAfter - loopBefore));
                kind.reactorSleeps.values.push_back(
                    static_cast<double>(reactorAfter - reactorBefore));
            }
        }
    }
    recorder.series(floorStart);
    recorder.series(floorEnd);
    for (const Kind& kind : kinds) {
        recorder.series(kind.toChild);
        recorder.series(kind.toHandler);
        recorder.series(kind.both);
        recorder.series(kind.loopSleeps);
        recorder.series(kind.reactorSleeps);
    }
    Kt::ShellControl::SET_TOOL("tftp", {"busybox", "tftp"});
    Kt::ShellControl::SET_TOOL("wget", {});
    REMOVE(stampFile);
    return failures == 0 ? 0 : 1;
}

}  // namespace suite
