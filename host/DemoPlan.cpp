#include "host/DemoPlan.h"

#include <algorithm>
#include <filesystem>
#include <string>

#include "host/Files.h"
#include "platform/KtFile.h"
#include "platform/Shell.h"
#include "platform/simulated/DeviceDirectory.h"
#include "platform/simulated/SlotState.h"

namespace Provctl {

const char* const DEMO_DEVICE_TOML =
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
const char* const DEMO_REALM = "provisioning";

namespace {

// The device values and credentials of the demo device; DEMO_DEVICE_TOML says the same.
const char* const MAC = "00a0ba0c0ffe";
const char* const USER = "admin";
const char* const PASSWORD = "secret";
// "sw_type sw_version sw_build_num" of demo-files/firmware/manifest.
const char* const FIRMWARE_VERSION = "DEMO 1.0 1";

XCode writeFile(const String& path, const String& content) {
    const std::string parent = std::filesystem::path(path.str()).parent_path().string();
    XCode result = Device::MAKE_DIRECTORIES(parent);
    return result.isErr() ? result : KtFile::WRITE_TEXT_FILE(path, content, false);
}

XCode copyFile(const String& from, const String& to) {
    String content;
    XCode result = READ_FILE(from, content);
    if (result.isErr()) {
        return result.extendString(String::format("CANNOT READ SAMPLE FILE %s", from.c_str()),
                                   ": ");
    }
    return writeFile(to, content);
}

// A server's failure to start, with what the server wrote before it gave up.
XCode serverFailure(const char* server, XCode result, const String& logPath) {
    String log;
    const bool logged = READ_FILE(logPath, log).isSuccess() && !log.isEmpty();
    return result.setString(String::format("%s: %s%s%s", server, result.getString().c_str(),
                                           logged ? "\n" : "", logged ? log.c_str() : ""));
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
    return READ_FILE(path, content).isSuccess() ? content : String("(unreadable)");
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

}  // namespace

XCode STAGE_DEMO_FILES(const Demo& demo) {
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

XCode START_DEMO_SERVERS(Demo& demo) {
    demo.tftp = std::make_unique<DemoTftpServer>(demo.tftpRoot);
    demo.http = std::make_unique<DemoHttpServer>(demo.httpDirectory, demo.docroot);
    const String tftpLog = demo.servers + "/in.tftpd.log";
    XCode result = demo.tftp->start(tftpLog);
    if (result.isErr()) {
        return serverFailure("TFTP SERVER", result, tftpLog);
    }
    result = demo.http->bind();
    if (result.isSuccess()) {
        result = demo.http->start({"/secure/", DEMO_REALM, USER, PASSWORD},
                                  {"/old/office.txt", demo.httpUrl("/dialplans/office.txt"), 302});
    }
    if (result.isErr()) {
        return serverFailure("HTTP SERVER", result, demo.httpDirectory + "/lighttpd.log");
    }
    return result;
}

std::vector<DemoStep> MAKE_DEMO_STEPS(const Demo& demo) {
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

String JUDGE_DEMO_STEP(const DemoStep& step, const StepResult& result, String& note) {
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

}  // namespace Provctl
