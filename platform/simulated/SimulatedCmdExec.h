#pragma once

#include <vector>

#include "platform/Cli.h"
#include "platform/String.h"

// The simulated device as its hosts (provctl) drive it: exported.
#pragma GCC visibility push(default)

// The simulated device keeps its configurations in the device directory's config/; its running
// system appends what it executed to the device directory's running-config.
namespace CmdExec {

// The commands that the simulated system refuses, to make an execution fail on purpose: glob
// patterns (fnmatch, no flags) matched against a line without its indentation and trailing
// blanks, sub-commands included. Empty until set; the host sets them from the device file, tests
// reset them with an empty list. Thread-safe; an execution uses the list of its start.
void SET_REJECTED_COMMANDS(std::vector<String> patterns);

}  // namespace CmdExec

#pragma GCC visibility pop
