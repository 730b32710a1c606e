#pragma once

#include <string>
#include <vector>

#include "host/CommandLine.h"
#include "platform/String.h"

namespace CLI {
class App;
class Option;
}  // namespace CLI

// The checks of provctl's command line that CLI11 does not make, or makes with words a user does
// not expect: each prints its message ("provctl: unknown option '-x' ...") with a hint to the
// right help page and returns false on a usage error.
namespace Provctl {

// "provctl: <message>" and "Try 'provctl COMMAND --help' ..." on standard error; without a
// command the hint names the overview.
void PRINT_USAGE_ERROR(const String& message, const String& command);

// The command word and every option word (up to "--") of `words` (argv without the program):
// an unknown command or option is named, with the nearest valid word, and an option that only
// other job kinds take says so.
bool CHECK_COMMAND_WORDS(CLI::App& app, const std::vector<std::string>& words);

// A "-v" that no level follows becomes "--verbose", so that the next word stays a location.
void VERBOSE_WITHOUT_LEVEL(std::vector<std::string>& words);

// -q, -v, -v LEVEL (within MIN_LEVEL..MAX_LEVEL), not -q with -v.
bool CHECK_VERBOSITY(bool quiet, bool verbose, CLI::App& command, int level, Options& options);

// --device given as the empty string.
bool CHECK_DEVICE_OPTION(bool given, const Options& options);

// --reload is one of RELOAD_WORDS().
bool CHECK_RELOAD(const Options& options);

// --name is a file name of its folder: the work file is "/tmp/provisioning/NAME", a script's
// fingerprint "/flash/provisioning/NAME".
bool CHECK_NAME(bool given, const Options& options);

// --https-auth CA,CERT,KEY split into the three files, or the three file options.
bool TAKE_HTTPS_OPTIONS(CLI::App& command, bool httpsAuthGiven, const std::string& httpsAuth,
                        Options& options);

}  // namespace Provctl
