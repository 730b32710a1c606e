#include "platform/posix/DevicePaths.h"

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
const String WORK = "/tmp/provisioning";

std::mutex& rootMutex() {
    static std::mutex mutex;
    return mutex;
}

// Every root ever set, the current one last; kept so that a reference from ROOT() never dangles.
std::list<String>& roots() {
    static std::list<String> history{String()};
    return history;
}

bool isBelow(const String& devicePath, const String& directory) {
    return devicePath == directory || devicePath.startsWith(directory + "/");
}

// The mapped device directory that holds `devicePath`, or null for a path used as it is.
const String* mappedDirectoryOf(const String& devicePath) {
    if (isBelow(devicePath, FLASH)) {
        return &FLASH;
    }
    if (isBelow(devicePath, WORK)) {
        return &WORK;
    }
    return nullptr;
}

// <root><directory> plus the normalised rest of the path; `left` tells whether a ".." climbed
// above the directory on the way (it is then dropped).
String mapBelow(const String& directory, const String& devicePath, bool& left) {
    left = false;
    std::vector<String> kept;
    for (const String& segment : devicePath.substring(directory.length()).split('/')) {
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
    String hostPath = ROOT() + directory;
    for (const String& segment : kept) {
        hostPath += "/";
        hostPath += segment;
    }
    if (!kept.empty() && devicePath.endsWith("/")) {
        hostPath += "/";
    }
    return hostPath;
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
    const String* directory = mappedDirectoryOf(devicePath);
    if (directory == nullptr) {
        return devicePath;
    }
    bool left = false;
    return mapBelow(*directory, devicePath, left);
}

XCode MAP_PATH_CHECKED(const String& devicePath, String& hostPath) {
    const String* directory = mappedDirectoryOf(devicePath);
    if (directory == nullptr) {
        hostPath = devicePath;
        return XCode::SUCCESS;
    }
    bool left = false;
    String mapped = mapBelow(*directory, devicePath, left);
    if (left) {
        return XCode::FAILURE_F(
            directory == &FLASH ? "PATH LEAVES FLASH: %s" : "PATH LEAVES THE WORK DIRECTORY: %s",
            devicePath.c_str());
    }
    if (directory == &WORK) {
        XCode safe = CHECK_WORK_DIRECTORY();
        if (safe.isErr()) {
            return safe;
        }
    }
    hostPath = mapped;
    return XCode::SUCCESS;
}

bool IS_MAPPED_PATH(const String& devicePath) {
    return mappedDirectoryOf(devicePath) != nullptr;
}

XCode REFUSE_FLASH_LINKS(const String& devicePath, const char* what) {
    if (!isBelow(devicePath, FLASH)) {
        return XCode::SUCCESS;
    }
    const String top = ROOT() + FLASH;
    String path = top;
    std::vector<String> below = MAP_PATH(devicePath).substring(top.length()).split('/');
    for (std::size_t next = 0; true; ++next) {
        struct stat status {};
        if (::lstat(path.c_str(), &status) != 0) {
            // What does not exist holds no link; the caller's own open reports it.
            return XCode::SUCCESS;
        }
        if (S_ISLNK(status.st_mode)) {
            XCode refused = XCode::fromErrno(ELOOP);
            return refused.setStringF("%s %s: symbolic link", what, devicePath.c_str());
        }
        while (next < below.size() && below[next].isEmpty()) {
            ++next;
        }
        if (next >= below.size()) {
            return XCode::SUCCESS;
        }
        path += "/";
        path += below[next];
    }
}

XCode CHECK_WORK_DIRECTORY() {
    const String hostPath = MAP_PATH(WORK);
    struct stat status {};
    if (::lstat(hostPath.c_str(), &status) != 0) {
        return XCode::SYSTEM_FAILURE(errno, "UNSAFE WORK DIRECTORY", hostPath);
    }
    XCode refused = XCode::FAILURE();
    if (S_ISLNK(status.st_mode)) {
        return refused.setStringF("UNSAFE WORK DIRECTORY %s: symbolic link", hostPath.c_str());
    }
    if (!S_ISDIR(status.st_mode)) {
        return refused.setStringF("UNSAFE WORK DIRECTORY %s: not a directory", hostPath.c_str());
    }
    if (status.st_uid != ::geteuid()) {
        return refused.setStringF("UNSAFE WORK DIRECTORY %s: owned by uid %u, not %u",
                                  hostPath.c_str(), static_cast<unsigned int>(status.st_uid),
                                  static_cast<unsigned int>(::geteuid()));
    }
    if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        return refused.setStringF(
            "UNSAFE WORK DIRECTORY %s: mode %04o, writable by group or others", hostPath.c_str(),
            static_cast<unsigned int>(status.st_mode & 07777));
    }
    return XCode::SUCCESS;
}

XCode MAKE_DIRECTORIES(const String& hostPath) {
    if (hostPath.isEmpty()) {
        return XCode::FAILURE("CANNOT CREATE DIRECTORY: empty path");
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
                return XCode::SYSTEM_FAILURE(errno, "CANNOT CREATE DIRECTORY", prefix);
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
        return XCode::SYSTEM_FAILURE(error, "CANNOT CREATE DIRECTORY", prefix);
    }
    return XCode::SUCCESS;
}

}  // namespace Device
