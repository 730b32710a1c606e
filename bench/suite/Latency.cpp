// The engine's own latency around a child process: from execute() to the child's first
// instruction of main, and from the child's last moment before exit to the handler's call. The
// child is the stamp tool standing in for `tftp` or `wget`; the floor is the same tool started
// and waited for directly with posix_spawn and a blocking waitpid.

#include <fstream>
#include <string>
#include <vector>

#include "BenchJob.h"
#include "Measure.h"
#include "Sections.h"
#include "platform/Shell.h"
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
    const std::string stampFile = directory.file("stamps");
    const int runs = options.smallRuns;
    int failures = 0;

    Series floorStart{"spawn floor | start", "us", {}};
    Series floorEnd{"spawn floor | end", "us", {}};
    for (int i = 0; i < runs + 2; ++i) {
        long long before = NOW_NS();
        ChildOutcome outcome = RUN_TOOL({options.stampTool, stampFile, "tftp"});
        long long after = NOW_NS();
        long long started = 0;
        long long ending = 0;
        if (!outcome.ok() || !readStamps(stampFile, started, ending)) {
            recorder.note("the stamp tool failed: " + outcome.describe());
            return 1;
        }
        if (i >= 2) {
            floorStart.values.push_back(static_cast<double>(started - before) / 1e3);
            floorEnd.values.push_back(static_cast<double>(after - ending) / 1e3);
        }
    }
    recorder.series(floorStart);
    recorder.series(floorEnd);

    struct Kind {
        const char* label;
        const char* tool;
        const char* url;
    };
    for (const Kind& kind : {Kind{"TFTP", "tftp", "tftp://127.0.0.1:69/latency.bin"},
                             Kind{"HTTP", "wget", "http://127.0.0.1:9/latency.bin"}}) {
        Kt::Shell::SET_TOOL(kind.tool, {options.stampTool.c_str(), stampFile.c_str(), kind.tool});
        Series toChild{std::string(kind.label) + " | execute to child", "us", {}};
        Series toHandler{std::string(kind.label) + " | child exit to handler", "us", {}};
        Series both{std::string(kind.label) + " | both", "us", {}};
        for (int i = 0; i < runs + 2; ++i) {
            JobRun run = RUN_ONE_JOB(kind.url);
            REMOVE("/tmp/provisioning/latency.bin");
            long long started = 0;
            long long ending = 0;
            if (run.result.isErr() || !readStamps(stampFile, started, ending)) {
                recorder.note(std::string(kind.label) +
                              ": job failed: " + run.result.toString().str());
                ++failures;
                break;
            }
            // The first two runs start the reactor thread and fill the caches.
            if (i >= 2) {
                double start = static_cast<double>(started - run.executeAtNs) / 1e3;
                double end = static_cast<double>(run.finishedAtNs - ending) / 1e3;
                toChild.values.push_back(start);
                toHandler.values.push_back(end);
                both.values.push_back(start + end);
            }
        }
        recorder.series(toChild);
        recorder.series(toHandler);
        recorder.series(both);
    }
    Kt::Shell::SET_TOOL("tftp", {"busybox", "tftp"});
    Kt::Shell::SET_TOOL("wget", {});
    return failures == 0 ? 0 : 1;
}

}  // namespace suite
