#pragma once

#include "platform/String.h"
#include "platform/XCode.h"

namespace Provctl {

// The whole file at `path` as text; any read error is an error.
[[nodiscard]] XCode READ_FILE(const String& path, String& content);

}  // namespace Provctl
