#pragma once

#include <vector>

#include "platform/String.h"
#include "platform/XCode.h"

// The device contract: every declaration below is part of the interface.
#pragma GCC visibility push(default)

namespace WgetUtil {

// Fills `args` with GNU wget's arguments (without the program name) for one download of `url`
// into `outFile`. `https1..3` are, in order, the CA certificate, the client certificate and the
// client's private key (empty: not used). `quiet`: no progress output; `followRedirects`: let
// wget follow redirects itself. `extra`: one more argument when not empty.
// The password never appears in `args`: it goes to a file that only the owner can read, named
// in the arguments and removed by RELEASE_SECRETS (see docs/WGET.md).
// `outFile`, the three HTTPS files and the private files stay device paths in `args` (as logged);
// the shell maps them to host paths when wget starts (Shell.h).
// Errors (args left empty, nothing left behind):
//   "INVALID CHARACTER IN WGET ARGUMENT"   an argument would hold '"', '\n', '\r' or NUL (the
//                                          shell's word splitter cannot carry a '"');
//   "INVALID CHARACTER IN WGET CREDENTIALS" the user or password holds '\n', '\r' or NUL;
//   "WHITE SPACE AROUND WGET CREDENTIALS"  the user or password starts or ends with white space
//                                          (wget's configuration syntax cannot carry it);
//   "NO OUTPUT FILE FOR WGET"              `outFile` is empty or "-" (standard output);
//   a system error when the private file cannot be written; a mapping error for a device path
//   (a ".." out of flash, an unsafe work directory: Device::MAP_PATH_CHECKED).
[[nodiscard]] XCode buildArgs(bool quiet, const String& url, const String& user,
                              const String& password, const String& outFile, const String& https1,
                              const String& https2, const String& https3, bool followRedirects,
                              std::vector<String>& args, const String& extra);

// Success when wget's private configuration can carry `user` and `password` unaltered; else the
// error buildArgs gives for them ("INVALID CHARACTER IN WGET CREDENTIALS", "WHITE SPACE AROUND
// WGET CREDENTIALS"). For callers that take credentials long before wget runs.
[[nodiscard]] XCode checkCredentials(const String& user, const String& password);

// Removes the private files that buildArgs created for `args` (the credentials file and the
// empty CA directory, and their directory). Call it once wget has ended or was abandoned.
// Touches nothing that buildArgs did not create; safe to call more than once and from any
// thread.
void RELEASE_SECRETS(const std::vector<String>& args);

// The directory under which buildArgs creates its private directories, one per call.
extern const char* const SECRETS_DIRECTORY_PREFIX;

}  // namespace WgetUtil

#pragma GCC visibility pop
