#include "host/DeviceSnapshot.h"

#include <algorithm>
#include <filesystem>
#include <system_error>

#include "host/Files.h"

namespace Provctl {

XCode SNAPSHOT_DEVICE(const String& directory, DeviceSnapshot& snapshot) {
    snapshot.clear();
    namespace fs = std::filesystem;
    std::error_code error;
    const fs::path root(directory.str());
    fs::recursive_directory_iterator walk(root, error);
    for (; !error && walk != fs::recursive_directory_iterator(); walk.increment(error)) {
        const fs::path relative = walk->path().lexically_relative(root);
        // The status and the work directory change with every job; neither is what a job stores.
        if (*relative.begin() == "status" || *relative.begin() == "tmp") {
            walk.disable_recursion_pending();
            continue;
        }
        if (!walk->is_regular_file(error)) {
            continue;
        }
        String content;
        XCode read = READ_FILE(walk->path().string(), content);
        if (read.isErr()) {
            return read;
        }
        snapshot[relative.string()] = content;
    }
    if (error) {
        return XCode::fromErrno(error.value())
            .setStringF("CANNOT READ DIRECTORY %s: %s", directory.c_str(), error.message().c_str());
    }
    return XCode(XCode::SUCCESS);
}

std::vector<DeviceChange> DIFF_SNAPSHOTS(const DeviceSnapshot& before,
                                         const DeviceSnapshot& after) {
    std::vector<DeviceChange> changes;
    for (const auto& [path, content] : after) {
        auto found = before.find(path);
        if (found == before.end()) {
            changes.push_back({path, DeviceChange::Kind::Added});
        } else if (found->second != content) {
            changes.push_back({path, DeviceChange::Kind::Modified});
        }
    }
    for (const auto& entry : before) {
        if (after.count(entry.first) == 0) {
            changes.push_back({entry.first, DeviceChange::Kind::Removed});
        }
    }
    std::sort(changes.begin(), changes.end(),
              [](const DeviceChange& a, const DeviceChange& b) { return a.path < b.path; });
    return changes;
}

String DESCRIBE_CHANGES(const std::vector<DeviceChange>& changes) {
    if (changes.empty()) {
        return "nothing";
    }
    String text;
    for (const DeviceChange& change : changes) {
        const char mark = change.kind == DeviceChange::Kind::Added      ? '+'
                          : change.kind == DeviceChange::Kind::Modified ? '~'
                                                                        : '-';
        text.concatf("%s%c%s", text.isEmpty() ? "" : " ", mark, change.path.c_str());
    }
    return text;
}

}  // namespace Provctl
