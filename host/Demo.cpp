#include "host/Demo.h"

#include <stdlib.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "host/DemoPlan.h"
#include "host/DeviceSettings.h"
#include "host/JobRunner.h"
#include "host/Progress.h"
#include "host/StderrMonitors.h"
#include "host/StopSignals.h"
#include "platform/Cli.h"
#include "platform/Shell.h"
#include "platform/SystemStatus.h"
#include "platform/posix/PrivateFile.h"
#include "platform/posix/ShellControl.h"
#include "platform/simulated/DeviceDirectory.h"
#include "platform/simulated/SimulatedCmdExec.h"
#include "platform/simulated/SimulatedSystemStatus.h"

namespace Provctl {

namespace {

constexpr int EXIT_OK = 0;
constexpr int EXIT_FAILED = 1;

void printOut(const String& text) {
    Stderr::CLEAR_STATUS();
    std::fwrite(text.data(), 1, static_cast<std::size_t>(text.length()), stdout);
    std::fflush(stdout);
}

void printError(const String& text) {
    Stderr::WRITE("provctl demo: " + text + "\n");
}

XCode makeTempDirectory(const char* pattern, String& path) {
    std::string name = pattern;
    if (::mkdtemp(name.data()) == nullptr) {
        const int error = errno;
        return XCode::fromErrno(error).setStringF("CANNOT CREATE DIRECTORY %s: %s", pattern,
                                                  std::strerror(error));
    }
    path = name;
    return XCode(XCode::SUCCESS);
}

// Removes a directory with its content when the demo ends, on every path.
class RemoveOnExit {
  public:
    explicit RemoveOnExit(String path) : path_(std::move(path)) {}
    ~RemoveOnExit() {
        std::error_code ignored;  // a leftover in /tmp is no reason to fail the demo
        std::filesystem::remove_all(path_.str(), ignored);
    }
    RemoveOnExit(const RemoveOnExit&) = delete;
    RemoveOnExit& operator=(const RemoveOnExit&) = delete;

  private:
    String path_;
};

// Collects the monitor lines of the running job for its checks and feeds its progress display.
// Lines come from any thread.
class Recorder {
  public:
    void onLine(const String& text) {
        std::lock_guard<std::mutex> lock(mutex_);
        lines_.push_back(text);
        if (progress_ != nullptr) {
            progress_->onMonitorLine(text);
        }
    }
    void begin(DownloadProgress* progress) {
        std::lock_guard<std::mutex> lock(mutex_);
        lines_.clear();
        progress_ = progress;
    }
    std::vector<String> end() {
        std::lock_guard<std::mutex> lock(mutex_);
        progress_ = nullptr;
        return std::move(lines_);
    }

