#include "jobs/upgrade/FirmwareProvisioningJob.h"

#include "engine/ProvLog.h"
#include "platform/KtManifestParser.h"

namespace {

const char* yesNo(bool value) {
    return value ? "yes" : "no";
}

// The monitor for "if MON_PROV is enabled" lines, or null.
RTD::Monitor* enabledProvisioningMonitor() {
    return RTD::REPOSITORY::GET_MONITOR_IF_ENABLED_FOR_LOGGING(MON_PROV, ProvLog::LEVEL_PROGRESS);
}

}  // namespace

FirmwareProvisioningJob::FirmwareProvisioningJob(
    KtEventLoop& loop, const String& jobName, ProvisioningJob::ReloadType reload, bool compare,
    const KtList<String>& jobLocations, const ProvisioningCredentials& jobCredentials,
    ExpressionResolver& resolver, ProvisioningJob::CallbackHandler& handler,
    const String& slot1Version, const String& slot2Version, const String& runningVersion,
    unsigned int nextSlot, unsigned int activeSlot)
    : UpgradeProvisioningJob(loop, jobName, reload, compare, jobLocations, jobCredentials, resolver,
                             handler),
      storedVersion1(slot1Version),
      storedVersion2(slot2Version),
      activeVersion(runningVersion),
      nextImage(nextSlot),
      activeImage(activeSlot) {}

XCode FirmwareProvisioningJob::onFailedFileDownload() {
    ProvLog::progress("[%s] FAILED TO DOWNLOAD FIRMWARE", name.c_str());
    return testExpression(true);
}

XCode FirmwareProvisioningJob::onSuccessfulFileDownload() {
    Flow flow = Flow::Tar;
    XCode result = chooseFlow(flow);
    if (result.isErr()) {
        return result;
    }
    return flow == Flow::Tar ? onSuccessfulFileDownloadTar() : onSuccessfulFileDownloadManifest();
}

XCode FirmwareProvisioningJob::onSuccessfulFileDownloadTar() {
    ProvLog::progress("[%s] Successfully downloaded firmware", name.c_str());
    String manifest;
    bool upgrade = true;
    XCode result = readArchiveManifest(manifest);
    if (result.isSuccess()) {
        result = judgeManifest("[%s] Extracted manifest file content", manifest, upgrade);
    }
    if (result.isSuccess() && upgrade) {
        ProvLog::progress("[%s] Upgrading firmware", name.c_str());
        result = startUpgradeFromArchive();
    }
    return result.isErr() ? failUpgrade(result) : result;
}

XCode FirmwareProvisioningJob::onSuccessfulFileDownloadManifest() {
    ProvLog::progress("[%s] Successfully downloaded manifest", name.c_str());
    String manifest;
    bool upgrade = true;
    XCode result = readDownloadedManifest(manifest);
    if (result.isSuccess()) {
        result = judgeManifest("[%s] Downloaded manifest file content", manifest, upgrade);
    }
    if (result.isSuccess() && upgrade) {
        // The script wording in the firmware job is intended.
        ProvLog::progress("[%s] Executing script", name.c_str());
        result = startUpgradeFromLocation();
    }
    return result.isErr() ? failUpgrade(result) : result;
}

XCode FirmwareProvisioningJob::judgeManifest(const char* heading, const String& manifest,
                                             bool& upgrade) {
    if (enabledProvisioningMonitor() != nullptr) {
        ProvLog::progress(heading, name.c_str());
        if (enabledProvisioningMonitor() != nullptr) {
            ProvLog::progressPrefixed(String::format("[%s]   ", name.c_str()), manifest);
        }
    }
    return determineActionsNeeded(manifest, upgrade);
}

XCode FirmwareProvisioningJob::getImageVersionOfManifest(const String& manifest, String& version) {
    version = String();
    KtManifestParser parser;
    KtManifestEntry entry;
    XCode result = parser.parse(manifest);
    if (result.isErr()) {
        return result;
    }
    result = parser.getManifestEntry(entry);
    if (result.isErr()) {
        return result;
    }
    if (!entry.hasParam("sw_type") || !entry.hasParam("sw_version") ||
        !entry.hasParam("sw_build_num")) {
        // "INFORMATIONS" is the message as the management process knows it; keep the spelling.
        return XCode::FAILURE("SOFTWARE INFORMATIONS ARE MISSING IN MANIFEST");
    }
    version = entry.getParam("sw_type") + " " + entry.getParam("sw_version") + " " +
              entry.getParam("sw_build_num");
    return result;
}

XCode FirmwareProvisioningJob::determineActionsNeeded(const String& manifest, bool& upgrade) {
    String downloaded;
    XCode result = getImageVersionOfManifest(manifest, downloaded);
    if (result.isSuccess()) {
        decideActions(downloaded, upgrade);
    }
    return result;
}

void FirmwareProvisioningJob::decideActions(const String& downloaded, bool& upgrade) {
    const char* n = name.c_str();
    if (RTD::Monitor* monitor = enabledProvisioningMonitor()) {
        monitor->monitorPrefix(monitor->getLevel(), String::format("[%s]", n),
                               "Comparing image versions, downloaded: %s\n"
                               "                              active: %s\n"
                               "                           stored #1: %s\n"
                               "                           stored #2: %s",
                               downloaded.c_str(), activeVersion.c_str(), storedVersion1.c_str(),
                               storedVersion2.c_str());
    }

    // Only the running version and the slot numbers decide; the stored versions are logged only.
    upgrade = !compareWithStored || downloaded != activeVersion;
    if (!upgrade) {
        imageAction = UpdateImageInfo;
    } else {
        unsigned int targetImage = activeImage == 1 ? 2 : 1;
        imageAction = nextImage == targetImage ? UpdateImageInfo : SwapNextImage;
    }
    activationFlag = downloaded.isEmpty() || !compareWithStored || downloaded != activeVersion;

    if (RTD::Monitor* monitor = enabledProvisioningMonitor()) {
        monitor->monitor(
            monitor->getLevel(), "[%s] Resulting actions: upgrade: %s, image: %s, activation: %s",
            n, yesNo(upgrade), IMAGE_ACTION_TO_STRING(imageAction), yesNo(activationFlag));
    }
}

void FirmwareProvisioningJob::onUpgradeTerminated(const String& /*text*/, XCode result,
                                                  bool /*first*/, bool second) {
    logUpgradeTerminated(result);
    if (result.getValue() == 0) {
        ProvLog::progress("[%s] Successfully updated firmware.", name.c_str());
        postUpgradeFlag = second;
        // The script wording for a firmware update is the event text as it stands.
        ProvLog::log(MON_EVENT, ProvLog::LEVEL_PROGRESS,
                     "[%s] Successfully executed updated script", name.c_str());
        addXferLogEntry("succeeded", "");
    } else {
        imageAction = UpdateImageInfo;
        addXferLogEntry(result.getString(), "");
    }
    // The handler may destroy the job: nothing below touches it.
    notifyAsyncJobFinished(result);
}
