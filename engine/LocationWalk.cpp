#include "engine/ProvLog.h"
#include "engine/ProvisioningJob.h"
#include "platform/Mgmt.h"
#include "platform/UriUtil.h"

XCode ProvisioningJob::resolveLocationExpressions(String& location) {
    if (expressionResolver == nullptr) {
        return XCode::FAILURE("CANNOT RESOLVE EXPRESSIONS");
    }
    KtEventSync& sync = MGMT::INSTANCE().getEventSync();
    // The management layer's lock guards the device values; it is retried until taken.
    while (sync.lock().isErr()) {
    }
    KtAutoLock<KtEventSync> autoLock(sync);
    XCode result = expressionResolver->replaceAllExpressions(location);
    if (result.isErr()) {
        return result.extendString("CANNOT RESOLVE ALL EXPRESSIONS", ": ");
    }
    ProvLog::progress("[%s] Location resolved to %s", name.c_str(),
                      UriUtil::maskLogin(location).c_str());
    return result;
}

namespace {

enum Protocol : unsigned int { TFTP = 0, HTTP = 1, HTTPS = 2, UNKNOWN = 99 };

Protocol protocolOf(const String& scheme) {
    String lower = scheme;
    lower.toLowerCase();
    if (lower == "tftp") {
        return TFTP;
    }
    if (lower == "http") {
        return HTTP;
    }
    if (lower == "https") {
        return HTTPS;
    }
    return UNKNOWN;
}

XCode protocolNotSupported(const String& scheme) {
    String upper = scheme;
    upper.toUpperCase();
    return XCode::FAILURE_F("PROTOCOL %s NOT SUPPORTED", upper.c_str());
}

}  // namespace

XCode ProvisioningJob::takeLocation(String& location, UriUtil::Parts& parts) {
    XCode result = resolveLocationExpressions(location);
    if (result.isSuccess()) {
        String error;
        result = UriUtil::splitUri(location, parts, error);
        if (result.isErr()) {
            result.setString(error);
        }
    }
    // From here on the password is in locationLogin only: every later log line, the transfer log
    // and the status record show the location through this field.
    location = UriUtil::maskLogin(location);
    locationLogin = result.isSuccess() ? parts.login : UriUtil::Login();
    if (result.isSuccess()) {
        host = parts.host;
        port = parts.port;
        path = parts.path;
    }
    return result;
}

XCode ProvisioningJob::downloadFromCurrentLocation() {
    ProvLog::progress("[%s] Trying to download from location %s", name.c_str(),
                      UriUtil::maskLogin(downloadLocation).c_str());
    UriUtil::Parts parts;
    XCode result = takeLocation(downloadLocation, parts);
    if (result.isErr()) {
        return result;
    }
    switch (protocolOf(parts.scheme)) {
        case TFTP:
            protocol = TFTP;
            return startFileDownloadTftp(port, path, host);
        case HTTP:
            protocol = HTTP;
            return startFileDownloadHttp(port, path, host);
        case HTTPS:
            protocol = HTTPS;
            return startFileDownloadHttps(port, path, host);
        default:
            return protocolNotSupported(parts.scheme);
    }
}

XCode ProvisioningJob::uploadFromCurrentLocation() {
    ProvLog::progress("[%s] Trying to upload to location %s", name.c_str(),
                      UriUtil::maskLogin(uploadLocation).c_str());
    UriUtil::Parts parts;
    XCode result = takeLocation(uploadLocation, parts);
    if (result.isErr()) {
        return result;
    }
    switch (protocolOf(parts.scheme)) {
        case TFTP:
            protocol = TFTP;
            return startFileUploadTftp(port, path, host);
        case HTTP:
            protocol = HTTP;
            return startFileUploadHttp(port, path, host);
        case HTTPS:
            protocol = HTTPS;
            return startFileUploadHttps(port, path, host);
        default:
            return protocolNotSupported(parts.scheme);
    }
}

void ProvisioningJob::onCurrentDownloadLocationFinished(XCode result) {
    if (result.isSuccess()) {
        ProvLog::progress("[%s] File downloaded: '%s' -> '%s'", name.c_str(),
                          downloadLocation.c_str(), outFile.c_str());
        asyncPending = false;
        XCode hookResult = onSuccessfulFileDownload();
        if (asyncPending) {
            return;
        }
        // A file that downloaded but cannot be used is not fetched again elsewhere.
        onJobFinished(hookResult);
        return;
    }
    if (result.isHttpErr(302)) {
        ProvLog::progress("[%s] Redirected: '%s' -> '%s'", name.c_str(), downloadLocation.c_str(),
                          redirectLocation.c_str());
        locations.pushFront(redirectLocation);
        result = testExpression(true);
    } else {
        ProvLog::progress("[%s] DOWNLOAD LOCATION FAILED: %s: %s", name.c_str(),
                          downloadLocation.c_str(), result.toString().c_str());
        // Only the job's own logging happens here; the walk goes on whatever it says.
        static_cast<void>(onFailedFileDownload());
    }
    walkOnAfterFailure(result, false);
}

void ProvisioningJob::onCurrentUploadLocationFinished(XCode result) {
    if (result.isSuccess()) {
        ProvLog::progress("[%s] File uploaded : '%s' -> '%s'", name.c_str(), outFile.c_str(),
                          uploadLocation.c_str());
        onJobFinished(result);
        return;
    }
    if (result.isHttpErr(302)) {
        ProvLog::progress("[%s] Redirected: '%s' -> '%s'", name.c_str(), uploadLocation.c_str(),
                          redirectLocation.c_str());
        locations.pushFront(redirectLocation);
        result = testExpression(true);
    } else {
        // "DOWNLOAD" also for uploads: the line is matched by its readers as it stands.
        ProvLog::progress("[%s] DOWNLOAD LOCATION FAILED: %s: %s", name.c_str(),
                          uploadLocation.c_str(), result.toString().c_str());
    }
    walkOnAfterFailure(result, true);
}

void ProvisioningJob::walkOnAfterFailure(XCode result, bool upload) {
    // Counts redirects and plain failures alike, so thirty failed locations also end as a
    // "redirection loop"; that wording is intended.
    ++locationsTried;
    if (locationsTried > MAX_LOCATIONS_TRIED - 1) {
        ProvLog::progress(upload ? "[%s] Stop uploading after trying %u locations"
                                 : "[%s] Stop downloading after trying %u locations",
                          name.c_str(), MAX_LOCATIONS_TRIED);
        onJobFinished(XCode::FAILURE("REDIRECTION LOOP DETECTED"));
        return;
    }
    if (locations.isEmpty()) {
        if (result.isErr()) {
            onJobFinished(result);
        }
        return;
    }
    XCode lastStart = XCode::FAILURE();
    while (!locations.isEmpty() && lastStart.isErr()) {
        // An upload retry pops into downloadLocation and sends to uploadLocation again: every
        // retry of an upload goes to the location that just failed. Intended.
        if (locations.popFront(downloadLocation).isErr()) {
            onJobFinished(XCode::FAILURE("NO MORE DOWNLOAD LOCATIONS"));
            return;
        }
        lastStart = upload ? uploadFromCurrentLocation() : downloadFromCurrentLocation();
    }
    if (lastStart.isErr()) {
        onJobFinished(lastStart);
    }
}
