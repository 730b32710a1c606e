#include "host/JobRunner.h"

#include <chrono>

#include "host/JobKinds.h"
#include "host/StopSignals.h"
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
    const JobKind* kind = FIND_JOB_KIND(request.kind);
    if (kind == nullptr) {
        error = XCode::FAILURE_F("UNKNOWN JOB KIND %s", request.kind.c_str());
        return nullptr;
    }
    std::unique_ptr<ProvisioningJob> job = kind->build(request, loop, handler, error);
    if (!job) {
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
