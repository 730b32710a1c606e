#include "platform/FileNode.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <vector>

#include "platform/posix/DevicePaths.h"
#include "platform/posix/FileNodeCaps.h"

namespace FileNode {

namespace {

constexpr std::size_t READ_BLOCK = std::size_t{64} * 1024;

std::atomic<std::size_t> manifestCap{DEFAULT_MANIFEST_CAP};
std::atomic<std::size_t> contentCap{DEFAULT_CONTENT_CAP};

XCode refusal() {
    return XCode::FAILURE();
}

Kind kindOf(mode_t mode) {
    if (S_ISREG(mode)) {
        return Kind::Regular;
    }
    if (S_ISDIR(mode)) {
        return Kind::Directory;
    }
    if (S_ISLNK(mode)) {
        return Kind::SymbolicLink;
    }
    if (S_ISFIFO(mode)) {
        return Kind::Fifo;
    }
    if (S_ISCHR(mode)) {
        return Kind::CharacterDevice;
    }
    if (S_ISBLK(mode)) {
        return Kind::BlockDevice;
    }
    return Kind::Socket;
}

Info infoOf(const struct stat& status) {
    Info info;
    info.kind = kindOf(status.st_mode);
    info.links = static_cast<unsigned long>(status.st_nlink);
    info.size = static_cast<unsigned long long>(status.st_size);
    return info;
}

// Opens a directory itself: never a link (O_NOFOLLOW), never a FIFO or device (O_DIRECTORY fails
// before they are opened).
int openDirectoryAt(int parent, const char* name) {
    return ::openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
}

bool isNotADirectory(int error) {
    return error == ENOTDIR || error == ELOOP;
}

// The name of some entry of `directory` other than "." and ".."; false when it is empty.
bool firstEntry(int directory, String& name, int& error) {
    error = 0;
    int copy = ::dup(directory);
    DIR* stream = copy < 0 ? nullptr : ::fdopendir(copy);
    if (stream == nullptr) {
        error = errno;
        if (copy >= 0) {
            ::close(copy);
        }
        return false;
    }
    ::rewinddir(stream);
    bool found = false;
    // readdir is safe on a stream that only this call uses.
    while (const dirent* entry = ::readdir(stream)) {  // NOLINT(concurrency-mt-unsafe)
        if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0) {
            name = entry->d_name;
            found = true;
            break;
        }
    }
    ::closedir(stream);
    return found;
}

// Empties the directory open at `top` and closes it. Walks down and up again through "..", so it
// holds one directory open at any depth (a tar member can nest thousands of levels).
XCode emptyDirectory(int top, const String& path) {
    int current = top;
    std::vector<String> descent;  // names from `top` down to `current`
    while (true) {
        String name;
        int error = 0;
        if (firstEntry(current, name, error)) {
            int child = openDirectoryAt(current, name.c_str());
            if (child >= 0) {
                ::close(current);
                current = child;
                descent.push_back(name);
                continue;
            }
            if (isNotADirectory(errno) && ::unlinkat(current, name.c_str(), 0) == 0) {
                continue;
            }
            error = errno;
        } else if (error == 0 && !descent.empty()) {
            int parent = openDirectoryAt(current, "..");
            error = parent < 0 ? errno : 0;
            if (parent >= 0) {
                ::close(current);
                current = parent;
                name = descent.back();
                descent.pop_back();
                if (::unlinkat(current, name.c_str(), AT_REMOVEDIR) == 0) {
                    continue;
                }
                error = errno;
            }
        }
        ::close(current);
        return error == 0 ? XCode(XCode::SUCCESS)
                          : XCode::SYSTEM_FAILURE(error, "CANNOT REMOVE", path);
    }
}

}  // namespace

XCode INSPECT(const String& path, Info& info) {
    const String hostPath = Device::MAP_PATH(path);
    struct stat status {};
    if (::lstat(hostPath.c_str(), &status) != 0) {
        if (errno == ENOENT) {
            info = Info();
            return XCode(XCode::SUCCESS);
        }
        return XCode::SYSTEM_FAILURE(errno, "CANNOT INSPECT", path);
    }
    info = infoOf(status);
    return XCode(XCode::SUCCESS);
}

bool IS_PLAIN_FILE(const Info& info) {
    return info.kind == Kind::Regular && info.links == 1;
}

