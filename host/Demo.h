#pragma once

#include <map>
#include <vector>

#include "platform/String.h"
#include "platform/XCode.h"

// provctl demo: a whole provisioning of a new simulated device against the demo's own TFTP and
// HTTP servers on loopback, every job kind twice (the second round with --compare changes
// nothing), with a summary table of what each job did to the device.
namespace Provctl {

struct DemoOptions {
    int level = 3;  // highest monitor level written to standard error
};

// Runs the demo on the calling thread; returns the exit status: 0 when every job did what it
// should, 1 otherwise (a failed start of a server, an interruption by SIGINT or SIGTERM
// included). The servers are stopped on every path; the device directory stays.
int RUN_DEMO(const DemoOptions& options);

// The directory of the bundled sample files: the installed copy beside the program
// (<prefix>/share/provisioning/demo) when there is one, else the source tree's host/demo-files.
// Empty when neither holds the files.
String DEMO_FILES_DIRECTORY();

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

// Rows of cells as a plain-text table: columns padded to their widest cell, two blanks between
// them, the first row underlined with dashes. Trailing blanks are dropped.
String FORMAT_TABLE(const std::vector<std::vector<String>>& rows);

}  // namespace Provctl
