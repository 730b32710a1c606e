#include "jobs/content/DialplanProvisioningJob.h"

#include "engine/ProvLog.h"
#include "jobs/content/FlashFile.h"

DialplanProvisioningJob::DialplanProvisioningJob(KtEventLoop& loop, const String& jobName,
                                                 String dialplanName, ReloadType reload,
                                                 bool compare, const KtList<String>& jobLocations,
                                                 const ProvisioningCredentials& jobCredentials,
                                                 ExpressionResolver& resolver,
                                                 CallbackHandler& handler)
    : ProvisioningJob(loop, jobName, reload, Download, compare, jobLocations, jobCredentials,
                      resolver, handler) {
    uploadLocation = dialplanName;
}

XCode DialplanProvisioningJob::onFailedFileDownload() {
    ProvLog::log(MON_PROV, ProvLog::LEVEL_FAILURE, "[%s] FAILED TO DOWNLOAD DIALPLAN",
                 name.c_str());
    return testExpression(true);
}

XCode DialplanProvisioningJob::onSuccessfulFileDownload() {
    const char* n = name.c_str();
    ProvLog::progress("[%s] Successfully downloaded dialplan", n);
    String target = "/flash/dialplan/" + FlashFile::LAST_COMPONENT(uploadLocation, ':');
    String downloaded;
    XCode result = FlashFile::READ_DOWNLOADED(outFile, downloaded);
    if (result.isSuccess()) {
        if (FlashFile::UNCHANGED(n, compareWithStored, target, downloaded, "dialplan",
                                 "dialplans")) {
            return testExpression(true);
        }
        ProvLog::progress("[%s] Storing dialplan", n);
        result = FlashFile::STORE(target, downloaded);
    }
    if (result.isErr()) {
        addXferLogEntry(result.toString(), "");
        // Unlike the other content jobs, the reason is only in the transfer log; intended.
        return XCode::FAILURE();
    }
    ProvLog::log(MON_EVENT, ProvLog::LEVEL_PROGRESS, "[%s] Received and stored dialplan update", n);
    addXferLogEntry("succeeded", "");
    return result;
}
