#pragma once

#include "Monitor.h"
#include "String.h"
#include "XCode.h"

// The device's configuration store: named configurations in the device directory's config/.
namespace CLI {

String GET_STARTUP_CONFIGURATION_NAME();  // "startup-config"
[[nodiscard]] XCode GET_CONFIGURATION_CONTENT(const String& name, String& content, String& error);
// Atomic: the new content replaces the old one whole or not at all.
[[nodiscard]] XCode STORE_CONFIGURATION_CONTENT(const String& name, const String& content,
                                                String& error);

}  // namespace CLI

// The running system: a configuration text applied command by command. The simulated system
// appends what it executed to the device directory's running-config.
namespace CmdExec {

[[nodiscard]] XCode EXECUTE(const String& commands, bool stopOnError, RTD::Monitor* monitor,
                            int flags);

}  // namespace CmdExec
