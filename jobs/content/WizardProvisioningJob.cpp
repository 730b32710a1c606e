#include "jobs/content/WizardProvisioningJob.h"

#include "engine/ProvLog.h"
#include "jobs/content/FlashFile.h"

WizardProvisioningJob::WizardProvisioningJob(KtEventLoop& loop, const String& jobName,
                                             ReloadType reload, bool compare,
                                             const KtList<String>& jobLocations,
                                             const ProvisioningCredentials& jobCredentials,
                                             ExpressionResolver& resolver, CallbackHandler& handler)
    : ProvisioningJob(loop, jobName, reload, Download, compare, jobLocations, jobCredentials,
                      resolver, handler) {
    uploadLocation = "wizard";
    followUpMode = "Wizard";
    followUpCommand = "add wizard";
}

bool WizardProvisioningJob::isValidWizard(String& /*text*/) {
    return true;
}

XCode WizardProvisioningJob::onFailedFileDownload() {
    ProvLog::log(MON_PROV, ProvLog::LEVEL_FAILURE, "[%s] FAILED TO DOWNLOAD WIZARD", name.c_str());
    return testExpression(true);
}

XCode WizardProvisioningJob::onSuccessfulFileDownload() {
    const char* n = name.c_str();
    ProvLog::progress("[%s] Successfully downloaded wizard", n);
    String fileName = FlashFile::LAST_COMPONENT(path, '/');
    String target = "/flash/wizard/" + fileName;
    String downloaded;
    bool unchanged = false;
    XCode result = FlashFile::READ_DOWNLOADED(outFile, downloaded);
    if (result.isSuccess()) {
        unchanged =
            FlashFile::UNCHANGED(n, compareWithStored, target, downloaded, "wizard", "wizards");
        // Validation also applies to an unchanged wizard.
        if (!isValidWizard(downloaded)) {
            result = XCode::FAILURE("DOWNLOADED FILE IS NOT A VALID WIZARD");
        } else if (unchanged) {
            return result;
        } else {
            ProvLog::progress("[%s] Storing wizard", n);
            result = FlashFile::STORE(target, downloaded);
        }
    }
    if (result.isErr()) {
        addXferLogEntry(result.toString(), "");
        return result;
    }
    ProvLog::log(MON_EVENT, ProvLog::LEVEL_PROGRESS, "[%s] Received and stored wizard update", n);
    addXferLogEntry("succeeded", "");
    followUpArguments.pushBack(fileName);
    followUpPending = true;
    return result;
}
