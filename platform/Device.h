#pragma once

#include "String.h"
#include "XCode.h"

// Where the simulated device lives on this host. The engine keeps the device's own paths
// ("/flash/dialplan/x"); the platform maps them into the device directory chosen by the host.
//   /flash/...        -> <root>/flash/...
// "/tmp/provisioning/" is the real directory on every host.
// Thread-safe: the host sets the root once at start; the getters may run on any thread.
namespace Device {

void SET_ROOT(const String& directory);
// A reference that stays valid for the life of the process, also after a later SET_ROOT.
const String& ROOT();
// The host path for a device path: mapped for "/flash" paths, unchanged otherwise. A flash path
// is normalised ("." and ".." resolved, repeated slashes folded) and can never leave
// <root>/flash: a ".." at the top of flash stays there.
String MAP_PATH(const String& devicePath);
// As MAP_PATH, but a flash path whose ".." would climb out of flash is refused with
// "PATH LEAVES FLASH: <path>" (and `hostPath` is left as it was).
[[nodiscard]] XCode MAP_PATH_CHECKED(const String& devicePath, String& hostPath);
// Creates the directories that a device has from the start ("/flash", "/flash/dialplan",
// "/flash/preferences", "/flash/wizard", "/flash/provisioning", "config", "slots", "status") and
// the real work directory "/tmp/provisioning", mode 0755. Idempotent.
[[nodiscard]] XCode PREPARE();
// Creates a host directory and its missing parents with mode 0755 (regardless of the umask); an
// existing directory is success and keeps its mode, an existing non-directory is an error
// ("CANNOT CREATE DIRECTORY <path>: Not a directory").
[[nodiscard]] XCode MAKE_DIRECTORIES(const String& hostPath);

}  // namespace Device
