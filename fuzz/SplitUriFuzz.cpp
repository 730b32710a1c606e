// libFuzzer target for UriUtil::splitUri (both forms), UriUtil::buildUri, the login masking and
// the path pieces.
//
// Input: the location text, as the walk hands it to splitUri after the expressions are resolved.
// A model below, written on std::string from the documented rule, finds the login: the authority
// runs from "://" to the first '/', its last '@' ends the login, the first ':' of the login
// separates user and password, each percent-decoded.
// Checked for every text: maskLogin equals the model's mask (the login, and only it, replaced by
// "***") and is idempotent; withoutLogin drops exactly the login and its '@'.
// Checked on refusal: the generic failure with the text put in `error`, which shows the location
// masked; no other output changes.
// Checked on acceptance: a non-empty scheme, a host usable as one argument of tftp or wget (not
// starting with '-', no blank or control character), a port up to 65535, a path that is empty or
// starts with '/', '?' or '#'; the login is the model's; the parts are the location's own text
// (scheme "://" [login "@"] host [":" port] path). pathOnly and withoutFragment cut the path at
// the model's points. A location rebuilt from the parts splits again to the same parts without a
// login (buildUri puts exactly one '/' between host and path), and rebuilding that gives the same
// text. The form without a login refuses exactly the locations that have one and otherwise
// agrees; originOf agrees with buildOrigin of the parts.

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>

#include "platform/UriUtil.h"

namespace {

void check(bool condition) {
    if (!condition) {
        std::abort();
    }
}

bool isUsableHost(const std::string& host) {
    if (host.empty() || host[0] == '-') {
        return false;
    }
    for (char c : host) {
        unsigned char byte = static_cast<unsigned char>(c);
        if (byte <= 0x20 || byte == 0x7F) {
            return false;
        }
    }
    return true;
}

std::string withoutLeadingSlashes(const std::string& path) {
    std::size_t first = path.find_first_not_of('/');
    return first == std::string::npos ? std::string() : path.substr(first);
}

// --- The model ------------------------------------------------------------------------------

struct ModelLogin {
    bool found = false;     // an '@' in the authority
    std::size_t start = 0;  // where the login starts (right after "://")
    std::size_t at = 0;     // its '@'
    std::string raw;        // the login as written
};

ModelLogin findLogin(const std::string& text) {
    ModelLogin login;
    std::size_t separator = text.find("://");
    if (separator == std::string::npos) {
        return login;
    }
    login.start = separator + 3;
    std::size_t slash = text.find('/', login.start);
    std::size_t end = slash == std::string::npos ? text.size() : slash;
    for (std::size_t i = end; i > login.start; --i) {
        if (text[i - 1] == '@') {
            login.found = true;
            login.at = i - 1;
            login.raw = text.substr(login.start, login.at - login.start);
            break;
        }
    }
    return login;
}

int hexDigit(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

bool decode(const std::string& text, std::string& decoded) {
    decoded.clear();
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '%') {
            decoded += text[i];
            continue;
        }
        if (i + 2 >= text.size()) {
            return false;
        }
        int high = hexDigit(text[i + 1]);
        int low = hexDigit(text[i + 2]);
        if (high < 0 || low < 0) {
            return false;
        }
        decoded += static_cast<char>(high * 16 + low);
        i += 2;
    }
    return true;
}

std::string modelMask(const std::string& text) {
    ModelLogin login = findLogin(text);
    return login.found ? text.substr(0, login.start) + "***" + text.substr(login.at) : text;
}

std::string modelWithoutLogin(const std::string& text) {
    ModelLogin login = findLogin(text);
    return login.found ? text.substr(0, login.start) + text.substr(login.at + 1) : text;
}

// --- The code -------------------------------------------------------------------------------

struct Parts {
    String scheme{"untouched-scheme"};
    String host{"untouched-host"};
    unsigned int port = 4242;
    String path{"untouched-path"};
    String error{"untouched-error"};
};

XCode splitWithoutLogin(const String& uri, Parts& parts) {
    return UriUtil::splitUri(uri, parts.scheme, parts.host, parts.port, parts.path, parts.error);
}

void checkMasking(const std::string& text) {
    const std::string masked = UriUtil::maskLogin(String(text)).str();
    check(masked == modelMask(text));
    check(UriUtil::maskLogin(String(masked)).str() == masked);
    check(UriUtil::withoutLogin(String(text)).str() == modelWithoutLogin(text));
}

