#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <vector>

#include "engine/ProvisioningJob.h"
#include "host/Attempts.h"
#include "platform/KtEventLoop.h"

namespace Provctl {

// Everything a job constructor needs besides the loop and the handler.
struct JobRequest {
    String kind;  // one of JOB_KINDS()
    String name;
    ProvisioningJob::ReloadType reloadType = ProvisioningJob::None;
    bool compare = false;
    KtList<String> locations;
    ProvisioningCredentials credentials;
    ExpressionResolver* resolver = nullptr;
    bool httpsGiven = false;
    String auth1;
    String auth2;
    String auth3;
    String sourceName;    // cdr-upload
    String dialplanName;  // dialplan
};

// What the management process reads of a finished job.
struct JobOutcome {
    String kind;  // the job kind and name it ran as
    String name;
    XCode result;
    bool interrupted = false;
    int stopSignal = 0;  // the signal that interrupted the job
    ProvisioningJob::ImageAction imageAction = ProvisioningJob::NoAction;
    bool activation = false;
    bool postUpgrade = false;
    bool followUpPending = false;
    String followUpMode;
    String followUpCommand;
    std::vector<String> followUpArguments;
    String statusLocation;
    // What the job tried, from its monitor lines (filled by the host that watched them).
    std::vector<Attempt> attempts;
    String toolLine;  // the tool's last error line of the last failed location
};

// Builds the job of `request.kind` with its own constructor; null for an unknown kind. The
// firmware job's image facts come from the slot state (SlotState::LOAD); a state that cannot be
// read is reported in `error`.
std::unique_ptr<ProvisioningJob> BUILD_JOB(const JobRequest& request, KtEventLoop& loop,
                                           ProvisioningJob::CallbackHandler& handler, XCode& error);

// Looks at the running job between events of its loop, on the loop's thread, at least every
// WATCH_INTERVAL while the job runs (the progress display polls its work file this way).
using JobWatcher = std::function<void(const ProvisioningJob& job)>;
constexpr std::chrono::milliseconds WATCH_INTERVAL{100};

// Builds and runs one job on `loop`, on the calling thread, until the job reported its result or
// a stop signal arrived (then the job is destroyed, which cancels it, and the outcome says
// interrupted). The caller has set up the device directory and the monitors.
JobOutcome RUN_JOB(const JobRequest& request, KtEventLoop& loop,
                   const JobWatcher& watcher = nullptr);

// What the management process does with the slots after a firmware or script job: applies the
// image action to "next" and, when the job succeeded, the reload type is not None and the job
// asks for activation, restarts the simulated device into the next slot (active = next).
[[nodiscard]] XCode APPLY_TO_SLOTS(const JobOutcome& outcome,
                                   ProvisioningJob::ReloadType reloadType);

}  // namespace Provctl
