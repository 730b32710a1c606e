#pragma once

#include "platform/posix/DevicePaths.h"

// The simulated device's directory: the host chooses it (SET_ROOT) and lays it out once.
namespace Device {

// Creates the directories that a device has from the start ("/flash", "/flash/dialplan",
// "/flash/preferences", "/flash/wizard", "/flash/provisioning", "config", "slots", "status", mode
// 0755) and its work directory <root>/tmp/provisioning, mode 0700 (an existing work directory
// keeps its mode and owner, and is judged at use). Idempotent.
[[nodiscard]] XCode PREPARE();

}  // namespace Device
