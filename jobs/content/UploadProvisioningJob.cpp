#include "jobs/content/UploadProvisioningJob.h"

#include "jobs/content/FlashFile.h"
#include "platform/Cli.h"

UploadProvisioningJob::UploadProvisioningJob(KtEventLoop& loop, const String& jobName,
                                             ReloadType reload, bool compare,
                                             const KtList<String>& jobLocations,
                                             const ProvisioningCredentials& jobCredentials,
                                             ExpressionResolver& resolver, CallbackHandler& handler)
    : ProvisioningJob(loop, jobName, reload, Upload, compare, jobLocations, jobCredentials,
                      resolver, handler) {
    downloadLocation = CLI::GET_STARTUP_CONFIGURATION_NAME();
}

XCode UploadProvisioningJob::getFileForUpload() {
    String content;
    String error;
    XCode result = CLI::GET_CONFIGURATION_CONTENT(downloadLocation, content, error);
    if (result.isErr()) {
        return result.setString(error);
    }
    result = FlashFile::STORE(outFile, content);
    if (result.isErr()) {
        result.setString("Cannot write content of config to temp file");
    }
    return result;
}

CdrUploadJob::CdrUploadJob(KtEventLoop& loop, const String& jobName, const String& sourceName,
                           ReloadType reload, bool compare, const KtList<String>& jobLocations,
                           const ProvisioningCredentials& jobCredentials,
                           ExpressionResolver& resolver, CallbackHandler& handler)
    : ProvisioningJob(loop, jobName, reload, Upload, compare, jobLocations, jobCredentials,
                      resolver, handler) {
    downloadLocation = sourceName;
}

XCode CdrUploadJob::getFileForUpload() {
    return XCode::FAILURE("NOT IMPLEMENTED");
}
