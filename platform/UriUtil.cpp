#include "UriUtil.h"

namespace UriUtil {

namespace {

XCode refuse(String& error, const String& text) {
    error = text;
    XCode code(XCode::GENERIC_FAILURE);
    return code.setString(text);
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

}  // namespace

XCode splitUri(const String& uri, String& scheme, String& host, unsigned int& port, String& path,
               String& error) {
    int separator = uri.indexOf("://");
    if (separator < 0) {
        return refuse(error, String::format("Invalid URI '%s': missing '://'", uri.c_str()));
    }
    if (separator == 0) {
        return refuse(error, String::format("Invalid URI '%s': empty scheme", uri.c_str()));
    }
    const int authorityStart = separator + 3;
    int pathStart = uri.indexOf('/', authorityStart);
    String authority =
        pathStart < 0 ? uri.substring(authorityStart) : uri.substring(authorityStart, pathStart);

    String hostPart;
    String portPart;
    bool hasPort = false;
    if (authority.startsWith("[")) {
        int close = authority.indexOf(']');
        if (close < 0) {
            return refuse(
                error, String::format("Invalid URI '%s': unterminated IPv6 address", uri.c_str()));
        }
        hostPart = authority.substring(0, close + 1);
        String rest = authority.substring(close + 1);
        if (!rest.isEmpty()) {
            if (rest.at(0) != ':') {
                return refuse(error, String::format("Invalid URI '%s': unexpected text after "
                                                    "IPv6 address",
                                                    uri.c_str()));
            }
            hasPort = true;
            portPart = rest.substring(1);
        }
        if (close == 1) {
            hostPart = String();
        }
    } else {
        int colon = authority.indexOf(':');
        hostPart = colon < 0 ? authority : authority.substring(0, colon);
        if (colon >= 0) {
            hasPort = true;
            portPart = authority.substring(colon + 1);
        }
    }

    const char* fault = hostFault(hostPart);
    if (*fault != '\0') {
        return refuse(error, String::format("Invalid URI '%s': %s", uri.c_str(), fault));
    }
    unsigned int portNumber = 0;
    if (hasPort) {
        if (!portPart.isNumeric() || portPart.toUnsigned() < 1 || portPart.toUnsigned() > 65535) {
            return refuse(error, String::format("Invalid URI '%s': invalid port '%s'", uri.c_str(),
                                                portPart.c_str()));
        }
        portNumber = portPart.toUnsigned();
    }

    scheme = uri.substring(0, separator);
    host = hostPart;
    port = portNumber;
    path = pathStart < 0 ? String() : uri.substring(pathStart);
    return XCode::SUCCESS;
}

String buildUri(const String& protocol, const String& host, unsigned int port, const String& path) {
    String uri = protocol + "://";
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
    String scheme, host, path, error;
    unsigned int port = 0;
    if (splitUri(uri, scheme, host, port, path, error).isErr()) {
        origin = String();
        return false;
    }
    origin = buildOrigin(scheme, host, port);
    return true;
}

}  // namespace UriUtil
