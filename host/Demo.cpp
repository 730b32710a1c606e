#include "host/Demo.h"

#include <fcntl.h>
#include <stdlib.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <system_error>

#include "host/DemoServers.h"
#include "host/DeviceSettings.h"
#include "host/JobRunner.h"
#include "host/Progress.h"
#include "host/StderrMonitors.h"
#include "host/StopSignals.h"
#include "platform/Device.h"
#include "platform/KtFile.h"
#include "platform/PrivateFile.h"
#include "platform/Shell.h"
#include "platform/SimulatedSystemStatus.h"
#include "platform/SlotState.h"
#include "platform/SystemStatus.h"

namespace Provctl {

namespace {

// The device values and credentials of the demo device; device.toml below says the same.
const char* const MAC = "00a0ba0c0ffe";
const char* const REALM = "provisioning";
const char* const USER = "admin";
const char* const PASSWORD = "secret";
// "sw_type sw_version sw_build_num" of demo-files/firmware/manifest.
const char* const FIRMWARE_VERSION = "DEMO 1.0 1";

const char* const DEVICE_TOML =
    R"TOML(# Written by provctl demo: the values behind $(...) in the locations, and the credentials of
# the HTTP server's realm.
[values]
"system.mac" = "00a0ba0c0ffe"
"system.serial" = "DEMO-0001"
"system.hw.major" = "2"
model = "GW-DEMO"

[credentials]
"provisioning" = { user = "admin", password = "secret" }
)TOML";

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

XCode readFile(const String& path, String& content) {
    return KtFile::READ_TEXT_FILE<String>(path, content, O_RDONLY, false, true);
}

XCode writeFile(const String& path, const String& content) {
    const std::string parent = std::filesystem::path(path.str()).parent_path().string();
    XCode result = Device::MAKE_DIRECTORIES(parent);
    return result.isErr() ? result : KtFile::WRITE_TEXT_FILE(path, content, false);
}

XCode copyFile(const String& from, const String& to) {
    String content;
    XCode result = readFile(from, content);
    if (result.isErr()) {
        return result.extendString(String::format("CANNOT READ SAMPLE FILE %s", from.c_str()),
                                   ": ");
    }
    return writeFile(to, content);
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

struct StepResult {
    JobOutcome outcome;
    std::vector<DeviceChange> changes;
    std::vector<String> lines;

    bool saw(const String& text) const {
        return std::any_of(lines.begin(), lines.end(),
                           [&text](const String& line) { return line.indexOf(text) >= 0; });
    }
};

// One job of the demo and what it must do.
struct DemoStep {
    int round = 1;
    JobRequest request;         // without resolver and credentials: added at run time
    String expectedError;       // empty: the job must succeed; else its message
    std::vector<String> paths;  // the device paths it must change, no more
    // Further checks: the problem, or empty; `note` gets what the summary says about the job.
    std::function<String(const StepResult&, String& note)> check;
};

struct Demo {
    String files;
    String device;
    String servers;
    String tftpRoot;
    String httpDirectory;
    String docroot;
    std::unique_ptr<DemoTftpServer> tftp;
    std::unique_ptr<DemoHttpServer> http;

    // A location as the table shows it: the server named by its protocol, the path as given.
    String shortLocation(const String& location) const {
        for (const auto& [prefix, word] :
             {std::pair<String, String>{tftpUrl(""), "TFTP "}, {httpUrl(""), "HTTP "}}) {
            if (location.startsWith(prefix)) {
                return word + location.substring(prefix.length());
            }
        }
        return location;
    }
    String tftpUrl(const String& path) const {
        return String::format("tftp://127.0.0.1:%u%s", tftp->port(), path.c_str());
    }
    String httpUrl(const String& path) const { return http->url(path); }
};

// The files the servers serve, from the sample files.
XCode stageFiles(const Demo& demo) {
    const String& files = demo.files;
    const String staging = demo.servers + "/firmware";
    struct Copy {
        String from;
        String to;
    };
    const std::vector<Copy> copies = {
        {files + "/unit.cfg", demo.tftpRoot + "/" + MAC + ".cfg"},
        {files + "/intro.wiz", demo.tftpRoot + "/wizards/intro.wiz"},
        {files + "/boot.manifest", demo.tftpRoot + "/scripts/boot.manifest"},
        {files + "/office.txt", demo.docroot + "/dialplans/office.txt"},
        {files + "/unit.key", demo.docroot + "/secure/unit.key"},
        {files + "/firmware/manifest", staging + "/manifest"},
        {files + "/firmware/image", staging + "/image"},
    };
    for (const Copy& copy : copies) {
        XCode copied = copyFile(copy.from, copy.to);
        if (copied.isErr()) {
            return copied;
        }
    }
    // Upload targets: tftpd creates files, not directories.
    for (const char* directory : {"/backup", "/cdr"}) {
        XCode made = Device::MAKE_DIRECTORIES(demo.tftpRoot + directory);
        if (made.isErr()) {
            return made;
        }
    }
    XCode made = Device::MAKE_DIRECTORIES(demo.docroot + "/firmware");
    if (made.isErr()) {
        return made;
    }
    // The paths are mkdtemp's: no blank and no quote in them.
    String output;
    XCode packed =
        Kt::Shell::execute(String::format("tar cf %s/firmware/demo-fw.tar -C %s manifest image",
                                          demo.docroot.c_str(), staging.c_str()),
                           &output);
    if (packed.isErr()) {
        output.trim();
        packed.setString(String::format("CANNOT MAKE THE FIRMWARE ARCHIVE: %s%s%s",
                                        packed.toString().c_str(), output.isEmpty() ? "" : ": ",
                                        output.c_str()));
    }
    return packed;
}

// A server's failure to start, with what the server wrote before it gave up.
XCode serverFailure(const char* server, XCode result, const String& logPath) {
    String log;
    const bool logged = readFile(logPath, log).isSuccess() && !log.isEmpty();
    return result.setString(String::format("%s: %s%s%s", server, result.getString().c_str(),
                                           logged ? "\n" : "", logged ? log.c_str() : ""));
}

XCode startServers(Demo& demo) {
    demo.tftp = std::make_unique<DemoTftpServer>(demo.tftpRoot);
    demo.http = std::make_unique<DemoHttpServer>(demo.httpDirectory, demo.docroot);
    const String tftpLog = demo.servers + "/in.tftpd.log";
    XCode result = demo.tftp->start(tftpLog);
    if (result.isErr()) {
        return serverFailure("TFTP SERVER", result, tftpLog);
    }
    result = demo.http->bind();
    if (result.isSuccess()) {
        result = demo.http->start({"/secure/", REALM, USER, PASSWORD},
                                  {"/old/office.txt", demo.httpUrl("/dialplans/office.txt"), 302});
    }
    if (result.isErr()) {
        return serverFailure("HTTP SERVER", result, demo.httpDirectory + "/lighttpd.log");
    }
    return result;
}

JobRequest request(const String& kind, const String& location, bool compare) {
    JobRequest made;
    made.kind = kind;
    made.name = kind;
    made.compare = compare;
    made.locations.pushBack(location);
    return made;
}

DemoStep makeStep(int round, JobRequest jobRequest) {
    DemoStep step;
    step.round = round;
    step.request = std::move(jobRequest);
    return step;
}

String contentOf(const String& path) {
    String content;
    return readFile(path, content).isSuccess() ? content : String("(unreadable)");
}

// The sixteen jobs: every kind on a new device, then every kind again with --compare.
std::vector<DemoStep> makeSteps(const Demo& demo) {
    std::vector<DemoStep> steps;
    const String served = contentOf(demo.files + "/unit.cfg");
    const String device = demo.device;
    const String backup = demo.tftpRoot + "/backup/" + MAC + ".cfg";

    for (int round = 1; round <= 2; ++round) {
        const bool compare = round == 2;
        const bool fresh = round == 1;

        DemoStep config =
            makeStep(round, request("config", demo.tftpUrl("/$(system.mac).cfg"), compare));
        config.paths = fresh ? std::vector<String>{"config/startup-config"} : std::vector<String>{};
        config.check = [fresh, served, device](const StepResult& result, String& note) -> String {
            if (contentOf(device + "/config/startup-config") != served) {
                return "config/startup-config differs from the served file";
            }
            if (!fresh && !result.saw("[config] Downloaded and stored configurations are equal")) {
                return "no comparison with the stored configuration";
            }
            note = fresh ? "stored" : "equal; not stored";
            return String();
        };
        steps.push_back(config);

        DemoStep dialplan =
            makeStep(round, request("dialplan", demo.httpUrl("/old/office.txt"), compare));
        dialplan.request.dialplanName = "flash:office";
        dialplan.paths =
            fresh ? std::vector<String>{"flash/dialplan/office"} : std::vector<String>{};
        dialplan.check = [fresh](const StepResult& result, String& note) -> String {
            if (!result.saw("[dialplan] Redirected: ")) {
                return "the 302 redirect was not followed";
            }
            if (!fresh && !result.saw("[dialplan] Downloaded and stored dialplans are equal")) {
                return "no comparison with the stored dial plan";
            }
            note = fresh ? "302 followed" : "302 followed; equal";
            return String();
        };
        steps.push_back(dialplan);

        DemoStep key = makeStep(round, request("key", demo.httpUrl("/secure/unit.key"), compare));
        key.paths = fresh ? std::vector<String>{"flash/preferences/key"} : std::vector<String>{};
        key.check = [fresh](const StepResult& result, String& note) -> String {
            if (!result.saw("[key/HTTP]   HTTP/1.1 401")) {
                return "the server did not challenge";
            }
            if (!fresh && !result.saw("[key] Downloaded and stored key are equal")) {
                return "no comparison with the stored key";
            }
            note = String::format("401, then %s's credentials", USER);
            return String();
        };
        steps.push_back(key);

        DemoStep wizard =
            makeStep(round, request("wizard", demo.tftpUrl("/wizards/intro.wiz"), compare));
        wizard.paths =
            fresh ? std::vector<String>{"flash/wizard/intro.wiz"} : std::vector<String>{};
        wizard.check = [fresh](const StepResult& result, String& note) -> String {
            const JobOutcome& outcome = result.outcome;
            if (fresh) {
                if (!outcome.followUpPending || outcome.followUpCommand != "add wizard" ||
                    outcome.followUpArguments != std::vector<String>{"intro.wiz"}) {
                    return "no follow-up request \"add wizard intro.wiz\"";
                }
                note = "asks for \"add wizard intro.wiz\"";
            } else {
                if (outcome.followUpPending) {
                    return "an unchanged wizard asked for a follow-up";
                }
                note = "equal; no follow-up";
            }
            return String();
        };
        steps.push_back(wizard);

        DemoStep firmware =
            makeStep(round, request("firmware", demo.httpUrl("/firmware/demo-fw.tar"), compare));
        firmware.request.reloadType = ProvisioningJob::Immediate;
        firmware.paths =
            fresh ? std::vector<String>{"slots/2", "slots/state"} : std::vector<String>{};
        firmware.check = [fresh](const StepResult& result, String& note) -> String {
            SlotState slots;
            if (SlotState::LOAD(slots).isErr() || slots.active != 2 ||
                slots.version(2) != FIRMWARE_VERSION) {
                return String::format("slot 2 does not run %s", FIRMWARE_VERSION);
            }
            if (!fresh && (result.outcome.activation ||
                           result.outcome.imageAction != ProvisioningJob::UpdateImageInfo)) {
                return "the running version was upgraded again";
            }
            note = fresh ? String::format("slot 2 runs %s", FIRMWARE_VERSION)
                         : String::format("%s runs; no upgrade", FIRMWARE_VERSION);
            return String();
        };
        steps.push_back(firmware);

        DemoStep boot =
            makeStep(round, request("script", demo.tftpUrl("/scripts/boot.manifest"), compare));
        boot.request.name = "boot";
        boot.paths =
            fresh ? std::vector<String>{"flash/provisioning/boot", "running-config", "slots/state"}
                  : std::vector<String>{};
        boot.check = [fresh, device](const StepResult& result, String& note) -> String {
            if (contentOf(device + "/running-config").indexOf("hostname demo-gateway-provisioned") <
                0) {
                return "the script's commands are not in running-config";
            }
            if (!fresh && !result.saw("[boot] Downloaded and stored scripts are equal")) {
                return "no comparison with the last run";
            }
            note = fresh ? "ran" : "ran before; not again";
            return String();
        };
        steps.push_back(boot);

        DemoStep upload =
            makeStep(round, request("upload", demo.tftpUrl("/backup/$(system.mac).cfg"), compare));
        upload.check = [backup, device](const StepResult&, String& note) -> String {
            const String stored = contentOf(device + "/config/startup-config");
            if (contentOf(backup) != stored) {
                return "the server's copy differs from config/startup-config";
            }
            note = "server copy is startup-config";
            return String();
        };
        steps.push_back(upload);

        DemoStep cdr =
            makeStep(round, request("cdr-upload", demo.tftpUrl("/cdr/calls.txt"), compare));
        cdr.request.sourceName = "cdr";
        cdr.expectedError = "NOT IMPLEMENTED";
        cdr.check = [](const StepResult&, String& note) -> String {
            note = "fails, as it must";
            return String();
        };
        steps.push_back(cdr);
    }
    return steps;
}

String joinPaths(const std::vector<String>& paths) {
    if (paths.empty()) {
        return "nothing";
    }
    String text;
    for (const String& path : paths) {
        text += (text.isEmpty() ? "" : ", ") + path;
    }
    return text;
}

// The problem of a finished step, empty when it did what it should.
String judge(const DemoStep& step, const StepResult& result, String& note) {
    const XCode& code = result.outcome.result;
    if (result.outcome.interrupted) {
        return "interrupted";
    }
    if (step.expectedError.isEmpty() && code.isErr()) {
        return "failed, must succeed";
    }
    if (!step.expectedError.isEmpty() && code.isSuccess()) {
        return "succeeded, but must fail with " + step.expectedError;
    }
    if (!step.expectedError.isEmpty() && code.getString() != step.expectedError) {
        return "must fail with " + step.expectedError;
    }
    std::vector<String> changed;
    for (const DeviceChange& change : result.changes) {
        changed.push_back(change.path);
    }
    std::vector<String> expected = step.paths;
    std::sort(expected.begin(), expected.end());
    if (changed != expected) {
        return "must change " + joinPaths(expected);
    }
    return step.check ? step.check(result, note) : String();
}

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

XCode SNAPSHOT_DEVICE(const String& directory, DeviceSnapshot& snapshot) {
    snapshot.clear();
    namespace fs = std::filesystem;
    std::error_code error;
    const fs::path root(directory.str());
    fs::recursive_directory_iterator walk(root, error);
    for (; !error && walk != fs::recursive_directory_iterator(); walk.increment(error)) {
        const fs::path relative = walk->path().lexically_relative(root);
        // The status and the work directory change with every job; neither is what a job stores.
        if (*relative.begin() == "status" || *relative.begin() == "tmp") {
            walk.disable_recursion_pending();
            continue;
        }
        if (!walk->is_regular_file(error)) {
            continue;
        }
        String content;
        XCode read = readFile(walk->path().string(), content);
        if (read.isErr()) {
            return read;
        }
        snapshot[relative.string()] = content;
    }
    if (error) {
        return XCode::fromErrno(error.value())
            .setStringF("CANNOT READ DIRECTORY %s: %s", directory.c_str(), error.message().c_str());
    }
    return XCode(XCode::SUCCESS);
}

std::vector<DeviceChange> DIFF_SNAPSHOTS(const DeviceSnapshot& before,
                                         const DeviceSnapshot& after) {
    std::vector<DeviceChange> changes;
    for (const auto& [path, content] : after) {
        auto found = before.find(path);
        if (found == before.end()) {
            changes.push_back({path, DeviceChange::Kind::Added});
        } else if (found->second != content) {
            changes.push_back({path, DeviceChange::Kind::Modified});
        }
    }
    for (const auto& entry : before) {
        if (after.count(entry.first) == 0) {
            changes.push_back({entry.first, DeviceChange::Kind::Removed});
        }
    }
    std::sort(changes.begin(), changes.end(),
              [](const DeviceChange& a, const DeviceChange& b) { return a.path < b.path; });
    return changes;
}

String DESCRIBE_CHANGES(const std::vector<DeviceChange>& changes) {
    if (changes.empty()) {
        return "nothing";
    }
    String text;
    for (const DeviceChange& change : changes) {
        const char mark = change.kind == DeviceChange::Kind::Added      ? '+'
                          : change.kind == DeviceChange::Kind::Modified ? '~'
                                                                        : '-';
        text.concatf("%s%c%s", text.isEmpty() ? "" : " ", mark, change.path.c_str());
    }
    return text;
}

String FORMAT_TABLE(const std::vector<std::vector<String>>& rows) {
    std::vector<int> widths;
    for (const auto& row : rows) {
        for (std::size_t column = 0; column < row.size(); ++column) {
            if (widths.size() <= column) {
                widths.push_back(0);
            }
            widths[column] = std::max(widths[column], row[column].length());
        }
    }
    auto formatRow = [&widths](const std::vector<String>& row) {
        String line;
        for (std::size_t column = 0; column < row.size(); ++column) {
            line += row[column];
            if (column + 1 < row.size()) {
                line += String(std::string(
                    static_cast<std::size_t>(widths[column] - row[column].length() + 2), ' '));
            }
        }
        while (line.endsWith(" ")) {
            line.deleteRegion(line.length() - 1, 1);
        }
        return line + "\n";
    };
    String table;
    for (std::size_t index = 0; index < rows.size(); ++index) {
        table += formatRow(rows[index]);
        if (index == 0) {
            std::vector<String> rule;
            for (int width : widths) {
                rule.push_back(String(std::string(static_cast<std::size_t>(width), '-')));
            }
            table += formatRow(rule);
        }
    }
    return table;
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
        result = stageFiles(demo);
    }
    if (result.isSuccess()) {
        result = startServers(demo);
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
    result = PrivateFile::WRITE(demo.device + "/device.toml", DEVICE_TOML);
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
                       REALM, demo.device.c_str()));

    Recorder recorder;
    StderrMonitors monitors(options.level, [&recorder](const String&, int, const String& text) {
        recorder.onLine(text);
    });
    DRIVER::INSTANCE().registerInterface(DID_SystemStatus(), "provctl",
                                         std::make_shared<SimulatedSystemStatus>());
    Kt::Shell::SET_TOOL("tftp", {"busybox", "tftp"});
    struct DriverBack {
        ~DriverBack() { DRIVER::INSTANCE().unregisterAll(); }
    } driverBack;

    const std::vector<DemoStep> steps = makeSteps(demo);
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
        const String problem = judge(step, outcome, note);
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
