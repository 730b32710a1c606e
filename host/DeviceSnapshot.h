#pragma once

#include <map>
#include <vector>

#include "platform/String.h"
#include "platform/XCode.h"

namespace Provctl {

// A device directory's files: path relative to the directory -> content. status/ is left out:
// every job changes the busy flag and the status location there.
using DeviceSnapshot = std::map<String, String>;
[[nodiscard]] XCode SNAPSHOT_DEVICE(const String& directory, DeviceSnapshot& snapshot);

// One change between two snapshots.
struct DeviceChange {
    enum class Kind { Added, Modified, Removed };
    String path;
    Kind kind = Kind::Added;
    friend bool operator==(const DeviceChange& a, const DeviceChange& b) {
        return a.path == b.path && a.kind == b.kind;
    }
};
// The changes in path order.
std::vector<DeviceChange> DIFF_SNAPSHOTS(const DeviceSnapshot& before, const DeviceSnapshot& after);
// "+config/startup-config ~slots/state -old": + new, ~ changed, - removed; "nothing" for none.
String DESCRIBE_CHANGES(const std::vector<DeviceChange>& changes);

}  // namespace Provctl
