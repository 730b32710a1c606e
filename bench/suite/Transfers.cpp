// Whole download jobs against the bare tool on the same file from the same server, run by turns
// in one process so that every ratio compares neighbouring runs.

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <string>
#include <vector>

#include "BenchJob.h"
#include "Measure.h"
#include "Sections.h"
#include "platform/WgetUtil.h"
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
    // HTTP(S): also the job's own wget command line, run without the engine. Separates what the
    // engine costs from what its choice of wget options costs (or saves).
    bool jobCommandLine = false;
    int runs = 0;
};

// The argument list the job gives wget, with its private files made; release them afterwards.
bool jobWgetArgs(const Case& transfer, const std::string& out, std::vector<String>& args) {
    XCode built = WgetUtil::buildArgs(true, transfer.url, String(), String(), String(out),
                                      transfer.https1, String(), String(), false, args, String());
    return built.isSuccess();
}

// Creates the work file as the job's createOutFile does (write-only, created, not truncated).
bool createLikeTheJob(const std::string& path) {
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    if (fd < 0) {
        return false;
    }
    ::close(fd);
    return true;
}

// One contender of a round: runs once and gives its wall time in milliseconds. Every contender
// but the job has the name of the job's ratio to it.
struct Contender {
    Series series;
    std::string ratioName;
    std::function<bool(double&)> run;
};

bool runCase(const Case& transfer, const Options& options, Recorder& recorder) {
    if (transfer.label.find(options.filter) == std::string::npos) {
        return true;
    }
    Series cpu{transfer.label + " | engine CPU", "ms", {}};
    auto runJob = [&](double& ms) {
        double cpuBefore = CPU_MS();
        JobRun run = RUN_ONE_JOB(transfer.url, transfer.https1);
        cpu.values.push_back(CPU_MS() - cpuBefore);
        REMOVE(transfer.jobWorkFile);
        if (run.result.isErr()) {
            recorder.note(transfer.label + ": job failed: " + run.result.toString().str());
            return false;
        }
        ms = run.seconds() * 1e3;
        return true;
    };
    auto runArgv = [&](const std::vector<std::string>& argv, bool createFirst, double& ms) {
        if (createFirst && !createLikeTheJob(transfer.bareWorkFile)) {
            recorder.note(transfer.label + ": cannot create " + transfer.bareWorkFile);
            return false;
        }
        long long start = NOW_NS();
        ChildOutcome outcome = RUN_TOOL(argv);
        ms = static_cast<double>(NOW_NS() - start) / 1e6;
        REMOVE(transfer.bareWorkFile);
        if (!outcome.ok()) {
            recorder.note(transfer.label + ": " + argv.front() + " " + outcome.describe());
            return false;
        }
        return true;
    };
    auto runSameLine = [&](double& ms) {
        std::vector<String> args;
        if (!jobWgetArgs(transfer, transfer.bareWorkFile, args)) {
            recorder.note(transfer.label + ": cannot build the job's wget arguments");
            return false;
        }
        std::vector<std::string> argv = {"wget"};
        for (const String& arg : args) {
            argv.push_back(arg.str());
        }
        bool ok = runArgv(argv, true, ms);
        WgetUtil::RELEASE_SECRETS(args);
        return ok;
    };

    std::vector<Contender> contenders;
    contenders.push_back({{transfer.label + " | job", "ms", {}}, "", runJob});
    contenders.push_back({{transfer.label + " | " + transfer.toolName, "ms", {}},
                          "ratio",
                          [&](double& ms) { return runArgv(transfer.bareArgv, false, ms); }});
    contenders.push_back(
        {{transfer.label + " | " + transfer.toolName + ", work file created first", "ms", {}},
         "ratio to the work file created first",
         [&](double& ms) { return runArgv(transfer.bareArgv, true, ms); }});
    if (transfer.jobCommandLine) {
        contenders.push_back(
            {{transfer.label + " | job's wget command line, work file created first", "ms", {}},
             "ratio to the job's command line",
             runSameLine});
    }
    // Untimed: the page cache holds the served file and the reactor thread runs.
    for (Contender& contender : contenders) {
        double ignored = 0;
        if (!contender.run(ignored)) {
            return false;
        }
    }
    cpu.values.clear();
    const std::size_t count = contenders.size();
    for (int i = 0; i < transfer.runs; ++i) {
        // The order turns round by round, so that no contender always runs on a cache, a disk
        // or a scheduler state that another one left.
        for (std::size_t k = 0; k < count; ++k) {
            Contender& contender = contenders[(k + static_cast<std::size_t>(i)) % count];
            double ms = 0;
            if (!contender.run(ms)) {
                return false;
            }
            contender.series.values.push_back(ms);
        }
    }
    const std::vector<double>& job = contenders[0].series.values;
    for (Contender& contender : contenders) {
        recorder.series(contender.series);
    }
    for (std::size_t k = 1; k < count; ++k) {
        Series ratio{transfer.label + " | " + contenders[k].ratioName, "x", {}};
        for (std::size_t i = 0; i < job.size(); ++i) {
            ratio.values.push_back(job[i] / contenders[k].series.values[i]);
        }
        recorder.series(ratio);
        if (k == 1) {
            std::vector<double> sorted = ratio.values;
            std::sort(sorted.begin(), sorted.end());
            recorder.note(transfer.label + ": median ratio " +
                          std::to_string(sorted[sorted.size() / 2]));
        }
    }
    recorder.series(cpu);
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
            transfer.label = "TFTP " + sizeName(size) + options.labelSuffix;
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
            failures += runCase(transfer, options, recorder) ? 0 : 1;
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
            transfer.label =
                std::string(https ? "HTTPS " : "HTTP ") + sizeName(size) + options.labelSuffix;
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
            transfer.jobCommandLine = true;
            transfer.runs = runsFor(size);
            failures += runCase(transfer, options, recorder) ? 0 : 1;
            REMOVE(server.docroot() + "/" + name);
        }
    }
    return failures == 0 ? 0 : 1;
}

}  // namespace suite