void checkRefusal(const std::string& text, const XCode& result, const UriUtil::Parts& parts,
                  const String& error) {
    check(result.getValue() == XCode::GENERIC_FAILURE);
    check(!error.isEmpty());
    check(result.getString() == error);
    // Formatted with "%s": a NUL ends the text shown.
    const std::string masked = modelMask(text);
    const std::string shown = "Invalid URI '" + masked.substr(0, masked.find('\0')) + "': ";
    check(error.str().compare(0, shown.size(), shown) == 0);
    check(parts.scheme == "untouched-scheme" && parts.host == "untouched-host" &&
          parts.port == 4242 && parts.path == "untouched-path" && !parts.login.given);
}

void checkLogin(const std::string& text, const UriUtil::Login& login) {
    ModelLogin model = findLogin(text);
    check(login.given == model.found);
    if (!model.found) {
        check(login.user.isEmpty() && login.password.isEmpty());
        return;
    }
    check(model.raw.find_first_of("?#") == std::string::npos);
    std::size_t colon = model.raw.find(':');
    std::string user;
    std::string password;
    check(decode(model.raw.substr(0, colon), user));
    check(
        decode(colon == std::string::npos ? std::string() : model.raw.substr(colon + 1), password));
    check(login.user.str() == user);
    check(login.password.str() == password);
}

// scheme "://" [login "@"] host [":" port] path, all of it the text's own.
void checkOwnText(const std::string& text, const UriUtil::Parts& parts) {
    const std::string scheme = parts.scheme.str();
    const std::string host = parts.host.str();
    const std::string path = parts.path.str();
    ModelLogin login = findLogin(text);
    const std::size_t hostStart = login.found ? login.at + 1 : scheme.size() + 3;
    check(text.compare(0, scheme.size() + 3, scheme + "://") == 0);
    check(text.compare(hostStart, host.size(), host) == 0);
    check(text.size() >= hostStart + host.size() + path.size());
    check(text.compare(text.size() - path.size(), path.size(), path) == 0);
    const std::size_t between = text.size() - path.size() - hostStart - host.size();
    const std::string portText = text.substr(hostStart + host.size(), between);
    check(parts.port == 0 ? portText.empty() : portText.size() > 1 && portText[0] == ':');
    check(portText.find_first_of("/?#@") == std::string::npos);
}

void checkPathPieces(const std::string& path) {
    const std::string only = UriUtil::pathOnly(String(path)).str();
    const std::string request = UriUtil::withoutFragment(String(path)).str();
    check(only == path.substr(0, path.find_first_of("?#")));
    check(request == path.substr(0, path.find('#')));
    check(request.compare(0, only.size(), only) == 0);
}

void checkRebuilt(const UriUtil::Parts& parts) {
    const String rebuilt = UriUtil::buildUri(parts.scheme, parts.host, parts.port, parts.path);
    UriUtil::Parts again;
    String error;
    check(UriUtil::splitUri(rebuilt, again, error).isSuccess());
    check(!again.login.given);
    check(again.scheme == parts.scheme);
    check(again.host == parts.host);
    check(again.port == parts.port);
    check(again.path.str() == "/" + withoutLeadingSlashes(parts.path.str()));
    check(UriUtil::buildUri(again.scheme, again.host, again.port, again.path) == rebuilt);
}

void checkOtherForms(const String& uri, const XCode& result, const UriUtil::Parts& parts) {
    Parts plain;
    XCode plainResult = splitWithoutLogin(uri, plain);
    check(plainResult.isErr() == (result.isErr() || parts.login.given));
    if (plainResult.isSuccess()) {
        check(plain.scheme == parts.scheme && plain.host == parts.host &&
              plain.port == parts.port && plain.path == parts.path);
    } else {
        check(plain.scheme == "untouched-scheme" && plain.path == "untouched-path");
    }
    String origin;
    check(UriUtil::originOf(uri, origin) == result.isSuccess());
    check(origin == (result.isSuccess() ? UriUtil::buildOrigin(parts.scheme, parts.host, parts.port)
                                        : String()));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const String uri(text);
    checkMasking(text);

    UriUtil::Parts parts;
    parts.scheme = "untouched-scheme";
    parts.host = "untouched-host";
    parts.port = 4242;
    parts.path = "untouched-path";
    String error = "untouched-error";
    XCode result = UriUtil::splitUri(uri, parts, error);
    checkOtherForms(uri, result, parts);
    if (result.isErr()) {
        checkRefusal(text, result, parts, error);
        return 0;
    }
    check(!result.hasMessage());
    check(error == "untouched-error");
    check(!parts.scheme.isEmpty());
    check(isUsableHost(parts.host.str()));
    check(parts.port <= 65535);
    const std::string path = parts.path.str();
    check(path.empty() || path[0] == '/' || path[0] == '?' || path[0] == '#');
    checkLogin(text, parts.login);
    checkOwnText(text, parts);
    checkPathPieces(path);
    checkRebuilt(parts);
    return 0;
}
