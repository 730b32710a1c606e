#pragma once

#include "platform/posix/DevicePaths.h"

// The simulated device as its hosts (provctl) drive it: exported.
#pragma GCC visibility push(default)

// The simulated device's directory: the host chooses it (SET_ROOT) and lays it out once.
namespace Device {

// Creates the directories that a device has from the start ("/flash", "/flash/dialplan",
// "/flash/preferences", "/flash/wizard", "/flash/provisioning", "config", "slots", "status", mode
// 0755) and its work directory <root>/tmp/provisioning, mode 0700 (an existing work directory
// keeps its mode and owner, and is judged at use). Idempotent.
[[nodiscard]] XCode PREPARE();

// The environment variable that gives a host without access to this header (one built against
// the installed package) a device directory: when it is set and not empty, the library sets the
// root to it, makes the directory and PREPAREs it as it is loaded, and maps the device's "tftp"
// to "busybox tftp". A problem is printed on standard error.
constexpr const char* ROOT_VARIABLE = "PROV_DEVICE_ROOT";

}  // namespace Device

#pragma GCC visibility pop
