#include "host/JobKinds.h"

#include "host/JobRunner.h"
#include "jobs/content/ConfigProvisioningJob.h"
#include "jobs/content/DialplanProvisioningJob.h"
#include "jobs/content/KeyProvisioningJob.h"
#include "jobs/content/UploadProvisioningJob.h"
#include "jobs/content/WizardProvisioningJob.h"
#include "jobs/upgrade/FirmwareProvisioningJob.h"
#include "jobs/upgrade/ScriptProvisioningJob.h"
#include "platform/simulated/SlotState.h"

namespace Provctl {

namespace {

// The kinds whose constructor takes the common arguments only.
template <typename Job>
std::unique_ptr<ProvisioningJob> buildPlain(const JobRequest& request, KtEventLoop& loop,
                                            ProvisioningJob::CallbackHandler& handler, XCode&) {
    return std::make_unique<Job>(loop, request.name, request.reloadType, request.compare,
                                 request.locations, request.credentials, *request.resolver,
                                 handler);
}

std::unique_ptr<ProvisioningJob> buildCdrUpload(const JobRequest& request, KtEventLoop& loop,
                                                ProvisioningJob::CallbackHandler& handler, XCode&) {
    return std::make_unique<CdrUploadJob>(loop, request.name, request.sourceName,
                                          request.reloadType, request.compare, request.locations,
                                          request.credentials, *request.resolver, handler);
}

std::unique_ptr<ProvisioningJob> buildDialplan(const JobRequest& request, KtEventLoop& loop,
                                               ProvisioningJob::CallbackHandler& handler, XCode&) {
    return std::make_unique<DialplanProvisioningJob>(
        loop, request.name, request.dialplanName, request.reloadType, request.compare,
        request.locations, request.credentials, *request.resolver, handler);
}

// The image slots' facts come from the slot state.
std::unique_ptr<ProvisioningJob> buildFirmware(const JobRequest& request, KtEventLoop& loop,
                                               ProvisioningJob::CallbackHandler& handler,
                                               XCode& error) {
    SlotState slots;
    error = SlotState::LOAD(slots);
    if (error.isErr()) {
        return nullptr;
    }
    return std::make_unique<FirmwareProvisioningJob>(
        loop, request.name, request.reloadType, request.compare, request.locations,
        request.credentials, *request.resolver, handler, slots.version1, slots.version2,
        slots.version(slots.active), slots.next, slots.active);
}

}  // namespace

const std::vector<JobKind>& JOB_KIND_TABLE() {
    // name, summary, upload, upgrade, usesReload, usesCompare, factory
    static const std::vector<JobKind> kinds = {
        {"config", "download a configuration; store it as startup-config", false, false, false,
         true, buildPlain<ConfigProvisioningJob>},
        {"upload", "upload the stored startup configuration", true, false, false, false,
         buildPlain<UploadProvisioningJob>},
        {"cdr-upload", "upload call detail records", true, false, false, false, buildCdrUpload},
        {"dialplan", "download a dial plan into flash/dialplan/", false, false, false, true,
         buildDialplan},
        {"key", "download the key file into flash/preferences/key", false, false, false, true,
         buildPlain<KeyProvisioningJob>},
        {"wizard", "download a wizard into flash/wizard/", false, false, false, true,
         buildPlain<WizardProvisioningJob>},
        {"firmware", "download a firmware archive or manifest and upgrade an image slot", false,
         true, true, true, buildFirmware},
        {"script", "download a script and have the update controller run it", false, true, true,
         true, buildPlain<ScriptProvisioningJob>},
    };
    return kinds;
}

const JobKind* FIND_JOB_KIND(const String& name) {
    for (const JobKind& kind : JOB_KIND_TABLE()) {
        if (name == kind.name) {
            return &kind;
        }
    }
    return nullptr;
}

const std::vector<String>& RELOAD_WORDS() {
    static const std::vector<String> words = {"none", "immediate", "graceful", "deferred"};
    return words;
}

}  // namespace Provctl
