// libFuzzer target for UriUtil::splitUri and UriUtil::buildUri.
//
// Input: the location text, as the walk hands it to splitUri after the expressions are resolved.
// Checked: a refusal fills `error`, returns the generic failure with that text and touches no
// other output; an accepted location gives a non-empty scheme, a host usable as one argument of
// tftp or wget (not starting with '-', no blank or control character), a port up to 65535 and a
// path that is empty or starts with '/', and the parts are the location's own text. A location
// rebuilt from the parts splits again to the same parts (buildUri puts exactly one '/' between
// host and path), and rebuilding that gives the same text again.

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

struct Parts {
    String scheme{"untouched-scheme"};
    String host{"untouched-host"};
    unsigned int port = 4242;
    String path{"untouched-path"};
    String error{"untouched-error"};
};

XCode split(const String& uri, Parts& parts) {
    return UriUtil::splitUri(uri, parts.scheme, parts.host, parts.port, parts.path, parts.error);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const String uri(text);
    Parts parts;
    XCode result = split(uri, parts);
    if (result.isErr()) {
        check(result.getValue() == XCode::GENERIC_FAILURE);
        check(!parts.error.isEmpty());
        check(result.getString() == parts.error);
        Parts untouched;
        check(parts.scheme == untouched.scheme && parts.host == untouched.host &&
              parts.port == untouched.port && parts.path == untouched.path);
        return 0;
    }
    check(!result.hasMessage());
    check(parts.error == "untouched-error");

    const std::string scheme = parts.scheme.str();
    const std::string host = parts.host.str();
    const std::string path = parts.path.str();
    check(!scheme.empty());
    check(isUsableHost(host));
    check(parts.port <= 65535);
    check(path.empty() || path[0] == '/');
    // The parts are the text's own: scheme "://" host [":" port] path.
    const std::string authorityStart = scheme + "://" + host;
    check(text.compare(0, authorityStart.size(), authorityStart) == 0);
    check(text.size() >= authorityStart.size() + path.size());
    check(text.compare(text.size() - path.size(), path.size(), path) == 0);
    const std::string between =
        text.substr(authorityStart.size(), text.size() - path.size() - authorityStart.size());
    check(parts.port == 0 ? between.empty() : between.size() > 1 && between[0] == ':');
    check(between.find('/') == std::string::npos);

    const String rebuilt = UriUtil::buildUri(parts.scheme, parts.host, parts.port, parts.path);
    Parts again;
    check(split(rebuilt, again).isSuccess());
    check(again.scheme == parts.scheme);
    check(again.host == parts.host);
    check(again.port == parts.port);
    check(again.path.str() == "/" + withoutLeadingSlashes(path));
    check(UriUtil::buildUri(again.scheme, again.host, again.port, again.path) == rebuilt);
    return 0;
}
