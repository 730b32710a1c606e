#include "platform/posix/PrivateFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace PrivateFile {

namespace {

constexpr std::size_t READ_BLOCK = 4096;

// Reads `fd` to its end, at most `maxSize` bytes.
XCode readAll(int fd, const String& what, std::size_t maxSize, String& text) {
    text = String();
    char buffer[READ_BLOCK];
    while (true) {
        ssize_t count = ::read(fd, buffer, sizeof buffer);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0) {
            return XCode::SYSTEM_FAILURE(errno, "", what);
        }
        if (count == 0) {
            return XCode();
        }
        text.append(buffer, static_cast<std::size_t>(count));
        if (static_cast<std::size_t>(text.length()) > maxSize) {
            text = String();
            return XCode::FAILURE_F("%s: larger than %zu bytes", what.c_str(), maxSize);
        }
    }
}

// What a file that is not a regular one is, for the message that refuses it.
const char* fileKind(mode_t mode) {
    if (S_ISDIR(mode)) {
        return "a directory";
    }
    if (S_ISFIFO(mode)) {
        return "a FIFO";
    }
    if (S_ISSOCK(mode)) {
        return "a socket";
    }
    if (S_ISCHR(mode) || S_ISBLK(mode)) {
        return "a device";
    }
    return "another kind of file";
}

// `path` could not be opened because it, or what it leads to, does not exist. Only a path that
// is not there itself counts as missing: a symbolic link to nothing is a mistake to report.
XCode missingOrDangling(const String& path, bool& exists) {
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0) {
        return errno == ENOENT ? XCode() : XCode::SYSTEM_FAILURE(errno, "", path);
    }
    exists = true;
    if (!S_ISLNK(status.st_mode)) {
        return XCode::SYSTEM_FAILURE(ENOENT, "", path);  // it came back between open and lstat
    }
    char target[4096];
    const ssize_t length = ::readlink(path.c_str(), target, sizeof target - 1);
    target[length > 0 ? length : 0] = '\0';
    return XCode::fromErrno(ENOENT).setStringF("%s: dangling symbolic link (to %s)", path.c_str(),
                                               target);
}

}  // namespace

XCode READ(const String& path, std::size_t maxSize, String& text, Access& access, bool& exists) {
    text = String();
    exists = false;
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
    if (fd < 0 && errno == ENOENT) {
        return missingOrDangling(path, exists);
    }
    if (fd < 0) {
        return XCode::SYSTEM_FAILURE(errno, "", path);
    }
    exists = true;
    struct stat status {};
    XCode result;
    if (::fstat(fd, &status) != 0) {
        result = XCode::SYSTEM_FAILURE(errno, "", path);
    } else if (!S_ISREG(status.st_mode)) {
        result =
            XCode::FAILURE_F("%s: not a regular file (%s)", path.c_str(), fileKind(status.st_mode));
    } else {
        access.mode = static_cast<unsigned int>(status.st_mode & 07777);
        access.owner = static_cast<unsigned int>(status.st_uid);
        access.effectiveUser = static_cast<unsigned int>(::geteuid());
        result = readAll(fd, path, maxSize, text);
    }
    ::close(fd);
    return result;
}

XCode WRITE(const String& path, const String& text) {
    int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd < 0) {
        return XCode::SYSTEM_FAILURE(errno, "", path);
    }
    XCode result;
    if (::fchmod(fd, 0600) != 0) {
        result = XCode::SYSTEM_FAILURE(errno, "", path);
    }
    const char* data = text.data();
    std::size_t left = static_cast<std::size_t>(text.length());
    while (result.isSuccess() && left > 0) {
        ssize_t written = ::write(fd, data, left);
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            result = XCode::SYSTEM_FAILURE(written < 0 ? errno : EIO, "", path);
            break;
        }
        data += written;
        left -= static_cast<std::size_t>(written);
    }
    if (::close(fd) != 0 && result.isSuccess()) {
        result = XCode::SYSTEM_FAILURE(errno, "", path);
    }
    return result;
}

XCode READ_STANDARD_INPUT(std::size_t maxSize, String& text) {
    return readAll(STDIN_FILENO, "standard input", maxSize, text);
}

}  // namespace PrivateFile
