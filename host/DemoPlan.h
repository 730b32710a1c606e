#pragma once

#include <algorithm>
#include <functional>
#include <memory>
#include <utility>
#include <vector>

#include "host/DemoServers.h"
#include "host/DeviceSnapshot.h"
#include "host/JobRunner.h"
#include "platform/String.h"
#include "platform/XCode.h"

// The demo's plan: the device it provisions, the files and settings of its servers, the sixteen
// jobs and what each must do to the device. Everything here runs on the demo's thread.
namespace Provctl {

// device.toml of the demo device: the values behind $(...) in the locations and the credentials
// of the HTTP server's realm, DEMO_REALM.
extern const char* const DEMO_DEVICE_TOML;
extern const char* const DEMO_REALM;

// The demo's directories and, once started, its servers.
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

// What a finished step did: the job's outcome, its changes to the device and the monitor lines it
// wrote.
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

// Copies the sample files to where the servers serve them and packs the firmware archive.
[[nodiscard]] XCode STAGE_DEMO_FILES(const Demo& demo);
// Starts both servers, the HTTP server with the protected zone and the redirect the jobs expect;
// a failure says which server failed and what it wrote before it gave up.
[[nodiscard]] XCode START_DEMO_SERVERS(Demo& demo);
// The sixteen jobs: every kind on a new device, then every kind again with --compare.
std::vector<DemoStep> MAKE_DEMO_STEPS(const Demo& demo);
// The problem of a finished step, empty when it did what it should.
String JUDGE_DEMO_STEP(const DemoStep& step, const StepResult& result, String& note);

}  // namespace Provctl
