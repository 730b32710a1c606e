#include "host/Provctl.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>

#include "engine/Monitors.h"
#include "host/Attempts.h"
#include "host/CommandLine.h"
#include "host/Demo.h"
#include "host/DeviceSettings.h"
#include "host/HttpsFiles.h"
#include "host/JobKinds.h"
#include "host/JobRunner.h"
#include "host/Progress.h"
#include "host/Report.h"
#include "host/StderrMonitors.h"
#include "host/StopSignals.h"
#include "platform/Cli.h"
#include "platform/FileNode.h"
#include "platform/Monitor.h"
#include "platform/Shell.h"
#include "platform/SystemStatus.h"
#include "platform/posix/ShellControl.h"
#include "platform/simulated/DeviceDirectory.h"
#include "platform/simulated/SimulatedCmdExec.h"
#include "platform/simulated/SimulatedSystemStatus.h"
#include "platform/simulated/SlotState.h"

namespace Provctl {

namespace {

constexpr int EXIT_OK = 0;
constexpr int EXIT_FAILED = 1;
constexpr int EXIT_USAGE = 2;
// How long an interrupted run waits for the children of its job to be reaped.
constexpr std::chrono::seconds WAIT_FOR_CHILDREN{15};

String deviceDirectory(const Options& options) {
    return options.device.isEmpty() ? DEFAULT_DEVICE_DIRECTORY() : options.device;
}

// Messages may quote device values, locations and server text.
void printError(const String& message) {
    Stderr::WRITE("provctl: " + message + "\n");
}

void printError(const XCode& error) {
    printError(error.getString());
}

// The device file and the command line together; false (message printed) on a usage error.
bool loadSettings(const Options& options, const String& directory, DeviceSettings& settings,
                  ExpressionResolver& resolver) {
    XCode result = LOAD_DEVICE_FILE(directory + "/device.toml", settings);
    if (result.isSuccess()) {
        result = APPLY_COMMAND_LINE(options, settings);
    }
    if (result.isSuccess()) {
        result = FILL_RESOLVER(settings, resolver);
    }
    if (result.isErr()) {
        printError(result);
        return false;
    }
    return true;
}

// Reads the device directory but creates and changes nothing in it.
int runResolve(const Options& options) {
    DeviceSettings settings;
    ExpressionResolver resolver;
    if (!loadSettings(options, deviceDirectory(options), settings, resolver)) {
        return EXIT_USAGE;
    }
    String text = options.text;
    XCode result = resolver.replaceAllExpressions(text);
    if (result.isErr()) {
        result.extendString("CANNOT RESOLVE ALL EXPRESSIONS", ": ");
        Stderr::WRITE(result.toString() + "\n");
        return EXIT_FAILED;
    }
    // The values may come from a DHCP server.
    const String shown = RTD::Monitor::ESCAPE_CONTROLS(text + "\n");
    const std::size_t length = static_cast<std::size_t>(shown.length());
    const bool written = std::fwrite(shown.data(), 1, length, stdout) == length;
    if (std::fflush(stdout) != 0 || !written) {
        printError("cannot write the result to standard output");
        return EXIT_FAILED;
    }
    return EXIT_OK;
}

// The engine tries at most this many locations of a job.
constexpr std::size_t MOST_LOCATIONS = ProvisioningJob::MAX_LOCATIONS_TRIED;

void warnAboutUntriedLocations(const Options& options) {
    if (options.locations.size() > MOST_LOCATIONS) {
        printError(String::format(
            "warning: %zu locations given, a job tries at most %zu: the last %zu will never be "
            "tried",
            options.locations.size(), MOST_LOCATIONS, options.locations.size() - MOST_LOCATIONS));
    }
}

// The slot state is read before anything is created or run: a file edited into a state that the
// device cannot have (a third slot, a misspelt key) is a usage error. False (message printed) then.
bool checkSlotState() {
    SlotState slots;
    XCode result = SlotState::LOAD(slots);
    if (result.isErr()) {
        printError(result);
        return false;
    }
    return true;
}

JobRequest buildRequest(const Options& options, const DeviceSettings& settings,
                        ExpressionResolver& resolver) {
    JobRequest request;
    request.kind = options.command;
    request.name = options.name.isEmpty() ? options.command : options.name;
    request.reloadType = ProvisioningJob::STRING_TO_RELOAD_TYPE(options.reload);
    request.compare = options.compare;
    for (const String& location : options.locations) {
        request.locations.pushBack(location);
    }
    request.resolver = &resolver;
    request.httpsGiven = settings.httpsGiven;
    request.auth1 = settings.httpsCa;
    request.auth2 = settings.httpsCert;
    request.auth3 = settings.httpsKey;
    request.sourceName = options.source;
    request.dialplanName = options.dialplan;
    return request;
}

// Lays the device directory out; the default one is named when this run creates it.
bool prepareDevice(const Options& options, const String& directory) {
    FileNode::Info before;
    const bool wasMissing =
        FileNode::INSPECT(directory, before).isSuccess() && before.kind == FileNode::Kind::Missing;
    XCode prepared = Device::MAKE_DIRECTORIES(directory);
    if (prepared.isSuccess()) {
        prepared = Device::PREPARE();
    }
    if (prepared.isErr()) {
        printError(prepared);
        return false;
    }
    if (wasMissing && options.device.isEmpty() && options.verbosity != Verbosity::Quiet) {
        printError("created the device directory " + directory);
    }
    return true;
}

// At the default verbosity: the transfer log, failures and the device's events of that weight;
// with -v the whole log up to its level; with -q nothing.
StderrMonitors::Filter writtenLines(const Options& options) {
    switch (options.verbosity) {
        case Verbosity::Quiet:
            return [](const String&, int) { return false; };
        case Verbosity::Normal:
            return [](const String& tag, int level) {
                return tag == "XFER" || level <= ProvLog::LEVEL_FAILURE;
            };
        case Verbosity::Verbose:
            break;
    }
    const int most = options.level;
    return [most](const String&, int level) { return level <= most; };
}

// Writes the report to standard output; false when it could not be written whole.
bool writeReport(const Options& options, const JobOutcome& outcome, const String& name) {
    const String report =
        options.json ? DUMP_JSON(OUTCOME_TO_JSON(outcome)) + "\n"
                     : OUTCOME_TO_TEXT(name, outcome, options.verbosity == Verbosity::Quiet);
    // The progress line of a terminal goes first: nothing may be glued onto it.
    Stderr::CLEAR_STATUS();
    const std::size_t length = static_cast<std::size_t>(report.length());
    const bool written = std::fwrite(report.data(), 1, length, stdout) == length;
    return std::fflush(stdout) == 0 && written;
}

JobOutcome runOnLoop(const Options& options, const JobRequest& request) {
    // On a terminal the running download's progress is shown below the monitor lines.
    const bool showProgress = !FIND_JOB_KIND(request.kind)->upload && Stderr::IS_TERMINAL() &&
                              options.verbosity != Verbosity::Quiet;
    DownloadProgress progress(request.name, showProgress);
    AttemptLog attempts;
    StderrMonitors::Observer observer = [&](const String& tag, int, const String& text) {
        attempts.onLine(tag, text);
        if (showProgress) {
            progress.onMonitorLine(text);
        }
    };
    JobWatcher watcher;
    if (showProgress) {
        watcher = [&progress](const ProvisioningJob& job) {
            static_cast<void>(progress.poll(job.getOutFile()));
        };
    }
    StderrMonitors monitors(std::max(options.level, ProvLog::LEVEL_PROGRESS), writtenLines(options),
                            observer);
    DRIVER::INSTANCE().registerInterface(DID_SystemStatus(), "provctl",
                                         std::make_shared<SimulatedSystemStatus>());
    Kt::ShellControl::SET_TOOL("tftp", {"busybox", "tftp"});
    INSTALL_STOP_SIGNALS();
    JobOutcome outcome;
    {
        KtEventLoop loop;
        outcome = RUN_JOB(request, loop, watcher);
    }
    if (outcome.interrupted) {
        // The cancelled job has reaped its own child; nothing else of ours may outlive us.
        static_cast<void>(Kt::ShellControl::WAIT_FOR_RUNNING_COMMANDS(0, WAIT_FOR_CHILDREN));
    }
    if (FIND_JOB_KIND(request.kind)->upgrade && !outcome.interrupted) {
        XCode applied = APPLY_TO_SLOTS(outcome, request.reloadType);
        if (applied.isErr()) {
            printError("cannot update the slot state: " + applied.toString());
        }
    }
    DRIVER::INSTANCE().unregisterAll();
    outcome.kind = request.kind;
    outcome.name = request.name;
    outcome.attempts = attempts.attempts();
    outcome.toolLine = attempts.lastToolLine();
    return outcome;
}

int runJob(const Options& options) {
    const String directory = deviceDirectory(options);
    DeviceSettings settings;
    ExpressionResolver resolver;
    if (!loadSettings(options, directory, settings, resolver)) {
        return EXIT_USAGE;
    }
    JobRequest request = buildRequest(options, settings, resolver);
    XCode credentialsAdded = FILL_CREDENTIALS(settings, request.credentials);
    // Usage errors come first: a command line that is refused creates nothing.
    Device::SET_ROOT(directory);
    if (!checkSlotState()) {
        return EXIT_USAGE;
    }
    if (credentialsAdded.isSuccess()) {
        credentialsAdded = CHECK_HTTPS_FILES(settings);
    }
    if (credentialsAdded.isErr()) {
        printError(credentialsAdded);
        return EXIT_USAGE;
    }
    warnAboutUntriedLocations(options);
    CmdExec::SET_REJECTED_COMMANDS(settings.rejectedCommands);
    if (!prepareDevice(options, directory)) {
        return EXIT_FAILED;
    }
    const JobOutcome outcome = runOnLoop(options, request);
    // Still under the stop signals: a closed output pipe raises SIGPIPE, which is recorded.
    const bool written = writeReport(options, outcome, request.name);
    const int signal = outcome.interrupted ? outcome.stopSignal : STOP_SIGNAL();
    REMOVE_STOP_SIGNALS();
    if (signal != 0) {
        return EXIT_STATUS_FOR_SIGNAL(signal);
    }
    if (!written) {
        printError("cannot write the result to standard output");
        return EXIT_FAILED;
    }
    return outcome.result.isSuccess() ? EXIT_OK : EXIT_FAILED;
}

}  // namespace

int MAIN(int argc, char** argv) {
    Options options;
    switch (PARSE_COMMAND_LINE(argc, argv, options)) {
        case ParseOutcome::Done:
            return EXIT_OK;
        case ParseOutcome::UsageError:
            return EXIT_USAGE;
        case ParseOutcome::Run:
            break;
    }
    if (options.command == "resolve") {
        return runResolve(options);
    }
    if (options.command == "demo") {
        DemoOptions demo;
        demo.level = options.verbosity == Verbosity::Quiet ? -1 : options.level;
        return RUN_DEMO(demo);
    }
    return runJob(options);
}

}  // namespace Provctl
