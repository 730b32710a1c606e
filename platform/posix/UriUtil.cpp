#include "platform/UriUtil.h"

namespace UriUtil {

const char* const MASKED_LOGIN = "***";

namespace {

const char* const SCHEME_SEPARATOR = "://";
constexpr int SCHEME_SEPARATOR_LENGTH = 3;

// Where the parts of a location lie in its text: [authorityStart, loginEnd) is the login (when
// loginEnd >= 0, the '@' at loginEnd), [hostStart, hostEnd) host and port, the path from hostEnd.
struct Layout {
    int separator = -1;
    int authorityStart = 0;
    int loginEnd = -1;
    int hostStart = 0;
    int hostEnd = 0;
};

// False when `text` has no "://". The authority runs to the first '/', so that a password's raw
// '#' or '?' is found inside the login and masked, never taken for the start of the path.
bool locate(const String& text, Layout& layout) {
    layout.separator = text.indexOf(SCHEME_SEPARATOR);
    if (layout.separator < 0) {
        return false;
    }
    layout.authorityStart = layout.separator + SCHEME_SEPARATOR_LENGTH;
    int slash = text.indexOf('/', layout.authorityStart);
    int authorityEnd = slash < 0 ? text.length() : slash;
    layout.loginEnd = -1;
    for (int i = authorityEnd - 1; i >= layout.authorityStart; --i) {
        if (text.at(i) == '@') {
            layout.loginEnd = i;
            break;
        }
    }
    layout.hostStart = layout.loginEnd < 0 ? layout.authorityStart : layout.loginEnd + 1;
    layout.hostEnd = authorityEnd;
    for (int i = layout.hostStart; i < authorityEnd; ++i) {
        if (text.at(i) == '?' || text.at(i) == '#') {
            layout.hostEnd = i;
            break;
        }
    }
    return true;
}

// The location shows with its login masked: the text goes into logs and job results.
XCode refuseUri(String& error, const String& uri, const char* reason) {
    error = String::format("Invalid URI '%s': %s", maskLogin(uri).c_str(), reason);
    return XCode::FAILURE(error);
}

// A host reaches tftp and wget as an argument of its own: it must not be readable as an option,
// nor break the argument or a log line apart. Returns why it is refused, empty when usable.
const char* hostFault(const String& host) {
    if (host.isEmpty()) {
        return "empty host";
    }
    if (host.at(0) == '-') {
        return "host starts with '-'";
    }
    for (int i = 0; i < host.length(); ++i) {
        unsigned char c = static_cast<unsigned char>(host.at(i));
        if (c <= 0x20 || c == 0x7F) {
            return "blank or control character in host";
        }
    }
    return "";
}

int hexValue(char c) {
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

// Undoes "%XX"; false for a '%' without two hex digits.
bool percentDecode(const String& encoded, String& decoded) {
    String result;
    for (int i = 0; i < encoded.length(); ++i) {
        char c = encoded.at(i);
        if (c != '%') {
            result += c;
            continue;
        }
        // at() gives '\0' past the end, which is no hex digit.
        int high = hexValue(encoded.at(i + 1));
        int low = hexValue(encoded.at(i + 2));
        if (high < 0 || low < 0) {
            return false;
        }
        result += static_cast<char>(high * 16 + low);
        i += 2;
    }
    decoded = result;
    return true;
}

// The login as written (between "://" and '@'), decoded; the reason when it is refused.
const char* loginFault(const String& written, Login& login) {
    if (written.indexOf('?') >= 0 || written.indexOf('#') >= 0) {
        return "'?' or '#' before the '@' of a login (percent-encode it)";
    }
    String user = written;
    String password;
    int colon = written.indexOf(':');
    if (colon >= 0) {
        user = written.substring(0, colon);
        password = written.substring(colon + 1);
    }
    if (!percentDecode(user, login.user) || !percentDecode(password, login.password)) {
        return "invalid percent-encoding in the login";
    }
    login.given = true;
    return "";
}

// Host and port of "host[:port]" or "[v6][:port]"; why they are refused, empty when usable.
String hostPortFault(const String& hostPort, String& host, unsigned int& port) {
    bool hasPort = false;
    String portText;
    if (hostPort.startsWith("[")) {
        int close = hostPort.indexOf(']');
        if (close < 0) {
            return "unterminated IPv6 address";
        }
        host = close == 1 ? String() : hostPort.substring(0, close + 1);
        String rest = hostPort.substring(close + 1);
        if (!rest.isEmpty()) {
            if (rest.at(0) != ':') {
                return "unexpected text after IPv6 address";
            }
            hasPort = true;
            portText = rest.substring(1);
        }
    } else {
        int colon = hostPort.indexOf(':');
        host = colon < 0 ? hostPort : hostPort.substring(0, colon);
        if (colon >= 0) {
            hasPort = true;
            portText = hostPort.substring(colon + 1);
        }
    }
    const char* fault = hostFault(host);
    if (*fault != '\0') {
        return fault;
    }
    port = 0;
    if (hasPort) {
        if (!portText.isNumeric() || portText.toUnsigned() < 1 || portText.toUnsigned() > 65535) {
            return String::format("invalid port '%s'", portText.c_str());
        }
        port = portText.toUnsigned();
    }
    return String();
}

}  // namespace

XCode splitUri(const String& uri, Parts& parts, String& error) {
    Layout layout;
    if (!locate(uri, layout)) {
        return refuseUri(error, uri, "missing '://'");
    }
    if (layout.separator == 0) {
        return refuseUri(error, uri, "empty scheme");
    }
    Parts split;
    split.scheme = uri.substring(0, layout.separator);
    if (layout.loginEnd >= 0) {
        const char* fault =
            loginFault(uri.substring(layout.authorityStart, layout.loginEnd), split.login);
        if (*fault != '\0') {
            return refuseUri(error, uri, fault);
        }
    }
    String fault =
        hostPortFault(uri.substring(layout.hostStart, layout.hostEnd), split.host, split.port);
    if (!fault.isEmpty()) {
        return refuseUri(error, uri, fault.c_str());
    }
    split.path = uri.substring(layout.hostEnd);
    parts = split;
    return XCode::SUCCESS;
}

XCode splitUri(const String& uri, String& scheme, String& host, unsigned int& port, String& path,
               String& error) {
    Parts parts;
    XCode result = splitUri(uri, parts, error);
    if (result.isSuccess() && parts.login.given) {
        return refuseUri(error, uri, "user or password not accepted here");
    }
    if (result.isSuccess()) {
        scheme = parts.scheme;
        host = parts.host;
        port = parts.port;
        path = parts.path;
    }
    return result;
}

String buildUri(const String& protocol, const String& host, unsigned int port, const String& path) {
    String uri = protocol + SCHEME_SEPARATOR;
    // A bare IPv6 address gets its brackets, so that its colons cannot be taken for a port.
    if (host.indexOf(':') >= 0 && !host.startsWith("[")) {
        uri += "[" + host + "]";
    } else {
        uri += host;
    }
    if (port != 0) {
        uri.concatf(":%u", port);
    }
    int first = 0;
    while (first < path.length() && path.at(first) == '/') {
        ++first;
    }
    uri += "/";
    uri += path.substring(first);
    return uri;
}

String pathOnly(const String& path) {
    for (int i = 0; i < path.length(); ++i) {
        if (path.at(i) == '?' || path.at(i) == '#') {
            return path.substring(0, i);
        }
    }
    return path;
}

String withoutFragment(const String& path) {
    int hash = path.indexOf('#');
    return hash < 0 ? path : path.substring(0, hash);
}

String maskLogin(const String& text) {
    Layout layout;
    if (!locate(text, layout) || layout.loginEnd < 0) {
        return text;
    }
    return text.substring(0, layout.authorityStart) + MASKED_LOGIN +
           text.substring(layout.loginEnd);
}

String withoutLogin(const String& uri) {
    Layout layout;
    if (!locate(uri, layout) || layout.loginEnd < 0) {
        return uri;
    }
    return uri.substring(0, layout.authorityStart) + uri.substring(layout.hostStart);
}

String markLogin(const String& uri) {
    Layout layout;
    if (!locate(uri, layout)) {
        return uri;
    }
    return uri.substring(0, layout.authorityStart) + MASKED_LOGIN + "@" +
           uri.substring(layout.hostStart);
}

String buildOrigin(const String& scheme, const String& host, unsigned int port) {
    String lowerScheme = scheme;
    lowerScheme.toLowerCase();
    String lowerHost = host;
    lowerHost.toLowerCase();
    if (port == 0) {
        port = lowerScheme == "https" ? 443U : lowerScheme == "tftp" ? 69U : 80U;
    }
    String uri = buildUri(lowerScheme, lowerHost, port, String());
    return uri.substring(0, uri.length() - 1);  // without the path's "/"
}

bool originOf(const String& uri, String& origin) {
    Parts parts;
    String error;
    if (splitUri(uri, parts, error).isErr()) {
        origin = String();
        return false;
    }
    origin = buildOrigin(parts.scheme, parts.host, parts.port);
    return true;
}

}  // namespace UriUtil
