#include "platform/simulated/SlotState.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <map>
#include <mutex>
#include <vector>

#include "platform/KtFile.h"
#include "platform/simulated/DeviceDirectory.h"

namespace {

std::recursive_mutex& stateMutex() {
    static std::recursive_mutex mutex;
    return mutex;
}

// Only a path that is not there itself is missing; a symbolic link to nothing is an error.
XCode findFile(const String& path, bool& exists) {
    struct stat status {};
    exists = ::lstat(path.c_str(), &status) == 0 || errno != ENOENT;
    if (exists && S_ISLNK(status.st_mode) && ::stat(path.c_str(), &status) != 0 &&
        errno == ENOENT) {
        return XCode::fromErrno(ENOENT).setStringF("%s: dangling symbolic link", path.c_str());
    }
    return XCode::SUCCESS;
}

XCode lineError(const String& path, std::size_t line, const String& what) {
    return XCode::FAILURE_F("%s:%u: %s", path.c_str(), static_cast<unsigned int>(line),
                            what.c_str());
}

// Sets `key` of `state`; false, with `problem` saying why, for a key or a value that the device
// does not have.
bool setKey(const String& key, const String& value, SlotState& state, String& problem) {
    if (key == "active" || key == "next") {
        if (value != "1" && value != "2") {
            problem = String::format("%s must be 1 or 2 (the device has two slots), not '%s'",
                                     key.c_str(), value.c_str());
            return false;
        }
        (key == "active" ? state.active : state.next) = value.toUnsigned();
    } else if (key == "version.1") {
        state.version1 = value;
    } else if (key == "version.2") {
        state.version2 = value;
    } else {
        problem = String::format("unknown key '%s' (known: active, next, version.1, version.2)",
                                 key.c_str());
        return false;
    }
    return true;
}

}  // namespace

String SlotState::PATH() {
    return Device::ROOT() + "/slots/state";
}

XCode SlotState::PARSE(const String& path, const String& text, SlotState& state) {
    SlotState parsed;
    std::map<String, std::size_t> lineOfKey;
    const std::vector<String> lines = text.split('\n');
    for (std::size_t index = 0; index < lines.size(); ++index) {
        String line = lines[index];
        line.trim();
        if (line.isEmpty() || line.startsWith("#")) {
            continue;
        }
        String key;
        String value;
        if (!line.split('=', key, value)) {
            return lineError(path, index + 1, "expected key=value");
        }
        key.trim();
        value.trim();
        const auto [first, fresh] = lineOfKey.emplace(key, index + 1);
        if (!fresh) {
            return lineError(path, index + 1,
                             String::format("'%s' given twice (lines %u and %u)", key.c_str(),
                                            static_cast<unsigned int>(first->second),
                                            static_cast<unsigned int>(index + 1)));
        }
        String problem;
        if (!setKey(key, value, parsed, problem)) {
            return lineError(path, index + 1, problem);
        }
    }
    state = parsed;
    return XCode::SUCCESS;
}

String SlotState::toText() const {
    return String::format("active=%u\nnext=%u\nversion.1=%s\nversion.2=%s\n", active, next,
                          version1.c_str(), version2.c_str());
}

XCode SlotState::LOAD(SlotState& state) {
    std::lock_guard<std::recursive_mutex> lock(stateMutex());
    const String path = PATH();
    bool exists = false;
    XCode result = findFile(path, exists);
    if (result.isErr()) {
        return result;
    }
    if (!exists) {
        state = SlotState();
        return XCode::SUCCESS;
    }
    String text;
    result = KtFile::READ_TEXT_FILE<String>(path, text, KtFile::READ_ONLY, false, true);
    if (result.isErr()) {
        return result;
    }
    return PARSE(path, text, state);
}

XCode SlotState::STORE(const SlotState& state) {
    std::lock_guard<std::recursive_mutex> lock(stateMutex());
    XCode result = Device::MAKE_DIRECTORIES(Device::ROOT() + "/slots");
    if (result.isErr()) {
        return result;
    }
    return KtFile::WRITE_TEXT_FILE(PATH(), state.toText(), false);
}

XCode SlotState::MODIFY(const std::function<void(SlotState&)>& change) {
    std::lock_guard<std::recursive_mutex> lock(stateMutex());
    SlotState state;
    XCode result = LOAD(state);
    if (result.isErr()) {
        return result;
    }
    change(state);
    return STORE(state);
}
