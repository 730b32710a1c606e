// ProvisioningJob's HTTP members: downloads through ProvisioningHttpClient. They are compiled
// into the engine's layer (tools/layers.txt); this folder keeps every way a file travels.

#include <algorithm>

#include "engine/ProvLog.h"
#include "engine/ProvisioningJob.h"
#include "platform/UriUtil.h"
#include "platform/WgetUtil.h"
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
    // The request keeps the query and drops the fragment; wget never sees a login in the URL.
    String uri = UriUtil::buildUri(schemeOf(https), httpHost, httpPort,
                                   UriUtil::withoutFragment(remotePath));
    XCode result = holdLocationLogin(https, httpHost, httpPort);
    if (result.isSuccess()) {
        result = createOutFile(remotePath);
    }
    if (result.isErr()) {
        return result;
    }
    ProvLog::progress(https ? "[%s] Starting HTTPS download" : "[%s] Starting HTTP download",
                      name.c_str());
    ProvLog::progress("[%s]   From: %s", name.c_str(), shownUri(uri).c_str());
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

XCode ProvisioningJob::holdLocationLogin(bool https, const String& httpHost,
                                         unsigned int httpPort) {
    if (!locationLogin.given) {
        return testExpression(true);
    }
    // Refused now rather than at the retry: a login that cannot reach the server as written
    // makes the location unusable.
    XCode result = WgetUtil::checkCredentials(locationLogin.user, locationLogin.password);
    if (result.isSuccess()) {
        heldLogin = locationLogin;
        heldLoginOrigin = UriUtil::buildOrigin(schemeOf(https), httpHost, httpPort);
    }
    return result;
}

String ProvisioningJob::shownUri(const String& uri) const {
    return locationLogin.given ? UriUtil::markLogin(uri) : uri;
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
    String user;
    String password;
    chooseRetryCredentials(https, UriUtil::buildOrigin(schemeOf(https), httpHost, httpPort),
                           httpHost, realm, user, password);
    const char* n = name.c_str();
    if (https) {
        // The HTTPS lines align one column further left than the HTTP ones; intended.
        ProvLog::progress("[%s] Re-Starting HTTPS download with authentication", n);
        ProvLog::progress("[%s]   From:  %s", n, shownUri(uri).c_str());
        ProvLog::progress("[%s]   To:    %s", n, outFile.c_str());
        ProvLog::progress("[%s]   Realm: %s", n, realm.c_str());
        ProvLog::progress("[%s]   User:  %s", n, user.c_str());
    } else {
        ProvLog::progress("[%s] Re-Starting HTTP download with authentication", n);
        ProvLog::progress("[%s]   From:   %s", n, shownUri(uri).c_str());
        ProvLog::progress("[%s]   To:     %s", n, outFile.c_str());
        ProvLog::progress("[%s]   Realm:  %s", n, realm.c_str());
        ProvLog::progress("[%s]   User:   %s", n, user.c_str());
    }
    Kt::Function<void(XCode)> completion(
        Kt::asyncCall(eventLoop),
        std::bind(https ? &ProvisioningJob::onFileDownloadHttpsResultDontAuth
                        : &ProvisioningJob::onFileDownloadHttpResultDontAuth,
                  this, uri, httpHost, httpPort, std::placeholders::_1));
    XCode started;
    if (https) {
        started = httpClient->getHttpsInBackground(uri, user, password, outFile, authParam1,
                                                   authParam2, authParam3, completion);
    } else {
        started = httpClient->getHttpInBackground(uri, user, password, outFile, completion);
    }
    if (started.isErr()) {
        removeOutFile();
        onCurrentDownloadLocationFinished(started);
    }
}

void ProvisioningJob::chooseRetryCredentials(bool https, const String& origin,
                                             const String& httpHost, const String& realm,
                                             String& user, String& password) {
    // A login written into a location of this origin answers every realm there: the store is
    // not asked. Without credentials for the realm the retry still goes ahead (the server's
    // second answer decides), with the user and password held from an earlier challenge where
    // they may go.
    const bool loginForOrigin = heldLogin.given && origin == heldLoginOrigin;
    if (!loginForOrigin &&
        credentials.getForHost(realm, httpHost, realmUser, realmPassword).isSuccess()) {
        realmOrigin = origin;
        if (https && !realmPassword.isEmpty()) {
            httpsPasswords.push_back(realmPassword);
        }
    }
    heldCredentialsFor(origin, user, password);
}

void ProvisioningJob::heldCredentialsFor(const String& origin, String& user,
                                         String& password) const {
    if (heldLogin.given && origin == heldLoginOrigin) {
        user = heldLogin.user;
        password = heldLogin.password;
        return;
    }
    const bool plainHttp = !origin.startsWith("https://");
    const bool obtainedForHttps = std::find(httpsPasswords.begin(), httpsPasswords.end(),
                                            realmPassword) != httpsPasswords.end();
    if (origin == realmOrigin && !(plainHttp && obtainedForHttps)) {
        user = realmUser;
        password = realmPassword;
    } else {
        user = String();
        password = String();
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
        // A server does not choose what the device sends anywhere, itself included: a login in
        // its target is dropped, and the target gets what this job holds for its origin.
        redirectLocation = UriUtil::withoutLogin(redirectLocation);
    } else {
        comparisonAllowed = httpClient->getLastStatus() != 201;
    }
    if (result.isErr()) {
        removeOutFile();
    }
    onCurrentDownloadLocationFinished(result);
}

XCode ProvisioningJob::startFileUploadHttp(unsigned int, const String&, const String&) {
    return XCode::FAILURE("HTTP UPLOAD NOT SUPPORTED YET");
}

XCode ProvisioningJob::startFileUploadHttps(unsigned int, const String&, const String&) {
    return XCode::FAILURE("HTTPS UPLOAD NOT SUPPORTED YET");
}
