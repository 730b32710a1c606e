#pragma once

#include "String.h"
#include "XCode.h"

namespace UriUtil {

// Splits scheme://host[:port][/path]. The host may be an IPv6 literal in brackets (kept with its
// brackets). A missing port gives 0. The path keeps its leading slash ("" when absent). Refused,
// with a readable text in `error`: no "://", an empty scheme or host, a host that starts with '-'
// or holds blanks or control characters, a port that is not a number from 1 to 65535.
[[nodiscard]] XCode splitUri(const String& uri, String& scheme, String& host, unsigned int& port,
                             String& path, String& error);
// scheme://host[:port]/path with exactly one slash between host and path; port 0 means none.
String buildUri(const String& protocol, const String& host, unsigned int port, const String& path);
// The origin of a location: "scheme://host:port" with scheme and host in lower case and the
// scheme's default port written out (port 0 means the default: 80 for http, 443 for https, 69
// for tftp), so that http://Host/ and http://host:80/ have the same origin. Credentials given
// for one origin are sent to no other.
String buildOrigin(const String& scheme, const String& host, unsigned int port);
// The origin of `uri`; false (origin left empty) when it cannot be split.
bool originOf(const String& uri, String& origin);

}  // namespace UriUtil
