#pragma once

#include "String.h"
#include "XCode.h"

// Where the simulated device lives on this host. The engine keeps the device's own paths
// ("/flash/dialplan/x"); the platform maps them into the device directory chosen by the host.
//   /flash/...        -> <root>/flash/...
// "/tmp/provisioning/" is the real directory on every host.
namespace Device {

void SET_ROOT(const String& directory);
const String& ROOT();
// The host path for a device path: mapped for "/flash" paths, unchanged otherwise.
String MAP_PATH(const String& devicePath);
// Creates the directories that a device has from the start ("/flash", "/flash/dialplan",
// "/flash/preferences", "/flash/wizard", "/flash/provisioning", "config", "slots") and the
// real work directory "/tmp/provisioning".
[[nodiscard]] XCode PREPARE();

}  // namespace Device
