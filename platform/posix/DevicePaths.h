#pragma once

#include "platform/Device.h"
#include "platform/String.h"
#include "platform/XCode.h"

// The host side of the POSIX backend: exported for the simulated device and provctl.
#pragma GCC visibility push(default)

// Where device paths land on this host. The engine keeps the device's own paths
// ("/flash/dialplan/x", "/tmp/provisioning/x"); files and the shell map them into the device
// directory chosen by the host, so that simulated devices never share a work directory:
//   /flash/...             -> <root>/flash/...
//   /tmp/provisioning/...  -> <root>/tmp/provisioning/...
// Without a root (a real device) both are the real directories.
// Thread-safe: the host sets the root once at start; the getters may run on any thread.
namespace Device {

void SET_ROOT(const String& directory);
// A reference that stays valid for the life of the process, also after a later SET_ROOT.
const String& ROOT();
// The host path for a device path: mapped for "/flash" and "/tmp/provisioning" paths (the exact
// directory or below it), unchanged otherwise. A mapped path is normalised ("." and ".."
// resolved, repeated slashes folded) and can never leave its directory: a ".." at the top stays
// there.
String MAP_PATH(const String& devicePath);
// As MAP_PATH, but a path whose ".." would climb out is refused with "PATH LEAVES FLASH: <path>"
// or "PATH LEAVES THE WORK DIRECTORY: <path>", and a work-directory path is refused while
// CHECK_WORK_DIRECTORY() refuses the directory (`hostPath` is then left as it was). Every direct
// use of a device path on the host goes through here.
[[nodiscard]] XCode MAP_PATH_CHECKED(const String& devicePath, String& hostPath);
// True for the device paths that MAP_PATH maps.
bool IS_MAPPED_PATH(const String& devicePath);
// A symbolic link at a flash path or at any directory between <root>/flash and it (lstat, from
// flash down) is refused with "<what> <device path>: symbolic link" (errno ELOOP): nothing in
// flash is read, replaced or removed through a link. Success for any other path, and where the
// walk meets a name that does not exist.
[[nodiscard]] XCode REFUSE_FLASH_LINKS(const String& devicePath, const char* what);
// Creates a host directory and its missing parents with mode 0755 (regardless of the umask); an
// existing directory is success and keeps its mode, an existing non-directory is an error
// ("CANNOT CREATE DIRECTORY <path>: Not a directory").
[[nodiscard]] XCode MAKE_DIRECTORIES(const String& hostPath);

}  // namespace Device

#pragma GCC visibility pop
