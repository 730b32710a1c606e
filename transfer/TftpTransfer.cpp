// ProvisioningJob's TFTP members: download and upload with tftp. They are compiled into the
// engine's layer (tools/layers.txt); this folder keeps every way a file travels.

#include "engine/ProvLog.h"
#include "engine/ProvisioningJob.h"
#include "platform/UriUtil.h"

namespace {

// The shell splits the unquoted command line at blanks and tabs and removes double quotes: a
// value holding one of them would reach tftp as several words, a later "-l" among them choosing
// where tftp writes. A value starting with '-' would be read as an option; a line break is no
// part of a file or host name. Such values are refused before anything starts. Empty values are
// the callers' to judge (a download without a path is a folder, an upload needs one).
bool isSingleArgument(const String& value) {
    if (!value.isEmpty() && value.at(0) == '-') {
        return false;
    }
    for (char c : value.str()) {
        if (c == ' ' || c == '\t' || c == '"' || c == '\n' || c == '\r' || c == '\0') {
            return false;
        }
    }
    return true;
}

XCode invalidArgument() {
    return XCode::FAILURE("INVALID CHARACTER IN TFTP ARGUMENT");
}

// TFTP knows a file name and nothing else: no user or password, and no query that a server could
// answer. A query is refused rather than sent as part of the file name, which would ask the
// server for a file that the location does not name (the work file takes the name without it).
// A fragment is the client's own and is dropped, as for HTTP.
XCode refuseWhatTftpCannotSend(const UriUtil::Login& login, const String& remotePath) {
    if (login.given) {
        return XCode::FAILURE("INVALID LOCATION: TFTP cannot send a user or password");
    }
    if (UriUtil::pathOnly(remotePath) != UriUtil::withoutFragment(remotePath)) {
        return XCode::FAILURE("INVALID LOCATION: TFTP cannot send a query");
    }
    return testExpression(true);
}

XCode tftpCommandLine(const char* direction, const String& localFile, const String& remotePath,
                      const String& host, unsigned int port, String& commandLine) {
    std::vector<String> words = {"tftp", direction, "-l", localFile, "-r", remotePath, host};
    if (port != 0) {
        words.push_back(String::format("%u", port));
    }
    return Kt::Shell::JOIN_WORDS(words, commandLine);
}

}  // namespace

XCode ProvisioningJob::startFileDownloadTftp(unsigned int tftpPort, const String& locationPath,
                                             const String& tftpHost) {
    XCode result = refuseWhatTftpCannotSend(locationLogin, locationPath);
    if (result.isErr()) {
        return result;
    }
    const String remotePath = UriUtil::withoutFragment(locationPath);
    if (!isSingleArgument(remotePath) || !isSingleArgument(tftpHost)) {
        return invalidArgument();
    }
    String uri = UriUtil::buildUri("tftp", tftpHost, tftpPort, remotePath);
    result = createOutFile(remotePath);
    if (result.isErr()) {
        return result;
    }
    ProvLog::progress("[%s] Starting TFTP download", name.c_str());
    ProvLog::progress("[%s]   From: %s", name.c_str(), uri.c_str());
    ProvLog::progress("[%s]   To:   %s", name.c_str(), outFile.c_str());

    String commandLine;
    result = tftpCommandLine("-g", outFile, remotePath, tftpHost, tftpPort, commandLine);
    if (result.isErr()) {
        removeOutFile();
        return result;
    }
    tftpResultCallback = Kt::Shell::ResultCallback(
        Kt::asyncCall(eventLoop),
        [this](XCode code, String out) { onFileDownloadTftpResult(code, out); });
    tftpOutputCallback = Kt::Shell::OutputCallback(
        Kt::asyncCall(eventLoop), [this](String text) { onFileDownloadTftpOutput(text); });
    tftpFuture = std::make_unique<Kt::Future<String>>();
    result = Kt::Shell::invoke(commandLine, tftpResultCallback, tftpOutputCallback,
                               tftpOutputCallback, *tftpFuture);
    if (result.isErr()) {
        removeOutFile();
    }
    return result;
}

XCode ProvisioningJob::startFileUploadTftp(unsigned int tftpPort, const String& locationPath,
                                           const String& tftpHost) {
    XCode refused = refuseWhatTftpCannotSend(locationLogin, locationPath);
    if (refused.isErr()) {
        return refused;
    }
    const String remotePath = UriUtil::withoutFragment(locationPath);
    if (remotePath.isEmpty() || outFile.isEmpty() || !isSingleArgument(remotePath) ||
        !isSingleArgument(tftpHost) || !isSingleArgument(outFile)) {
        return invalidArgument();
    }
    String uri = UriUtil::buildUri("tftp", tftpHost, tftpPort, remotePath);
    ProvLog::progress("[%s] Starting TFTP upload", name.c_str());
    ProvLog::progress("[%s]   From: %s", name.c_str(), outFile.c_str());
    ProvLog::progress("[%s]   To:   %s", name.c_str(), uri.c_str());

    String commandLine;
    refused = tftpCommandLine("-p", outFile, remotePath, tftpHost, tftpPort, commandLine);
    if (refused.isErr()) {
        return refused;
    }
    tftpResultCallback = Kt::Shell::ResultCallback(
        Kt::asyncCall(eventLoop),
        [this](XCode code, String out) { onFileUploadTftpResult(code, out); });
    tftpOutputCallback = Kt::Shell::OutputCallback(
        Kt::asyncCall(eventLoop), [this](String text) { onFileUploadTftpOutput(text); });
    tftpFuture = std::make_unique<Kt::Future<String>>();
    // The local file is the upload job's own: nothing to clean up when the start fails.
    return Kt::Shell::invoke(commandLine, tftpResultCallback, tftpOutputCallback,
                             tftpOutputCallback, *tftpFuture);
}

void ProvisioningJob::onFileDownloadTftpResult(XCode result, String /*output*/) {
    if (result.isErr()) {
        removeOutFile();
    }
    onCurrentDownloadLocationFinished(result);
}

void ProvisioningJob::onFileUploadTftpResult(XCode result, String /*output*/) {
    onCurrentUploadLocationFinished(result);
}

void ProvisioningJob::onFileDownloadTftpOutput(String text) {
    ProvLog::progressPrefixed("[TFTP] ", text);
}

void ProvisioningJob::onFileUploadTftpOutput(String text) {
    onFileDownloadTftpOutput(text);
}
