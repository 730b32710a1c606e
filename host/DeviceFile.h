#pragma once

#include "host/DeviceSettings.h"
#include "platform/String.h"
#include "platform/XCode.h"

namespace Provctl {

// Parses the text of a device.toml into `settings` (the layout is described at
// LOAD_DEVICE_FILE). Everything that the layout does not hold is refused, so that a misspelt
// table or key cannot pass in silence: an unknown table or key, a value of the wrong type, a
// credential without its user or password, a device value or the wild-card realm given twice
// (in two spellings that TOML itself takes for different keys). The message names `path`, the
// line and column, and the key: "<path>:<line>:<column>: <what>", with the closest known word
// where one is near. Of several problems, the first in the file is reported.
[[nodiscard]] XCode PARSE_DEVICE_FILE(const String& path, const String& text,
                                      DeviceSettings& settings);

}  // namespace Provctl
