#include "jobs/upgrade/ScriptProvisioningJob.h"

#include "engine/ProvLog.h"
#include "jobs/content/FlashFile.h"

namespace {
constexpr int CHECKSUM_LENGTH = 20;
}  // namespace

ScriptProvisioningJob::ScriptProvisioningJob(KtEventLoop& loop, const String& jobName,
                                             ProvisioningJob::ReloadType reload, bool compare,
                                             const KtList<String>& jobLocations,
                                             const ProvisioningCredentials& jobCredentials,
                                             ExpressionResolver& resolver,
                                             ProvisioningJob::CallbackHandler& handler)
    : UpgradeProvisioningJob(loop, jobName, reload, compare, jobLocations, jobCredentials, resolver,
                             handler) {
    // The name becomes the fingerprint's file name in "/flash/provisioning/": one that would
    // reach outside it (a key, say) is refused before anything is read, fetched or stored.
    if (!IS_VALID_NAME(name)) {
        refuseToStart(XCode::FAILURE_F("INVALID SCRIPT NAME '%s'", name.c_str()));
    }
}

bool ScriptProvisioningJob::IS_VALID_NAME(const String& name) {
    return !name.isEmpty() && name != "." && name != ".." && name.indexOf('/') < 0 &&
           name.indexOf('\0') < 0;
}

XCode ScriptProvisioningJob::onFailedFileDownload() {
    ProvLog::progress("[%s] FAILED TO DOWNLOAD SCRIPT", name.c_str());
    return testExpression(true);
}

XCode ScriptProvisioningJob::onSuccessfulFileDownload() {
    Flow flow = Flow::Tar;
    XCode result = chooseFlow(flow);
    if (result.isErr()) {
        return result;
    }
    return flow == Flow::Tar ? onSuccessfulFileDownloadTar() : onSuccessfulFileDownloadManifest();
}

XCode ScriptProvisioningJob::onSuccessfulFileDownloadTar() {
    ProvLog::progress("[%s] Successfully downloaded script", name.c_str());
    String script;
    XCode result = readArchiveManifest(script);
    if (result.isSuccess() && mustRun(script)) {
        ProvLog::progress("[%s] Executing script", name.c_str());
        result = startUpgradeFromArchive();
    }
    return result.isErr() ? failUpgrade(result) : result;
}

XCode ScriptProvisioningJob::onSuccessfulFileDownloadManifest() {
    ProvLog::progress("[%s] Successfully downloaded script", name.c_str());
    String script;
    XCode result = readDownloadedManifest(script);
    if (result.isSuccess() && mustRun(script)) {
        ProvLog::progress("[%s] Executing script", name.c_str());
        result = startUpgradeFromLocation();
    }
    return result.isErr() ? failUpgrade(result) : result;
}

String ScriptProvisioningJob::checksumPath() const {
    return String::format("/flash/provisioning/%s", name.c_str());
}

bool ScriptProvisioningJob::mustRun(const String& script) {
    const char* n = name.c_str();
    // The text is never shorter than the fingerprint here: shorter ones were refused before.
    checksum = script.substring(script.length() - CHECKSUM_LENGTH);
    if (!compareWithStored) {
        ProvLog::progress("[%s] No script comparison is done", n);
        return true;
    }
    String stored;
    if (FlashFile::READ_STORED(checksumPath(), stored).isErr()) {
        ProvLog::progress("[%s] No previous version of the script", n);
        return true;
    }
    if (stored == checksum) {
        ProvLog::progress("[%s] Downloaded and stored scripts are equal", n);
        return false;
    }
    return true;
}

void ScriptProvisioningJob::onUpgradeTerminated(const String& /*text*/, XCode result,
                                                bool /*first*/, bool second) {
    const char* n = name.c_str();
    logUpgradeTerminated(result);
    if (result.getValue() != 0) {
        imageAction = UpdateImageInfo;
        addXferLogEntry(result.getString(), "");
    } else {
        ProvLog::progress("[%s] Successfully executed script", n);
        XCode stored = FlashFile::STORE(checksumPath(), checksum);
        if (stored.isErr()) {
            result = stored;
            // Lower case as the transfer log knows it.
            addXferLogEntry("cannot write checksum to flash", "");
        } else {
            imageAction = SetNextToInactive;
            activationFlag = true;
            postUpgradeFlag = second;
            ProvLog::log(MON_EVENT, ProvLog::LEVEL_PROGRESS,
                         "[%s] Successfully executed updated script", n);
            addXferLogEntry("succeeded", "");
        }
    }
    // The handler may destroy the job: nothing below touches it.
    notifyAsyncJobFinished(result);
}
