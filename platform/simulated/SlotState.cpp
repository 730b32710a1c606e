#include "platform/simulated/SlotState.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <mutex>

#include "platform/KtFile.h"
#include "platform/simulated/DeviceDirectory.h"

namespace {

std::recursive_mutex& stateMutex() {
    static std::recursive_mutex mutex;
    return mutex;
}

bool fileExists(const String& path) {
    struct stat status {};
    return ::stat(path.c_str(), &status) == 0 || errno != ENOENT;
}

}  // namespace

String SlotState::PATH() {
    return Device::ROOT() + "/slots/state";
}

SlotState SlotState::PARSE(const String& text) {
    SlotState state;
    for (String line : text.split('\n')) {
        if (line.endsWith("\r")) {
            line.deleteRegion(line.length() - 1, 1);
        }
        String key;
        String value;
        if (!line.split('=', key, value)) {
            continue;
        }
        if (key == "active" && value.isNumeric()) {
            state.active = value.toUnsigned();
        } else if (key == "next" && value.isNumeric()) {
            state.next = value.toUnsigned();
        } else if (key == "version.1") {
            state.version1 = value;
        } else if (key == "version.2") {
            state.version2 = value;
        }
    }
    return state;
}

String SlotState::toText() const {
    return String::format("active=%u\nnext=%u\nversion.1=%s\nversion.2=%s\n", active, next,
                          version1.c_str(), version2.c_str());
}

XCode SlotState::LOAD(SlotState& state) {
    std::lock_guard<std::recursive_mutex> lock(stateMutex());
    const String path = PATH();
    if (!fileExists(path)) {
        state = SlotState();
        return XCode::SUCCESS;
    }
    String text;
    XCode result = KtFile::READ_TEXT_FILE<String>(path, text, O_RDONLY, false, true);
    if (result.isErr()) {
        return result;
    }
    state = PARSE(text);
    return XCode::SUCCESS;
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
