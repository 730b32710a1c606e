#include "jobs/content/KeyProvisioningJob.h"

#include "engine/ProvLog.h"
#include "jobs/content/FlashFile.h"
#include "platform/KtFile.h"

namespace {
constexpr const char* KEY_PATH = "/flash/preferences/key";
// A key is a secret: a new one is readable by its owner only (a replaced one keeps its mode).
constexpr unsigned int NEW_KEY_MODE = KtFile::MODE_PRIVATE;
}  // namespace

KeyProvisioningJob::KeyProvisioningJob(KtEventLoop& loop, const String& jobName, ReloadType reload,
                                       bool compare, const KtList<String>& jobLocations,
                                       const ProvisioningCredentials& jobCredentials,
                                       ExpressionResolver& resolver, CallbackHandler& handler)
    : ProvisioningJob(loop, jobName, reload, Download, compare, jobLocations, jobCredentials,
                      resolver, handler) {}

XCode KeyProvisioningJob::onFailedFileDownload() {
    ProvLog::log(MON_PROV, ProvLog::LEVEL_FAILURE, "[%s] FAILED TO DOWNLOAD KEY", name.c_str());
    return testExpression(true);
}

XCode KeyProvisioningJob::onSuccessfulFileDownload() {
    const char* n = name.c_str();
    ProvLog::progress("[%s] Successfully downloaded key", n);
    String downloaded;
    XCode result = FlashFile::READ_DOWNLOADED(outFile, downloaded);
    if (result.isSuccess()) {
        if (FlashFile::UNCHANGED(n, compareWithStored, KEY_PATH, downloaded, "key", "key")) {
            return testExpression(true);
        }
        ProvLog::progress("[%s] Storing key", n);
        result = FlashFile::STORE(KEY_PATH, downloaded, NEW_KEY_MODE);
    }
    if (result.isErr()) {
        addXferLogEntry(result.toString(), "");
        return result;
    }
    activationFlag = true;
    ProvLog::log(MON_EVENT, ProvLog::LEVEL_PROGRESS, "[%s] Received and stored key update", n);
    addXferLogEntry("succeeded", "");
    return result;
}
