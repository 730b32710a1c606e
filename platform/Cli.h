#pragma once

#include <vector>

#include "platform/Monitor.h"
#include "platform/String.h"
#include "platform/XCode.h"

// The device contract: every declaration below is part of the interface.
#pragma GCC visibility push(default)

// The device's configuration store: named configurations.
namespace CLI {

String GET_STARTUP_CONFIGURATION_NAME();  // "startup-config"
[[nodiscard]] XCode GET_CONFIGURATION_CONTENT(const String& name, String& content, String& error);
// Atomic: the new content replaces the old one whole or not at all.
[[nodiscard]] XCode STORE_CONFIGURATION_CONTENT(const String& name, const String& content,
                                                String& error);

}  // namespace CLI

// The running system: a configuration text applied command by command.
namespace CmdExec {

// Runs every line that is not blank and not a comment ("!" or "#" after any indentation). A line
// without indentation is a command; an indented line is a sub-command of the command above it and
// keeps its indentation in running-config. Refused, as "EXECUTION FAILED AT LINE <n>: <line>"
// (n counts every line from 1, the line is shown without indentation and with control characters
// escaped): a sub-command before any command, a line holding a control character other than tab
// (a carriage return may end a line), and a line that a rejected pattern matches. Every line run
// is logged as "[CmdExec] <line>" at level 6 on `monitor` (if not null). With `stopOnError` the
// first refused line ends the run; without, the rest still runs and the first failure is
// returned. running-config is appended to only when no line was refused.
[[nodiscard]] XCode EXECUTE(const String& commands, bool stopOnError, RTD::Monitor* monitor,
                            int flags);

}  // namespace CmdExec

#pragma GCC visibility pop