const char* KIND_NAME(Kind kind) {
    switch (kind) {
        case Kind::Missing:
            return "missing";
        case Kind::Regular:
            return "a regular file";
        case Kind::Directory:
            return "a directory";
        case Kind::SymbolicLink:
            return "a symbolic link";
        case Kind::Fifo:
            return "a FIFO";
        case Kind::CharacterDevice:
            return "a character device";
        case Kind::BlockDevice:
            return "a block device";
        case Kind::Socket:
            return "a socket";
    }
    return "unknown";
}

String WHY_NOT_PLAIN(const Info& info) {
    if (IS_PLAIN_FILE(info)) {
        return String();
    }
    if (info.kind == Kind::Regular) {
        return String::format("has %lu links", info.links);
    }
    return String::format("is %s", KIND_NAME(info.kind));
}

bool IS_TOO_LARGE(const XCode& result) {
    return result == XCode::fromErrno(EFBIG);
}

bool IS_REFUSED(const XCode& result) {
    // The only generic failure READ_CAPPED gives; system errors carry their errno.
    return result == refusal();
}

XCode REMOVE_WITHOUT_FOLLOWING(const String& path) {
    const String hostPath = Device::MAP_PATH(path);
    int top = openDirectoryAt(AT_FDCWD, hostPath.c_str());
    if (top < 0) {
        if (errno == ENOENT) {
            return XCode(XCode::SUCCESS);
        }
        if (!isNotADirectory(errno)) {
            return XCode::SYSTEM_FAILURE(errno, "CANNOT REMOVE", path);
        }
        if (::unlink(hostPath.c_str()) != 0 && errno != ENOENT) {
            return XCode::SYSTEM_FAILURE(errno, "CANNOT REMOVE", path);
        }
        return XCode(XCode::SUCCESS);
    }
    XCode result = emptyDirectory(top, path);
    if (result.isSuccess() && ::rmdir(hostPath.c_str()) != 0 && errno != ENOENT) {
        result = XCode::SYSTEM_FAILURE(errno, "CANNOT REMOVE", path);
    }
    return result;
}

XCode READ_CAPPED(const String& path, String& content, std::size_t cap) {
    content = String();
    // Looked at before any open: opening a device node can act on the device.
    Info info;
    XCode result = INSPECT(path, info);
    if (result.isErr()) {
        return result;
    }
    if (info.kind == Kind::Missing) {
        return XCode::SYSTEM_FAILURE(ENOENT, "CANNOT OPEN", path);
    }
    int fd = -1;
    if (IS_PLAIN_FILE(info)) {
        const String hostPath = Device::MAP_PATH(path);
        fd = ::open(hostPath.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
        struct stat status {};
        if (fd < 0 && errno == ELOOP) {
            info.kind = Kind::SymbolicLink;  // the name was changed into a link meanwhile
        } else if (fd < 0 || ::fstat(fd, &status) != 0) {
            result = XCode::SYSTEM_FAILURE(errno, "CANNOT OPEN", path);
        } else {
            info = infoOf(status);  // what was opened, should the name have changed meanwhile
        }
    }
    if (result.isSuccess() && !IS_PLAIN_FILE(info)) {
        result =
            refusal().setStringF("UNSAFE FILE: %s %s", path.c_str(), WHY_NOT_PLAIN(info).c_str());
    }
    char buffer[READ_BLOCK];
    while (result.isSuccess()) {
        const std::size_t room = cap - content.str().size() + 1;
        ssize_t got = ::read(fd, buffer, room < sizeof buffer ? room : sizeof buffer);
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got < 0) {
            result = XCode::SYSTEM_FAILURE(errno, "CANNOT READ", path);
        } else if (got == 0) {
            break;
        } else {
            content.append(buffer, static_cast<std::size_t>(got));
            if (content.str().size() > cap) {
                result = XCode::fromErrno(EFBIG).setStringF(
                    "FILE TOO LARGE: %s is larger than %zu bytes", path.c_str(), cap);
            }
        }
    }
    if (fd >= 0) {
        ::close(fd);
    }
    if (result.isErr()) {
        content = String();
    }
    return result;
}

std::size_t MANIFEST_CAP() {
    return manifestCap.load();
}

void SET_MANIFEST_CAP(std::size_t bytes) {
    manifestCap.store(bytes);
}

std::size_t CONTENT_CAP() {
    return contentCap.load();
}

void SET_CONTENT_CAP(std::size_t bytes) {
    contentCap.store(bytes);
}

}  // namespace FileNode
