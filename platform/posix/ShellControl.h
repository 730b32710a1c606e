#pragma once

#include <chrono>
#include <cstddef>
#include <vector>

#include "platform/Shell.h"
#include "platform/String.h"

// The host side of the POSIX backend: exported for the simulated device and provctl.
#pragma GCC visibility push(default)

// The host's controls of the shell: the commands' deadline, the host programs that play the
// device's tools, and waiting for the children still running.
namespace Kt {
namespace ShellControl {

// How long a command may run, from its start to its end: a child still running then is
// ended (SIGTERM to its process group, SIGKILL after a grace period) and reaped, and its
// result is the deadline failure. Applies to commands started afterwards. Thread-safe.
// The default, DEFAULT_COMMAND_DEADLINE, lets a 256 MiB image arrive over a link of about
// 300 kbit/s; a deadline is clamped to [1 ms, 30 days].
void SET_COMMAND_DEADLINE(std::chrono::milliseconds deadline);
std::chrono::milliseconds COMMAND_DEADLINE();
constexpr std::chrono::milliseconds DEFAULT_COMMAND_DEADLINE{2 * 60 * 60 * 1000};

// Program names that the device knows under another name on this host: "tftp" runs the
// BusyBox applet, for instance. Set by the host; thread-safe. An empty prefix makes the name
// run as itself again.
void SET_TOOL(const String& name, const std::vector<String>& replacementPrefix);
std::vector<String> RESOLVE_TOOL(const std::vector<String>& words);

// Blocks until at most `count` commands are left unreaped; false when the timeout passed
// first. An abandoned command has closed its descriptors by the time it counts as reaped.
bool WAIT_FOR_RUNNING_COMMANDS(std::size_t count, std::chrono::milliseconds timeout);

}  // namespace ShellControl
}  // namespace Kt

#pragma GCC visibility pop
