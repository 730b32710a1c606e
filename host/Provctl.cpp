#include "host/Provctl.h"

#include <chrono>
#include <cstdio>
#include <memory>

#include "host/CommandLine.h"
#include "host/Demo.h"
#include "host/DeviceSettings.h"
#include "host/JobRunner.h"
#include "host/Progress.h"
#include "host/Report.h"
#include "host/StderrMonitors.h"
#include "host/StopSignals.h"
#include "jobs/upgrade/ScriptProvisioningJob.h"
#include "platform/Cli.h"
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
    std::fwrite(shown.data(), 1, static_cast<std::size_t>(shown.length()), stdout);
    return EXIT_OK;
}

bool isUpgradeJob(const String& kind) {
    return kind == "firmware" || kind == "script";
}

// A script's name names its fingerprint file in flash; false (message printed) when it would
// reach outside "/flash/provisioning/".
bool checkScriptName(const Options& options) {
    if (options.command != "script" || options.name.isEmpty() ||
        ScriptProvisioningJob::IS_VALID_NAME(options.name)) {
        return true;
    }
    printError(
        String::format("--name %s: a script's name is one file name in /flash/provisioning "
                       "(not \".\" or \"..\", no \"/\")",
                       options.name.c_str()));
    return false;
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

int runJob(const Options& options) {
    if (!checkScriptName(options)) {
        return EXIT_USAGE;
    }
    const String directory = deviceDirectory(options);
    DeviceSettings settings;
    JobRequest request;
    ExpressionResolver resolver;
    if (!loadSettings(options, directory, settings, resolver)) {
        return EXIT_USAGE;
    }
    XCode credentialsAdded = FILL_CREDENTIALS(settings, request.credentials);
    if (credentialsAdded.isErr()) {
        printError(credentialsAdded);
        return EXIT_USAGE;
    }
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

    // Usage errors come first: a command line that is refused creates nothing.
    Device::SET_ROOT(directory);
    if (!checkSlotState()) {
        return EXIT_USAGE;
    }
    CmdExec::SET_REJECTED_COMMANDS(settings.rejectedCommands);
    XCode prepared = Device::MAKE_DIRECTORIES(directory);
    if (prepared.isSuccess()) {
        prepared = Device::PREPARE();
    }
    if (prepared.isErr()) {
        printError(prepared);
        return EXIT_FAILED;
    }

    // On a terminal the running download's progress is shown below the monitor lines.
    const bool download = request.kind != "upload" && request.kind != "cdr-upload";
    const bool showProgress = download && Stderr::IS_TERMINAL();
    DownloadProgress progress(request.name, showProgress);
    StderrMonitors::Observer observer;
    JobWatcher watcher;
    if (showProgress) {
        observer = [&progress](const String&, int, const String& text) {
            progress.onMonitorLine(text);
        };
        watcher = [&progress](const ProvisioningJob& job) {
            static_cast<void>(progress.poll(job.getOutFile()));
        };
    }
    StderrMonitors monitors(options.level, observer);
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

    if (isUpgradeJob(request.kind) && !outcome.interrupted) {
        XCode applied = APPLY_TO_SLOTS(outcome, request.reloadType);
        if (applied.isErr()) {
            printError("cannot update the slot state: " + applied.toString());
        }
    }
    DRIVER::INSTANCE().unregisterAll();

    const String report = options.json ? DUMP_JSON(OUTCOME_TO_JSON(outcome)) + "\n"
                                       : OUTCOME_TO_TEXT(request.name, outcome);
    // Still under the stop signals: a closed output pipe raises SIGPIPE, which is recorded.
    std::fwrite(report.data(), 1, static_cast<std::size_t>(report.length()), stdout);
    std::fflush(stdout);
    const int signal = outcome.interrupted ? outcome.stopSignal : STOP_SIGNAL();
    REMOVE_STOP_SIGNALS();
    if (signal != 0) {
        return EXIT_STATUS_FOR_SIGNAL(signal);
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
        demo.level = options.level;
        return RUN_DEMO(demo);
    }
    return runJob(options);
}

}  // namespace Provctl
