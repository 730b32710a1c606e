#include "Device.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <list>
#include <mutex>
#include <vector>

namespace Device {

namespace {

const String FLASH = "/flash";

std::mutex& rootMutex() {
    static std::mutex mutex;
    return mutex;
}

// Every root ever set, the current one last; kept so that a reference from ROOT() never dangles.
std::list<String>& roots() {
    static std::list<String> history{String()};
    return history;
}

bool isFlashPath(const String& devicePath) {
    return devicePath == FLASH || devicePath.startsWith(FLASH + "/");
}

// <root>/flash plus the normalised rest of a flash path; `left` tells whether a ".." climbed
// above flash on the way (it is then dropped).
String mapFlashPath(const String& devicePath, bool& left) {
    left = false;
    std::vector<String> kept;
    for (const String& segment : devicePath.substring(FLASH.length()).split('/')) {
        if (segment.isEmpty() || segment == ".") {
            continue;
        }
        if (segment == "..") {
            if (kept.empty()) {
                left = true;
            } else {
                kept.pop_back();
            }
            continue;
        }
        kept.push_back(segment);
    }
    String hostPath = ROOT() + FLASH;
    for (const String& segment : kept) {
        hostPath += "/";
        hostPath += segment;
    }
    if (!kept.empty() && devicePath.endsWith("/")) {
        hostPath += "/";
    }
    return hostPath;
}

XCode errnoError(int error, const char* what, const String& path) {
    XCode code = XCode::fromErrno(error);
    code.setStringF("%s %s: %s", what, path.c_str(), std::strerror(error));
    return code;
}

}  // namespace

void SET_ROOT(const String& directory) {
    String root = directory;
    if (!root.isEmpty() && !root.startsWith("/")) {
        char cwd[PATH_MAX];
        if (::getcwd(cwd, sizeof cwd) != nullptr) {
            root = String(cwd) + "/" + root;
        }
    }
    while (root.endsWith("/")) {
        root.deleteRegion(root.length() - 1, 1);
    }
    std::lock_guard<std::mutex> lock(rootMutex());
    roots().push_back(root);
}

const String& ROOT() {
    std::lock_guard<std::mutex> lock(rootMutex());
    return roots().back();
}

String MAP_PATH(const String& devicePath) {
    if (!isFlashPath(devicePath)) {
        return devicePath;
    }
    bool left = false;
    return mapFlashPath(devicePath, left);
}

XCode MAP_PATH_CHECKED(const String& devicePath, String& hostPath) {
    if (!isFlashPath(devicePath)) {
        hostPath = devicePath;
        return XCode::SUCCESS;
    }
    bool left = false;
    String mapped = mapFlashPath(devicePath, left);
    if (left) {
        XCode refused(XCode::GENERIC_FAILURE);
        return refused.setStringF("PATH LEAVES FLASH: %s", devicePath.c_str());
    }
    hostPath = mapped;
    return XCode::SUCCESS;
}

XCode MAKE_DIRECTORIES(const String& hostPath) {
    if (hostPath.isEmpty()) {
        XCode refused(XCode::GENERIC_FAILURE);
        return refused.setString("CANNOT CREATE DIRECTORY: empty path");
    }
    int position = 0;
    while (position >= 0) {
        position = hostPath.indexOf('/', position + 1);
        String prefix = position < 0 ? hostPath : hostPath.substring(0, position);
        if (prefix.isEmpty() || prefix.endsWith("/")) {
            continue;
        }
        if (::mkdir(prefix.c_str(), 0755) == 0) {
            // The mode is meant exactly, whatever the process's umask.
            if (::chmod(prefix.c_str(), 0755) != 0) {
                return errnoError(errno, "CANNOT CREATE DIRECTORY", prefix);
            }
            continue;
        }
        int error = errno;
        struct stat status {};
        if (error == EEXIST && ::stat(prefix.c_str(), &status) == 0) {
            if (S_ISDIR(status.st_mode)) {
                continue;
            }
            error = ENOTDIR;
        }
        return errnoError(error, "CANNOT CREATE DIRECTORY", prefix);
    }
    return XCode::SUCCESS;
}

XCode PREPARE() {
    const String root = ROOT();
    if (root.isEmpty()) {
        XCode refused(XCode::GENERIC_FAILURE);
        return refused.setString("NO DEVICE DIRECTORY SET");
    }
    const char* const directories[] = {"/flash",
                                       "/flash/dialplan",
                                       "/flash/preferences",
                                       "/flash/wizard",
                                       "/flash/provisioning",
                                       "/config",
                                       "/slots",
                                       "/status"};
    for (const char* directory : directories) {
        XCode result = MAKE_DIRECTORIES(root + directory);
        if (result.isErr()) {
            return result;
        }
    }
    return MAKE_DIRECTORIES("/tmp/provisioning");
}

}  // namespace Device
