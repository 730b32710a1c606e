#include "engine/ProvisioningJob.h"

#include "engine/ProvLog.h"
#include "platform/StatusDb.h"
#include "transfer/ProvisioningHttpClient.h"

ProvisioningJob::ProvisioningJob(KtEventLoop& loop, const String& jobName, ReloadType reload,
                                 Direction jobDirection, bool compare,
                                 const KtList<String>& jobLocations,
                                 const ProvisioningCredentials& jobCredentials,
                                 ExpressionResolver& resolver, CallbackHandler& handler)
    : eventLoop(loop),
      name(jobName),
      compareWithStored(compare),
      reloadType(reload),
      direction(jobDirection),
      credentials(jobCredentials),
      outFile("/tmp/provisioning/file"),
      expressionResolver(&resolver),
      callbackHandler(&handler) {
    for (const String& location : jobLocations) {
        locations.pushBack(location);
    }
}

ProvisioningJob::~ProvisioningJob() {
    // A job destroyed before it reported was cancelled: its child is ended and reaped, its work
    // file removed and the subsystem shown idle again. No callback reaches it any more.
    if (reportPending) {
        abandonTransfer();
        SET_SUBSYSTEM_STATUS(false);
        return;
    }
    httpClient.reset();
    tftpFuture.reset();
}

void ProvisioningJob::abandonTransfer() {
    // The client's destructor ends and reaps a running wget.
    httpClient.reset();
    if (tftpFuture) {
        tftpFuture->abandonAndReap();
        tftpFuture.reset();
    }
    if (direction == Download) {
        removeOutFile();
    }
}

void ProvisioningJob::setAuthentication(const String& auth1, const String& auth2,
                                        const String& auth3) {
    authParam1 = auth1;
    authParam2 = auth2;
    authParam3 = auth3;
}

ProvisioningJob::ReloadType ProvisioningJob::STRING_TO_RELOAD_TYPE(const String& text) {
    if (text == "immediate") {
        return Immediate;
    }
    if (text == "graceful") {
        return Graceful;
    }
    if (text == "deferred") {
        return Deferred;
    }
    // Deliberately no error: an unknown word means no reload.
    return None;
}

const char* ProvisioningJob::RELOAD_TYPE_TO_STRING(ReloadType reload) {
    switch (reload) {
        case Immediate:
            return "immediate";
        case Graceful:
            return "graceful";
        case Deferred:
            return "deferred";
        case None:
            return "none";
    }
    return ERROR::INVALID;
}

const char* ProvisioningJob::IMAGE_ACTION_TO_STRING(ImageAction action) {
    switch (action) {
        case NoAction:
            return "No Action";
        case UpdateImageInfo:
            return "Update Image Info";
        case SwapNextImage:
            return "Swap Next Image";
        case SetNextToInactive:
            return "Set Next To Inactive";
    }
    return "(invalid)";
}

void ProvisioningJob::refuseToStart(const XCode& reason) {
    startRefusal = reason;
}

XCode ProvisioningJob::onFailedFileDownload() {
    return XCode::FAILURE("ACTION FOR FAIL NOT IMPLEMENTED");
}

XCode ProvisioningJob::onSuccessfulFileDownload() {
    return XCode::FAILURE("ACTION FOR DOWNLOADED FILE NOT IMPLEMENTED");
}

XCode ProvisioningJob::getFileForUpload() {
    // "GATERHING" is the message as the management process knows it; keep the spelling.
    return XCode::FAILURE("GATERHING FILE FOR UPLOADING NOT IMPLEMENTED");
}

XCode ProvisioningJob::execute() {
    XCode result = testExpression(true);
    setProvisioningSubsystemStatus(true);
    reportPending = true;
    ProvLog::progress("[%s] Starting execution", name.c_str());

    DB::Ptr<DB::SystemProvisioningStatusRecord> status;
    result = startRefusal;
    if (result.isErr()) {
        // Reported below like any failure to start.
    } else if (locations.isEmpty()) {
        result = XCode::FAILURE("NO LOCATIONS CONFIGURED");
    } else {
        result = DB::Table::SystemProvisioningStatus::find(
            DB::Table::Cfg::QueryAllByKey::Key(DB::ObjectType_(2), DB::ObjectStatus_(10)), status);
    }
    if (result.isSuccess()) {
        if (direction == Download || direction == Upload) {
            bool upload = direction == Upload;
            if (upload) {
                result = getFileForUpload();
            }
            if (result.isSuccess()) {
                result = startFirstTransfer(upload);
            }
        } else {
            result = XCode::FAILURE_F("INVALID DIRECTION %u", static_cast<unsigned int>(direction));
        }
    }
    if (result.isSuccess()) {
        // The record always shows downloadLocation, for uploads too (their source name).
        result = (status->location = downloadLocation);
        if (result.isErr()) {
            // The transfer runs already: it ends here, so that it cannot report a second time.
            abandonTransfer();
        }
    }
    if (result.isSuccess()) {
        asyncPending = true;
        return result;
    }
    onJobFinished(result);
    return result;
}

XCode ProvisioningJob::startFirstTransfer(bool upload) {
    XCode lastStart = XCode::FAILURE();
    while (!locations.isEmpty() && lastStart.isErr()) {
        if (locations.popFront(upload ? uploadLocation : downloadLocation).isErr()) {
            return XCode::FAILURE(upload ? "NO UPLOAD LOCATIONS" : "NO DOWNLOAD LOCATIONS");
        }
        lastStart = upload ? uploadFromCurrentLocation() : downloadFromCurrentLocation();
    }
    return lastStart;
}

void ProvisioningJob::onJobFinished(XCode result) {
    reportPending = false;
    if (result.isErr()) {
        ProvLog::executionFailed(name, result);
    }
    if (callbackHandler != nullptr) {
        // The handler may destroy the job: nothing below touches it.
        callbackHandler->jobFinished(*this, result);
    }
    SET_SUBSYSTEM_STATUS(false);
}

void ProvisioningJob::notifyAsyncJobFinished(XCode result) {
    if (!asyncPending) {
        return;
    }
    asyncPending = false;
    reportPending = false;
    // Unlike onJobFinished: nothing is logged, and without a handler the subsystem stays busy.
    if (callbackHandler != nullptr) {
        callbackHandler->jobFinished(*this, result);
        SET_SUBSYSTEM_STATUS(false);
    }
}
