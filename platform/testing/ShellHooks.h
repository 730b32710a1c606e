#pragma once

#include <cstddef>

#include "platform/Shell.h"

// Test hooks of the shell: its children still running.
namespace Kt {
namespace ShellHooks {

// Number of commands started and not yet reaped (for tests and benchmarks).
std::size_t RUNNING_COMMANDS();

}  // namespace ShellHooks
}  // namespace Kt