  private:
    std::mutex mutex_;
    std::vector<String> lines_;
    DownloadProgress* progress_ = nullptr;
};

bool isUpgradeJob(const String& kind) {
    return kind == "firmware" || kind == "script";
}

StepResult runStep(const DemoStep& step, const Demo& demo, Recorder& recorder,
                   ExpressionResolver& resolver, const ProvisioningCredentials& credentials) {
    StepResult result;
    JobRequest request = step.request;
    request.resolver = &resolver;
    request.credentials = credentials;

    DeviceSnapshot before;
    DeviceSnapshot after;
    XCode snapshot = SNAPSHOT_DEVICE(demo.device, before);
    const bool download = request.kind != "upload" && request.kind != "cdr-upload";
    DownloadProgress progress(request.name, download && Stderr::IS_TERMINAL());
    recorder.begin(&progress);
    {
        KtEventLoop loop;
        result.outcome = RUN_JOB(request, loop, [&progress](const ProvisioningJob& job) {
            static_cast<void>(progress.poll(job.getOutFile()));
        });
    }
    result.lines = recorder.end();
    if (isUpgradeJob(request.kind) && !result.outcome.interrupted) {
        XCode applied = APPLY_TO_SLOTS(result.outcome, request.reloadType);
        if (applied.isErr()) {
            printError("cannot update the slot state: " + applied.toString());
        }
    }
    if (snapshot.isSuccess()) {
        snapshot = SNAPSHOT_DEVICE(demo.device, after);
    }
    if (snapshot.isErr()) {
        printError("cannot read the device directory: " + snapshot.toString());
    }
    result.changes = DIFF_SNAPSHOTS(before, after);
    return result;
}

String resultText(const JobOutcome& outcome) {
    const XCode& result = outcome.result;
    if (result.isSuccess()) {
        return "OK";
    }
    return result.getString().isEmpty() ? result.toString() : result.getString();
}

}  // namespace

String DEMO_FILES_DIRECTORY() {
    std::vector<std::filesystem::path> candidates;
    std::error_code error;
    const std::filesystem::path program = std::filesystem::read_symlink("/proc/self/exe", error);
    if (!error) {
        candidates.push_back(program.parent_path() / PROVCTL_DEMO_FROM_BINDIR);
    }
    candidates.emplace_back(PROVCTL_DEMO_SOURCE_DIR);
    for (const std::filesystem::path& candidate : candidates) {
        if (std::filesystem::is_regular_file(candidate / "unit.cfg", error)) {
            return candidate.lexically_normal().string();
        }
    }
    return String();
}

int RUN_DEMO(const DemoOptions& options) {
    Demo demo;
    demo.files = DEMO_FILES_DIRECTORY();
    if (demo.files.isEmpty()) {
        printError(String::format("sample files not found (neither %s beside the program nor %s)",
                                  PROVCTL_DEMO_FROM_BINDIR, PROVCTL_DEMO_SOURCE_DIR));
        return EXIT_FAILED;
    }
    INSTALL_STOP_SIGNALS();
    struct SignalsBack {
        ~SignalsBack() { REMOVE_STOP_SIGNALS(); }
    } signalsBack;

    XCode result = makeTempDirectory("/tmp/provctl-demo-servers-XXXXXX", demo.servers);
    if (result.isErr()) {
        printError(result.toString());
        return EXIT_FAILED;
    }
    RemoveOnExit removeServers(demo.servers);
    // The servers stop before their files go.
    struct ServersBack {
        Demo& demo;
        ~ServersBack() {
            demo.http.reset();
            demo.tftp.reset();
        }
    } serversBack{demo};
    demo.tftpRoot = demo.servers + "/tftp";
    demo.httpDirectory = demo.servers + "/http";
    demo.docroot = demo.httpDirectory + "/docroot";
    result = makeTempDirectory("/tmp/provctl-demo-XXXXXX", demo.device);
    for (const String& directory : {demo.tftpRoot, demo.docroot}) {
        if (result.isSuccess()) {
            result = Device::MAKE_DIRECTORIES(directory);
        }
    }
    if (result.isSuccess()) {
        result = STAGE_DEMO_FILES(demo);
    }
    if (result.isSuccess()) {
        result = START_DEMO_SERVERS(demo);
    }
    if (result.isErr()) {
        printError(result.toString());
        return EXIT_FAILED;
    }
    if (STOP_SIGNAL() != 0) {
        printError(String::format("interrupted by signal %d", STOP_SIGNAL()));
        return EXIT_FAILED;
    }

    // The device, as provctl's job commands set it up.
    DeviceSettings settings;
    ExpressionResolver resolver;
    ProvisioningCredentials credentials;
    // It holds the realm's password: readable by its owner only, as provctl requires.
    result = PrivateFile::WRITE(demo.device + "/device.toml", DEMO_DEVICE_TOML);
    if (result.isSuccess()) {
        result = LOAD_DEVICE_FILE(demo.device + "/device.toml", settings);
    }
    if (result.isSuccess()) {
        result = FILL_RESOLVER(settings, resolver);
    }
    if (result.isSuccess()) {
        result = FILL_CREDENTIALS(settings, credentials);
    }
    Device::SET_ROOT(demo.device);
    CmdExec::SET_REJECTED_COMMANDS(settings.rejectedCommands);
    if (result.isSuccess()) {
        result = Device::PREPARE();
    }
    if (result.isErr()) {
        printError(result.toString());
        return EXIT_FAILED;
    }

    printOut(
        String::format("Sample files:     %s\n"
                       "TFTP server:      %s (in.tftpd)\n"
                       "HTTP server:      %s (lighttpd; /secure/ needs realm \"%s\", "
                       "/old/office.txt answers 302)\n"
                       "Device directory: %s\n\n",
                       demo.files.c_str(), demo.tftpUrl("/").c_str(), demo.httpUrl("/").c_str(),
                       DEMO_REALM, demo.device.c_str()));

    Recorder recorder;
    StderrMonitors monitors(options.level, [&recorder](const String&, int, const String& text) {
        recorder.onLine(text);
    });
    DRIVER::INSTANCE().registerInterface(DID_SystemStatus(), "provctl",
                                         std::make_shared<SimulatedSystemStatus>());
    Kt::ShellControl::SET_TOOL("tftp", {"busybox", "tftp"});
    struct DriverBack {
        ~DriverBack() { DRIVER::INSTANCE().unregisterAll(); }
    } driverBack;

    const std::vector<DemoStep> steps = MAKE_DEMO_STEPS(demo);
    std::vector<std::vector<String>> rows[2];
    int problems = 0;
    std::size_t done = 0;
    for (const DemoStep& step : steps) {
        printOut(String::format("[%2zu/%zu] round %d: %s %s%s\n", done + 1, steps.size(),
                                step.round, step.request.kind.c_str(),
                                step.request.compare ? "--compare " : "",
                                step.request.locations.front().c_str()));
        const StepResult outcome = runStep(step, demo, recorder, resolver, credentials);
        String note;
        const String problem = JUDGE_DEMO_STEP(step, outcome, note);
        if (!problem.isEmpty()) {
            ++problems;
        }
        rows[step.round - 1].push_back(
            {step.request.kind, demo.shortLocation(step.request.locations.front()),
             resultText(outcome.outcome), DESCRIBE_CHANGES(outcome.changes),
             problem.isEmpty() ? "ok: " + note : "FAIL: " + problem});
        ++done;
        if (outcome.outcome.interrupted) {
            break;
        }
    }

    const std::vector<String> header = {"job", "location", "result", "changed on the device",
                                        "check"};
    const char* const titles[2] = {"Round 1: a new device",
                                   "Round 2: the same jobs with --compare; nothing may change"};
    // Both rounds in one table, so that their columns line up.
    std::vector<std::vector<String>> table = {header};
    for (const auto& round : rows) {
        table.insert(table.end(), round.begin(), round.end());
    }
    const std::vector<String> lines = FORMAT_TABLE(table).split('\n');
    String summary = "\n";
    std::size_t line = 0;
    for (int round = 0; round < 2; ++round) {
        if (rows[round].empty()) {
            continue;
        }
        summary.concatf("%s\n\n%s\n%s\n", titles[round], lines[0].c_str(), lines[1].c_str());
        for (std::size_t index = 0; index < rows[round].size(); ++index) {
            summary += lines[2 + line++] + "\n";
        }
        summary += "\n";
    }
    summary +=
        "Changes: +new file, ~changed, -removed (status/ and the work directory tmp/ are left out: "
        "every job updates them).\n";
    const int signal = STOP_SIGNAL();
    if (signal != 0) {
        summary.concatf("Interrupted by signal %d after %zu of %zu jobs.\n", signal, done,
                        steps.size());
    } else if (problems == 0) {
        summary.concatf("All %zu jobs did what they should.\n", steps.size());
    } else {
        summary.concatf("%d of %zu jobs did not do what they should (FAIL above).\n", problems,
                        steps.size());
    }
    summary.concatf("The device directory stays for inspection: %s\n", demo.device.c_str());
    printOut(summary);
    return signal == 0 && problems == 0 ? EXIT_OK : EXIT_FAILED;
}

}  // namespace Provctl
