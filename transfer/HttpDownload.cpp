#include "engine/Monitors.h"
#include "engine/ProvisioningJob.h"
#include "platform/UriUtil.h"
#include "transfer/ProvisioningHttpClient.h"

namespace {
const char* schemeOf(bool https) {
    return https ? "https" : "http";
}
}  // namespace

XCode ProvisioningJob::startFileDownloadHttp(unsigned int httpPort, const String& remotePath,
                                             const String& httpHost) {
    return startHttpDownload(false, httpPort, remotePath, httpHost);
}

XCode ProvisioningJob::startFileDownloadHttps(unsigned int httpPort, const String& remotePath,
                                              const String& httpHost) {
    return startHttpDownload(true, httpPort, remotePath, httpHost);
}

XCode ProvisioningJob::startHttpDownload(bool https, unsigned int httpPort,
                                         const String& remotePath, const String& httpHost) {
    String uri = UriUtil::buildUri(schemeOf(https), httpHost, httpPort, remotePath);
    XCode result = createOutFile(remotePath);
    if (result.isErr()) {
        return result;
    }
    ProvLog::progress(https ? "[%s] Starting HTTPS download" : "[%s] Starting HTTP download",
                      name.c_str());
    ProvLog::progress("[%s]   From: %s", name.c_str(), uri.c_str());
    ProvLog::progress("[%s]   To:   %s", name.c_str(), outFile.c_str());

    // The getters always succeed; an empty value is passed on as it is.
    String oemName, modelName, serialNumber, swVersion, hwVersion, hwRevision;
    static_cast<void>(expressionResolver->getOemName(oemName));
    static_cast<void>(expressionResolver->getModelName(modelName));
    static_cast<void>(expressionResolver->getSerialNumber(serialNumber));
    static_cast<void>(expressionResolver->getSwVersion(swVersion));
    static_cast<void>(expressionResolver->getHwVersion(hwVersion));
    static_cast<void>(expressionResolver->getHwRevision(hwRevision));
    httpClient.reset();
    httpClient = std::make_unique<ProvisioningHttpClient>(
        name, oemName, modelName, serialNumber, swVersion, hwVersion, hwRevision, eventLoop);
    Kt::Function<void(XCode)> completion(
        Kt::asyncCall(eventLoop), std::bind(https ? &ProvisioningJob::onFileDownloadHttpsResult
                                                  : &ProvisioningJob::onFileDownloadHttpResult,
                                            this, uri, httpHost, httpPort, std::placeholders::_1));
    if (https) {
        result = httpClient->getHttpsInBackground(uri, outFile, authParam1, authParam2, authParam3,
                                                  completion);
    } else {
        result = httpClient->getHttpInBackground(uri, outFile, completion);
    }
    if (result.isErr()) {
        removeOutFile();
    }
    return result;
}

void ProvisioningJob::onFileDownloadHttpResult(String uri, String httpHost, unsigned int httpPort,
                                               XCode result) {
    onHttpFirstAttemptResult(false, uri, httpHost, httpPort, result);
}

void ProvisioningJob::onFileDownloadHttpsResult(String uri, String httpHost, unsigned int httpPort,
                                                XCode result) {
    onHttpFirstAttemptResult(true, uri, httpHost, httpPort, result);
}

void ProvisioningJob::onHttpFirstAttemptResult(bool https, const String& uri,
                                               const String& httpHost, unsigned int httpPort,
                                               XCode result) {
    if (!result.isHttpErr(401)) {
        onHttpFinalResult(https, uri, httpHost, httpPort, result);
        return;
    }
    const String& realm = httpClient->getRealm();
    // Ignored on purpose: without credentials for the realm the retry goes ahead with whatever
    // user and password the job holds, and the server's second answer decides.
    static_cast<void>(credentials.get(realm, realmUser, realmPassword));
    const char* n = name.c_str();
    if (https) {
        // The HTTPS lines align one column further left than the HTTP ones; intended.
        ProvLog::progress("[%s] Re-Starting HTTPS download with authentication", n);
        ProvLog::progress("[%s]   From:  %s", n, uri.c_str());
        ProvLog::progress("[%s]   To:    %s", n, outFile.c_str());
        ProvLog::progress("[%s]   Realm: %s", n, realm.c_str());
        ProvLog::progress("[%s]   User:  %s", n, realmUser.c_str());
    } else {
        ProvLog::progress("[%s] Re-Starting HTTP download with authentication", n);
        ProvLog::progress("[%s]   From:   %s", n, uri.c_str());
        ProvLog::progress("[%s]   To:     %s", n, outFile.c_str());
        ProvLog::progress("[%s]   Realm:  %s", n, realm.c_str());
        ProvLog::progress("[%s]   User:   %s", n, realmUser.c_str());
    }
    Kt::Function<void(XCode)> completion(
        Kt::asyncCall(eventLoop),
        std::bind(https ? &ProvisioningJob::onFileDownloadHttpsResultDontAuth
                        : &ProvisioningJob::onFileDownloadHttpResultDontAuth,
                  this, uri, httpHost, httpPort, std::placeholders::_1));
    XCode started;
    if (https) {
        started = httpClient->getHttpsInBackground(uri, realmUser, realmPassword, outFile,
                                                   authParam1, authParam2, authParam3, completion);
    } else {
        started =
            httpClient->getHttpInBackground(uri, realmUser, realmPassword, outFile, completion);
    }
    if (started.isErr()) {
        removeOutFile();
        onCurrentDownloadLocationFinished(started);
    }
}

void ProvisioningJob::onFileDownloadHttpResultDontAuth(String uri, String httpHost,
                                                       unsigned int httpPort, XCode result) {
    onHttpFinalResult(false, uri, httpHost, httpPort, result);
}

void ProvisioningJob::onFileDownloadHttpsResultDontAuth(String uri, String httpHost,
                                                        unsigned int httpPort, XCode result) {
    onHttpFinalResult(true, uri, httpHost, httpPort, result);
}

void ProvisioningJob::onHttpFinalResult(bool https, const String& /*uri*/, const String& httpHost,
                                        unsigned int httpPort, XCode result) {
    if (result.isHttpErr(302)) {
        redirectLocation = httpClient->getLocation();
        if (redirectLocation.indexOf("://") < 0) {
            // A relative reference: same scheme, host and port, the value used as the path.
            redirectLocation =
                UriUtil::buildUri(schemeOf(https), httpHost, httpPort, redirectLocation);
        }
    } else {
        comparisonAllowed = httpClient->getLastStatus() != 201;
    }
    if (result.isErr()) {
        removeOutFile();
    }
    onCurrentDownloadLocationFinished(result);
}

XCode ProvisioningJob::startFileUploadHttp(unsigned int, const String&, const String&) {
    return XCode(-1).setString("HTTP UPLOAD NOT SUPPORTED YET");
}

XCode ProvisioningJob::startFileUploadHttps(unsigned int, const String&, const String&) {
    return XCode(-1).setString("HTTPS UPLOAD NOT SUPPORTED YET");
}
