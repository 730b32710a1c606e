#include "host/JobRunner.h"

#include <chrono>

#include "host/StopSignals.h"
#include "jobs/content/ConfigProvisioningJob.h"
#include "jobs/content/DialplanProvisioningJob.h"
#include "jobs/content/KeyProvisioningJob.h"
#include "jobs/content/UploadProvisioningJob.h"
#include "jobs/content/WizardProvisioningJob.h"
#include "jobs/upgrade/FirmwareProvisioningJob.h"
#include "jobs/upgrade/ScriptProvisioningJob.h"
#include "platform/StatusDb.h"
#include "platform/simulated/SimulatedStatusDb.h"
#include "platform/simulated/SlotState.h"

namespace Provctl {

namespace {

// The management process's side of one job. Called on the job's loop.
class Handler : public ProvisioningJob::CallbackHandler {
  public:
    void jobFinished(ProvisioningJob& job, XCode result) override {
        outcome.result = result;
        outcome.imageAction = job.getImageAction();
        outcome.activation = job.getActivationFlag();
        outcome.postUpgrade = job.getPostUpgradeFlag();
        outcome.followUpPending = job.isFollowUpPending();
        outcome.followUpMode = job.getFollowUpMode();
        outcome.followUpCommand = job.getFollowUpCommand();
        outcome.followUpArguments.assign(job.getFollowUpArguments().begin(),
                                         job.getFollowUpArguments().end());
        finished = true;
    }

    JobOutcome outcome;
    bool finished = false;
};

String statusLocation() {
    DB::Ptr<DB::SystemProvisioningStatusRecord> record =
        DB::Table::SimulatedProvisioningStatus::RECORD();
    return record ? record->location.get() : String();
}

}  // namespace

std::unique_ptr<ProvisioningJob> BUILD_JOB(const JobRequest& request, KtEventLoop& loop,
                                           ProvisioningJob::CallbackHandler& handler,
                                           XCode& error) {
    ExpressionResolver& resolver = *request.resolver;
    const String& kind = request.kind;
    std::unique_ptr<ProvisioningJob> job;
    if (kind == "config") {
        job = std::make_unique<ConfigProvisioningJob>(loop, request.name, request.reloadType,
                                                      request.compare, request.locations,
                                                      request.credentials, resolver, handler);
    } else if (kind == "upload") {
        job = std::make_unique<UploadProvisioningJob>(loop, request.name, request.reloadType,
                                                      request.compare, request.locations,
                                                      request.credentials, resolver, handler);
    } else if (kind == "cdr-upload") {
        job = std::make_unique<CdrUploadJob>(loop, request.name, request.sourceName,
                                             request.reloadType, request.compare, request.locations,
                                             request.credentials, resolver, handler);
    } else if (kind == "dialplan") {
        job = std::make_unique<DialplanProvisioningJob>(
            loop, request.name, request.dialplanName, request.reloadType, request.compare,
            request.locations, request.credentials, resolver, handler);
    } else if (kind == "key") {
        job = std::make_unique<KeyProvisioningJob>(loop, request.name, request.reloadType,
                                                   request.compare, request.locations,
                                                   request.credentials, resolver, handler);
    } else if (kind == "wizard") {
        job = std::make_unique<WizardProvisioningJob>(loop, request.name, request.reloadType,
                                                      request.compare, request.locations,
                                                      request.credentials, resolver, handler);
    } else if (kind == "firmware") {
        SlotState slots;
        error = SlotState::LOAD(slots);
        if (error.isErr()) {
            return nullptr;
        }
        job = std::make_unique<FirmwareProvisioningJob>(
            loop, request.name, request.reloadType, request.compare, request.locations,
            request.credentials, resolver, handler, slots.version1, slots.version2,
            slots.version(slots.active), slots.next, slots.active);
    } else if (kind == "script") {
        job = std::make_unique<ScriptProvisioningJob>(loop, request.name, request.reloadType,
                                                      request.compare, request.locations,
                                                      request.credentials, resolver, handler);
    } else {
        error = XCode::FAILURE();
        error.setStringF("UNKNOWN JOB KIND %s", kind.c_str());
        return nullptr;
    }
    if (request.httpsGiven) {
        job->setAuthentication(request.auth1, request.auth2, request.auth3);
    }
    return job;
}

JobOutcome RUN_JOB(const JobRequest& request, KtEventLoop& loop, const JobWatcher& watcher) {
    Handler handler;
    XCode buildError;
    std::unique_ptr<ProvisioningJob> job = BUILD_JOB(request, loop, handler, buildError);
    if (!job) {
        handler.outcome.result = buildError;
        handler.outcome.statusLocation = statusLocation();
        return handler.outcome;
    }
    // execute() runs on the loop, like every later callback of the job: the update controller
    // reports to the loop that is current when the upgrade starts.
    loop.post([&job] {
        if (job) {
            // A failure here has already reached the handler.
            static_cast<void>(job->execute());
        }
    });
    // The loop runs in slices: between them a stop signal is noticed and the watcher looks.
    while (!handler.finished && STOP_SIGNAL() == 0) {
        static_cast<void>(loop.runUntil(
            [&handler] { return handler.finished || STOP_SIGNAL() != 0; }, WATCH_INTERVAL));
        if (watcher && job && !handler.finished) {
            watcher(*job);
        }
    }
    if (!handler.finished) {
        // Cancels the job: its child is ended and reaped, its work file removed, the subsystem
        // shown idle; nothing is reported.
        job.reset();
        handler.outcome.interrupted = true;
        handler.outcome.stopSignal = STOP_SIGNAL();
        handler.outcome.result = XCode::FAILURE();
        handler.outcome.result.setStringF("INTERRUPTED BY SIGNAL %d", STOP_SIGNAL());
    }
    job.reset();
    handler.outcome.statusLocation = statusLocation();
    return handler.outcome;
}

XCode APPLY_TO_SLOTS(const JobOutcome& outcome, ProvisioningJob::ReloadType reloadType) {
    return SlotState::MODIFY([&](SlotState& slots) {
        switch (outcome.imageAction) {
            case ProvisioningJob::SwapNextImage:
                slots.next = SlotState::OTHER(slots.next);
                break;
            case ProvisioningJob::SetNextToInactive:
                slots.next = SlotState::OTHER(slots.active);
                break;
            case ProvisioningJob::NoAction:
            case ProvisioningJob::UpdateImageInfo:
                break;  // the controller has recorded the version; "next" stays
        }
        if (outcome.result.isSuccess() && reloadType != ProvisioningJob::None &&
            outcome.activation) {
            slots.active = slots.next;
        }
    });
}

}  // namespace Provctl
