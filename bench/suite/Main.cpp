// The job suite: whole jobs against the bare tools, the engine's latency around a child
// process, many jobs at once, and provctl's firmware run with its peak memory.
//   JobSuite [--out FILE] [--small-runs N] [--large-runs N] [--jobs N] [--rounds N]
//            [--filter TEXT] [--tmpfs] SECTION...
// SECTION is transfers, latency, concurrency or firmware. Figures go to FILE as JSON lines
// (bench/report.py), progress to standard error. Runs as root: tftpd-hpa chroots.
// --tmpfs puts a tmpfs over /tmp/provisioning, in a mount namespace of this process's own (the
// rest of the machine keeps its /tmp), and marks every transfer label " (tmpfs)": a device's
// /tmp lives in memory, a development host's often on disk.

#include <sched.h>
#include <sys/mount.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "Measure.h"
#include "Sections.h"
#include "platform/simulated/DeviceDirectory.h"

namespace {

int usage() {
    std::fprintf(stderr,
                 "usage: JobSuite [--out FILE] [--small-runs N] [--large-runs N] [--jobs N] "
                 "[--rounds N] [--filter TEXT] [--tmpfs] "
                 "transfers|latency|concurrency|firmware...\n");
    return 2;
}

bool mountPrivateTmpfs(const char* directory) {
    if (::unshare(CLONE_NEWNS) != 0) {
        std::fprintf(stderr, "unshare(CLONE_NEWNS): %s\n", std::strerror(errno));
        return false;
    }
    // Without this the new mount would propagate back to the machine's own namespace.
    if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        ::mount("tmpfs", directory, "tmpfs", 0, "mode=0755") != 0) {
        std::fprintf(stderr, "cannot mount a tmpfs on %s: %s\n", directory, std::strerror(errno));
        return false;
    }
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    suite::Options options;
    options.stampTool = PROV_BENCH_STAMP_TOOL;
    options.peakProbe = PROV_BENCH_PEAK_PROBE;
    options.provctl = PROV_BENCH_PROVCTL;
    std::string out;
    std::vector<std::string> sections;
    bool tmpfs = false;
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        bool hasValue = i + 1 < argc;
        if (arg == "--out" && hasValue) {
            out = argv[++i];
        } else if (arg == "--small-runs" && hasValue) {
            options.smallRuns = std::atoi(argv[++i]);
        } else if (arg == "--large-runs" && hasValue) {
            options.largeRuns = std::atoi(argv[++i]);
        } else if (arg == "--jobs" && hasValue) {
            options.concurrentJobs = std::atoi(argv[++i]);
        } else if (arg == "--filter" && hasValue) {
            options.filter = argv[++i];
        } else if (arg == "--tmpfs") {
            tmpfs = true;
            options.labelSuffix = " (tmpfs)";
        } else if (arg == "--rounds" && hasValue) {
            options.concurrencyRounds = std::atoi(argv[++i]);
        } else if (arg == "transfers" || arg == "latency" || arg == "concurrency" ||
                   arg == "firmware") {
            sections.push_back(arg);
        } else {
            return usage();
        }
    }
    if (sections.empty() || options.smallRuns < 1 || options.largeRuns < 1 ||
        options.concurrentJobs < 1 || options.concurrencyRounds < 1) {
        return usage();
    }
    // The bare tools must not go through a proxy the environment names; the jobs never do.
    for (const char* proxy : {"http_proxy", "https_proxy", "HTTP_PROXY", "HTTPS_PROXY"}) {
        ::unsetenv(proxy);
    }
    // No device directory: the jobs run without the simulated device's status mirror files,
    // which are the host's business, not the engine's.
    if (Device::MAKE_DIRECTORIES("/tmp/provisioning").isErr()) {
        std::fprintf(stderr, "cannot create /tmp/provisioning\n");
        return 1;
    }
    if (tmpfs && !mountPrivateTmpfs("/tmp/provisioning")) {
        return 1;
    }
    int failed = 0;
    for (const std::string& section : sections) {
        suite::Recorder recorder(section, out);
        recorder.note("running");
        int result = 0;
        if (section == "transfers") {
            result = suite::RUN_TRANSFERS(options, recorder);
        } else if (section == "latency") {
            result = suite::RUN_LATENCY(options, recorder);
        } else if (section == "concurrency") {
            result = suite::RUN_CONCURRENCY(options, recorder);
        } else {
            result = suite::RUN_FIRMWARE(options, recorder);
        }
        recorder.note(result == 0 ? "done" : "FAILED");
        failed += result;
    }
    return failed == 0 ? 0 : 1;
}
