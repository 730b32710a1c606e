#pragma once

#include <vector>

#include "platform/String.h"

namespace Provctl {

// How much a job prints: only its result (-q); what it tried, the transfer-log lines and the
// reason of a failure (the default); or the engine's whole log up to a level (-v [LEVEL]).
enum class Verbosity { Quiet, Normal, Verbose };

// The monitor levels -v accepts: the syslog severities that the engine's levels follow (3 a
// job's failure, 6 its progress).
constexpr int MIN_LEVEL = 0;
constexpr int MAX_LEVEL = 7;
constexpr int FULL_LEVEL = 6;

// What the command line asks for; filled by PARSE_COMMAND_LINE.
struct Options {
    String command;  // "resolve", "demo" or one of JOB_KIND_TABLE()
    String device;   // empty: DEFAULT_DEVICE_DIRECTORY()
    String name;     // empty: the job kind
    bool compare = false;
    String reload = "none";           // one of RELOAD_WORDS()
    std::vector<String> sets;         // "NAME=VALUE", in order
    std::vector<String> credentials;  // "REALM:USER:PASSWORD", in order
    String credentialsFile;           // empty: none; "-": standard input
    // --ca-certificate, --certificate, --private-key (or the older --https-auth CA,CERT,KEY)
    bool httpsAuthGiven = false;
    String caCertificate;
    String certificate;
    String privateKey;
    String source = "cdr";
    String dialplan = "dialplan";
    bool json = false;
    Verbosity verbosity = Verbosity::Normal;
    int level = FULL_LEVEL;  // Verbose: the highest level written; demo: 3 by default
    std::vector<String> locations;
    String text;  // the text of resolve
};

enum class ParseOutcome {
    Run,         // options filled: run the command
    Done,        // help or version printed on stdout: exit 0
    UsageError,  // message printed on stderr: exit 2
};

ParseOutcome PARSE_COMMAND_LINE(int argc, char** argv, Options& options);

// The job subcommands, in the order the help lists them.
const std::vector<String>& JOB_KINDS();

// The word of `candidates` nearest to `word` (a typo or two away, or a start of it); empty when
// none is near.
String CLOSEST_WORD(const String& word, const std::vector<String>& candidates);

// The man-style page of "provctl" (the overview) or of one subcommand; empty for an unknown one.
String MANUAL_PAGE(const String& command);

// The version printed by --version.
const char* VERSION();

}  // namespace Provctl
