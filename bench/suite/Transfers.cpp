// Whole download jobs against the bare tool on the same file from the same server, run by turns
// in one process so that every ratio compares neighbouring runs.

#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "BenchJob.h"
#include "Measure.h"
#include "Sections.h"
#include "support/Certificates.h"
#include "support/HttpServer.h"
#include "support/TftpServer.h"

namespace suite {

namespace {

const char* const WORK_DIRECTORY = "/tmp/provisioning/";

std::string sizeName(long long size) {
    return size >= MIB ? std::to_string(size / MIB) + " MiB" : std::to_string(size / KIB) + " KiB";
}

// One kind of transfer: how the job is pointed at the file, and the bare tool's command.
struct Case {
    std::string label;     // "HTTP 1 KiB"
    std::string toolName;  // "wget"
    String url;
    String https1;
    std::string jobWorkFile;
    std::string bareWorkFile;
    std::vector<std::string> bareArgv;
    int runs = 0;
};

bool runCase(const Case& transfer, Recorder& recorder) {
    Series job{transfer.label + " | job", "ms", {}};
    Series bare{transfer.label + " | " + transfer.toolName, "ms", {}};
    Series ratio{transfer.label + " | ratio", "x", {}};
    auto runJob = [&](double& ms) {
        JobRun run = RUN_ONE_JOB(transfer.url, transfer.https1);
        REMOVE(transfer.jobWorkFile);
        if (run.result.isErr()) {
            recorder.note(transfer.label + ": job failed: " + run.result.toString().str());
            return false;
        }
        ms = run.seconds() * 1e3;
        return true;
    };
    auto runBare = [&](double& ms) {
        long long start = NOW_NS();
        ChildOutcome outcome = RUN_TOOL(transfer.bareArgv);
        ms = static_cast<double>(NOW_NS() - start) / 1e6;
        REMOVE(transfer.bareWorkFile);
        if (!outcome.ok()) {
            recorder.note(transfer.label + ": " + transfer.toolName + " " + outcome.describe());
            return false;
        }
        return true;
    };
    // Untimed: the page cache holds the served file and the reactor thread runs.
    double ignored = 0;
    if (!runJob(ignored) || !runBare(ignored)) {
        return false;
    }
    for (int i = 0; i < transfer.runs; ++i) {
        double jobMs = 0;
        double bareMs = 0;
        // Turns alternate, so that neither side always runs on a cache the other warmed.
        bool ok = i % 2 == 0 ? runJob(jobMs) && runBare(bareMs) : runBare(bareMs) && runJob(jobMs);
        if (!ok) {
            return false;
        }
        job.values.push_back(jobMs);
        bare.values.push_back(bareMs);
        ratio.values.push_back(jobMs / bareMs);
    }
    recorder.series(job);
    recorder.series(bare);
    recorder.series(ratio);
    std::vector<double> sorted = ratio.values;
    std::sort(sorted.begin(), sorted.end());
    recorder.note(transfer.label + ": median ratio " + std::to_string(sorted[sorted.size() / 2]));
    return true;
}

std::string uniqueName(const char* kind, long long size) {
    return std::string("suite-") + std::to_string(::getpid()) + "-" + kind + "-" +
           std::to_string(size) + ".bin";
}

}  // namespace

int RUN_TRANSFERS(const Options& options, Recorder& recorder) {
    const long long small = KIB;
    const long long tftpLarge = 16 * MIB;
    const long long httpLarge = 256 * MIB;
    auto runsFor = [&](long long size) {
        return size <= KIB ? options.smallRuns : options.largeRuns;
    };
    int failures = 0;

    {
        provtest::TftpServer server;
        ::testing::AssertionResult started = server.start();
        if (!started) {
            recorder.note(std::string("tftpd did not start: ") + started.message());
            return 1;
        }
        for (long long size : {small, tftpLarge}) {
            std::string name = uniqueName("tftp", size);
            if (!WRITE_SIZED_FILE(server.root() + "/" + name, size)) {
                recorder.note("cannot write the served file");
                return 1;
            }
            Case transfer;
            transfer.label = "TFTP " + sizeName(size);
            transfer.toolName = "busybox tftp";
            transfer.url = String::format("tftp://127.0.0.1:%u/%s", server.port(), name.c_str());
            transfer.jobWorkFile = WORK_DIRECTORY + name;
            transfer.bareWorkFile = std::string(WORK_DIRECTORY) + "bare-" + name;
            transfer.bareArgv = {"busybox",
                                 "tftp",
                                 "-g",
                                 "-l",
                                 transfer.bareWorkFile,
                                 "-r",
                                 name,
                                 "127.0.0.1",
                                 std::to_string(server.port())};
            transfer.runs = runsFor(size);
            failures += runCase(transfer, recorder) ? 0 : 1;
        }
    }

    const provtest::Certificates& certificates = provtest::Certificates::get();
    for (bool https : {false, true}) {
        if (https && !certificates.ok()) {
            recorder.note("no certificates: " + certificates.error());
            ++failures;
            continue;
        }
        provtest::HttpServer::Options serverOptions;
        serverOptions.https = https;
        provtest::HttpServer server(serverOptions);
        ::testing::AssertionResult started = server.start();
        if (!started) {
            recorder.note(std::string("lighttpd did not start: ") + started.message());
            return 1;
        }
        for (long long size : {small, httpLarge}) {
            std::string name = uniqueName(https ? "https" : "http", size);
            if (!WRITE_SIZED_FILE(server.docroot() + "/" + name, size)) {
                recorder.note("cannot write the served file");
                return 1;
            }
            Case transfer;
            transfer.label = std::string(https ? "HTTPS " : "HTTP ") + sizeName(size);
            transfer.toolName = "wget";
            transfer.url = server.url("/" + name);
            transfer.jobWorkFile = WORK_DIRECTORY + name;
            transfer.bareWorkFile = std::string(WORK_DIRECTORY) + "bare-" + name;
            transfer.bareArgv = {"wget", "-q", "-O", transfer.bareWorkFile};
            if (https) {
                transfer.https1 = certificates.rootCa();
                transfer.bareArgv.push_back("--ca-certificate=" + certificates.rootCa());
            }
            transfer.bareArgv.push_back(transfer.url.str());
            transfer.runs = runsFor(size);
            failures += runCase(transfer, recorder) ? 0 : 1;
            REMOVE(server.docroot() + "/" + name);
        }
    }
    return failures == 0 ? 0 : 1;
}

}  // namespace suite
