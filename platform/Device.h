#pragma once

#include "platform/XCode.h"

// The device contract: every declaration below is part of the interface.
#pragma GCC visibility push(default)

// The device's own directories, as the engine names them ("/flash/...", "/tmp/provisioning/...").
// Thread-safe.
namespace Device {

// The work directory (mapped) is used only when it is a directory, not a symbolic link (lstat),
// owned by the effective user and writable by nobody else; otherwise "UNSAFE WORK DIRECTORY
// <host path>: <reason>" (symbolic link, not a directory, owned by uid N, mode 0NNN).
[[nodiscard]] XCode CHECK_WORK_DIRECTORY();

}  // namespace Device

#pragma GCC visibility pop
