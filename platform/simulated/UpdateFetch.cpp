#include <vector>

#include "platform/Shell.h"
#include "platform/UriUtil.h"
#include "platform/WgetUtil.h"
#include "platform/simulated/UpdateSteps.h"

namespace UpdateController {

namespace {

// What wget says when --max-redirect=0 stopped it at a redirect.
constexpr const char* REDIRECT_REFUSED = "redirections exceeded";

// The request's user and password go to the origin of the location it names (the manifest's)
// and to no other: not to an image that the manifest names elsewhere.
bool mayCarryCredentials(const Request& request, const String& uri) {
    if (request.user.isEmpty() && request.password.isEmpty()) {
        return false;
    }
    String origin;
    String allowed;
    return UriUtil::originOf(uri, origin) && UriUtil::originOf(request.files.front(), allowed) &&
           origin == allowed;
}

// tftp's device form; false when a word cannot be passed.
bool tftpCommand(const String& localFile, const String& path, const String& host, unsigned int port,
                 String& command) {
    std::vector<String> words = {"tftp", "-g", "-l", localFile, "-r", path, host};
    if (port != 0) {
        words.push_back(String::format("%u", port));
    }
    return Kt::Shell::JOIN_WORDS(words, command).isSuccess();
}

// wget with the HTTPS settings and, where they may go, the credentials. A fetch with credentials
// follows no redirect: wget would answer the next server's challenge with them. Without
// credentials there is nothing to carry.
XCode wgetCommand(const Request& request, const String& uri, bool https, bool withCredentials,
                  const String& localFile, std::vector<String>& wgetArgs, String& command) {
    XCode result =
        WgetUtil::buildArgs(false, uri, withCredentials ? request.user : String(),
                            withCredentials ? request.password : String(), localFile,
                            https ? request.auth1 : String(), https ? request.auth2 : String(),
                            https ? request.auth3 : String(), !withCredentials, wgetArgs, "");
    if (result.isErr()) {
        return result.setStringF("CANNOT FETCH %s: %s", uri.c_str(), result.getString().c_str());
    }
    std::vector<String> words = wgetArgs;
    words.insert(words.begin(), "wget");
    const bool valid = Kt::Shell::JOIN_WORDS(words, command).isSuccess();
    return valid ? result
                 : XCode::FAILURE_F("CANNOT FETCH %s: INVALID CHARACTER IN LOCATION", uri.c_str());
}

XCode runFetch(const String& command, const String& uri, bool withCredentials) {
    String output;
    XCode result = Kt::Shell::execute(command, &output);
    if (result.isErr() && withCredentials && output.indexOf(REDIRECT_REFUSED) >= 0) {
        result.setStringF("CANNOT FETCH %s: REDIRECT NOT FOLLOWED WITH CREDENTIALS", uri.c_str());
    } else if (result.isErr()) {
        result.setStringF("CANNOT FETCH %s: %s", uri.c_str(),
                          describeToolFailure(result, output).c_str());
    }
    return result;
}

}  // namespace

XCode FETCH(StepContext& context, const Request& request, const String& uri,
            const String& localFile) {
    XCode result = context.checkStop();
    if (result.isErr()) {
        return result;
    }
    context.progress(String::format("fetching %s", uri.c_str()));
    String scheme, host, path, error;
    unsigned int port = 0;
    result = UriUtil::splitUri(uri, scheme, host, port, path, error);
    if (result.isErr()) {
        return result.setStringF("CANNOT FETCH %s: %s", uri.c_str(), error.c_str());
    }
    scheme.toLowerCase();
    String command;
    if (scheme == "tftp") {
        if (!tftpCommand(localFile, path, host, port, command)) {
            return XCode::FAILURE_F("CANNOT FETCH %s: INVALID CHARACTER IN LOCATION", uri.c_str());
        }
        return runFetch(command, uri, false);
    }
    if (scheme != "http" && scheme != "https") {
        String upper = scheme;
        return XCode::FAILURE_F("CANNOT FETCH %s: PROTOCOL %s NOT SUPPORTED", uri.c_str(),
                                upper.toUpperCase().c_str());
    }
    const bool withCredentials = mayCarryCredentials(request, uri);
    std::vector<String> wgetArgs;
    result =
        wgetCommand(request, uri, scheme == "https", withCredentials, localFile, wgetArgs, command);
    if (result.isSuccess()) {
        result = runFetch(command, uri, withCredentials);
    }
    WgetUtil::RELEASE_SECRETS(wgetArgs);
    return result;
}

}  // namespace UpdateController
