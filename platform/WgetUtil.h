#pragma once

#include <vector>

#include "String.h"
#include "XCode.h"

namespace WgetUtil {

// Fills `args` with GNU wget's arguments (without the program name) for one download of `url`
// into `outFile`. `https1..3` are, in order, the CA certificate, the client certificate and the
// client's private key (empty: not used). `quiet`: no progress output; `followRedirects`: let
// wget follow redirects itself. `extra`: one more argument when not empty.
// The password never appears in `args`: it goes to a file that only the owner can read, named
// in the arguments and removed by RELEASE_SECRETS (see docs/WGET.md).
[[nodiscard]] XCode buildArgs(bool quiet, const String& url, const String& user,
                              const String& password, const String& outFile, const String& https1,
                              const String& https2, const String& https3, bool followRedirects,
                              std::vector<String>& args, const String& extra);

}  // namespace WgetUtil
