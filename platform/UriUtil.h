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

}  // namespace UriUtil
