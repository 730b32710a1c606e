#pragma once

#include <vector>

#include "platform/String.h"

namespace Provctl {

// What the command line asks for; filled by PARSE_COMMAND_LINE.
struct Options {
    String command;  // "resolve", "demo" or one of JOB_KINDS()
    String device;   // empty: DEFAULT_DEVICE_DIRECTORY()
    String name;     // empty: the job kind
    bool compare = false;
    String reload = "none";
    std::vector<String> sets;         // "NAME=VALUE", in order
    std::vector<String> credentials;  // "REALM:USER:PASSWORD", in order
    String credentialsFile;           // empty: none; "-": standard input
    bool httpsAuthGiven = false;
    String httpsAuth;  // "CA,CERT,KEY"
    String source = "cdr";
    String dialplan = "dialplan";
    bool json = false;
    int level = 6;  // demo: 3
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

// The man-style page of "provctl" (the overview) or of one subcommand; empty for an unknown one.
String MANUAL_PAGE(const String& command);

// The version printed by --version.
const char* VERSION();

}  // namespace Provctl
