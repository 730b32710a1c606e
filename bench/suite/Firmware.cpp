// A firmware archive end to end through provctl (download, manifest extraction, the update
// controller's extraction and slot write), for a small and a 256 MiB image: wall time and peak
// resident set of the provctl process. The large one is set against the same steps done by the
// bare tools (wget into a file created first, tar, dd with fsync).

#include <fcntl.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <vector>

#include "Measure.h"
#include "Sections.h"
#include "support/HttpServer.h"
#include "support/TempDir.h"

namespace suite {

namespace {

bool makeArchive(const provtest::TempDir& directory, const std::string& archive, long long size) {
    std::string content = directory.file("content-" + std::to_string(size));
    if (!RUN_TOOL({"mkdir", "-p", content}).ok()) {
        return false;
    }
    std::ofstream(content + "/manifest") << "sw_type=BENCH\nsw_version=1.0\nsw_build_num=1\n";
    if (!WRITE_SIZED_FILE(content + "/image", size)) {
        return false;
    }
    bool made = RUN_TOOL({"tar", "cf", archive, "-C", content, "manifest", "image"}).ok();
    RUN_TOOL({"rm", "-rf", content});
    return made;
}

long long readPeakKiB(const std::string& path) {
    std::ifstream in(path);
    std::string label;
    long long value = -1;
    in >> label >> value;
    return label == "VmHWM:" ? value : -1;
}

}  // namespace

int RUN_FIRMWARE(const Options& options, Recorder& recorder) {
    provtest::TempDir directory("prov-bench-firmware");
    provtest::HttpServer server;
    ::testing::AssertionResult started = server.start();
    if (!started) {
        recorder.note(std::string("lighttpd did not start: ") + started.message());
        return 1;
    }
    const std::string device = directory.file("device");
    const std::string peakFile = directory.file("peak");
    int failures = 0;

    struct Size {
        std::string label;
        long long imageSize;
    };
    for (const Size& size : {Size{"1 KiB image", KIB}, Size{"256 MiB image", 256 * MIB}}) {
        const std::string name = "firmware-" + std::to_string(::getpid()) + "-" +
                                 std::to_string(size.imageSize) + ".tar";
        const std::string archive = server.docroot() + "/" + name;
        if (!makeArchive(directory, archive, size.imageSize)) {
            recorder.note("cannot make " + archive);
            return 1;
        }
        const std::string url = server.url("/" + name);
        const std::vector<std::string> provctl = {options.provctl, "firmware", "--device", device,
                                                  url};
        const std::vector<std::string> probe = {"LD_PRELOAD=" + options.peakProbe,
                                                "PROV_BENCH_PEAK_FILE=" + peakFile};
        const bool large = size.imageSize > KIB;
        // The bare tools doing what the job, the update controller and the slot write do.
        const std::string work = directory.file("bare");
        const std::string download = work + "/download.tar";
        const std::vector<std::vector<std::string>> bareSteps = {
            {"mkdir", "-p", work + "/manifest", work + "/extract"},
            // Created first, as the job's work file is (see the transfers section).
            {"touch", download},
            {"wget", "-q", "-O", download, url},
            {"tar", "xf", download, "-C", work + "/manifest", "manifest"},
            {"tar", "--quoting-style=c", "-t", "-f", download},
            {"tar", "xf", download, "-C", work + "/extract", "manifest", "image"},
            {"dd", "if=" + work + "/extract/image", "of=" + work + "/slot", "bs=64k", "conv=fsync",
             "status=none"},
            {"rm", "-rf", work},
        };

        Series time{"firmware " + size.label + " | provctl", "ms", {}};
        Series bareTime{"firmware " + size.label + " | bare tools", "ms", {}};
        Series ratio{"firmware " + size.label + " | ratio", "x", {}};
        Series treePeak{"firmware " + size.label + " | peak RSS, provctl and children", "KiB", {}};
        Series ownPeak{"firmware " + size.label + " | peak RSS, provctl", "KiB", {}};
        auto runProvctl = [&](bool record) {
            REMOVE(peakFile);
            long long start = NOW_NS();
            ChildOutcome outcome = RUN_TOOL(provctl, directory.file("provctl.log"), probe);
            double ms = static_cast<double>(NOW_NS() - start) / 1e6;
            if (!outcome.ok()) {
                recorder.note("provctl " + outcome.describe() + ", see " +
                              directory.file("provctl.log"));
                return false;
            }
            REMOVE(directory.file("provctl.log"));
            if (record) {
                time.values.push_back(ms);
                treePeak.values.push_back(static_cast<double>(outcome.maxRssKiB));
                ownPeak.values.push_back(static_cast<double>(readPeakKiB(peakFile)));
            }
            return true;
        };
        auto runBare = [&](bool record) {
            long long start = NOW_NS();
            for (const auto& step : bareSteps) {
                ChildOutcome outcome = RUN_TOOL(step);
                if (!outcome.ok()) {
                    recorder.note(step.front() + " " + outcome.describe());
                    return false;
                }
            }
            if (record) {
                bareTime.values.push_back(static_cast<double>(NOW_NS() - start) / 1e6);
            }
            return true;
        };
        if (!runProvctl(false) || (large && !runBare(false))) {
            ++failures;
            REMOVE(archive);
            REMOVE(device + "/tmp/provisioning/" + name);  // provctl maps the work directory there
            continue;
        }
        for (int i = 0; i < options.largeRuns; ++i) {
            bool ok = true;
            if (large && i % 2 == 1) {
                ok = runBare(true) && runProvctl(true);
            } else {
                ok = runProvctl(true) && (!large || runBare(true));
            }
            if (!ok) {
                ++failures;
                break;
            }
            if (large) {
                ratio.values.push_back(time.values.back() / bareTime.values.back());
            }
        }
        recorder.series(time);
        if (large) {
            recorder.series(bareTime);
            recorder.series(ratio);
        }
        recorder.series(treePeak);
        recorder.series(ownPeak);
        REMOVE(archive);
        // The job leaves a downloaded file behind on success; this one is the bench's.
        REMOVE(device + "/tmp/provisioning/" + name);  // provctl maps the work directory there
    }
    return failures == 0 ? 0 : 1;
}

}  // namespace suite
