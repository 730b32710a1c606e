#pragma once

#include "host/DeviceSettings.h"
#include "platform/XCode.h"

namespace Provctl {

// The CA certificate, the client certificate and its key that the job will hand to wget, read
// before the job starts: a file that is missing, unreadable, a directory or a special file is a
// usage error naming the option and the file ("--ca-certificate /x/ca.pem: CANNOT OPEN ...: No
// such file or directory"). "/flash/..." paths are device paths (mapped into the device
// directory, whose root must be set). An empty path is not checked: that part is left out.
[[nodiscard]] XCode CHECK_HTTPS_FILES(const DeviceSettings& settings);

}  // namespace Provctl
