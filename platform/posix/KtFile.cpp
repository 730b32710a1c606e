#include "platform/KtFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <random>

#include "platform/posix/DevicePaths.h"

namespace {

constexpr int ATTEMPTS_FOR_UNIQUE_NAME = 100;
constexpr std::size_t READ_BLOCK = std::size_t{64} * 1024;

// A name beside `systemPath` that no other writer uses: hidden, with the process id, a counter
// and a random part.
String temporaryNameFor(const String& systemPath) {
    static std::atomic<unsigned int> counter{0};
    thread_local std::mt19937 random{std::random_device{}()};
    int slash = systemPath.lastIndexOf('/');
    String directory = slash < 0 ? String() : systemPath.substring(0, slash + 1);
    String base = slash < 0 ? systemPath : systemPath.substring(slash + 1);
    return directory + String::format(".%s.tmp-%d-%u-%08x", base.c_str(),
                                      static_cast<int>(::getpid()), counter.fetch_add(1),
                                      static_cast<unsigned int>(random()));
}

// Makes the rename itself durable. Failure is ignored on purpose: the content is already synced
// and in place; only a power loss in the next moments could still show the old file.
void syncDirectoryOf(const String& systemPath) {
    int slash = systemPath.lastIndexOf('/');
    String directory = slash < 0    ? String(".")
                       : slash == 0 ? String("/")
                                    : systemPath.substring(0, slash);
    int fd = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd >= 0) {
        (void)::fsync(fd);
        (void)::close(fd);
    }
}

}  // namespace

// The device's open flags as this host spells them: the one place where they are translated.
bool hostFlags(int deviceFlags, int& flags) {
    struct Bit {
        int device;
        int host;
    };
    static const Bit bits[] = {{KtFile::WRITE_ONLY, O_WRONLY}, {KtFile::READ_WRITE, O_RDWR},
                               {KtFile::CREATE, O_CREAT},      {KtFile::EXCLUSIVE, O_EXCL},
                               {KtFile::TRUNCATE, O_TRUNC},    {KtFile::NO_FOLLOW, O_NOFOLLOW}};
    flags = 0;
    int known = 0;
    for (const Bit& bit : bits) {
        known |= bit.device;
        if ((deviceFlags & bit.device) != 0) {
            flags |= bit.host;
        }
    }
    return (deviceFlags & ~known) == 0;
}

KtFile::KtFile(const String& path, bool mapped, bool /*unused*/)
    : path_(path), systemPath_(path), mapped_(mapped) {
    if (mapped) {
        pathError_ = Device::MAP_PATH_CHECKED(path, systemPath_);
        if (pathError_.isErr()) {
            systemPath_ = Device::MAP_PATH(path);
        }
    }
}

KtFile::~KtFile() {
    if (fd_ >= 0) {
        (void)::close(fd_);  // nothing to report to from a destructor
        fd_ = -1;
    }
    abandonTemporary();
}

XCode KtFile::systemError(int error, const char* what) const {
    return XCode::SYSTEM_FAILURE(error, what, path_);
}

void KtFile::abandonTemporary() {
    if (!temporaryPath_.isEmpty()) {
        (void)::unlink(temporaryPath_.c_str());  // best effort: it holds only unfinished content
        temporaryPath_ = String();
    }
}

XCode KtFile::open(int deviceFlags, unsigned int mode,
                   XOFlag /*xoFlag: close-on-exec is always set*/) {
    if (pathError_.isErr()) {
        return pathError_;
    }
    int flags = 0;
    if (!hostFlags(deviceFlags, flags)) {
        XCode refused = systemError(EINVAL, "CANNOT OPEN");
        return refused.setStringF("CANNOT OPEN %s: unknown open flags 0%o", path_.c_str(),
                                  static_cast<unsigned int>(deviceFlags));
    }
    if (fd_ >= 0) {
        XCode busy = systemError(EBUSY, "CANNOT OPEN");
        return busy.setStringF("CANNOT OPEN %s: already open", path_.c_str());
    }
    writeFailed_ = false;
    const bool writes = (flags & O_ACCMODE) != O_RDONLY;
    const bool atomic = writes && (flags & O_TRUNC) != 0 && (flags & O_EXCL) == 0;
    XCode noLinks = refuseLinks(atomic ? "CANNOT REPLACE" : "CANNOT OPEN");
    if (noLinks.isErr()) {
        return noLinks;
    }
    if (!atomic) {
        int fd = ::open(systemPath_.c_str(), flags | O_CLOEXEC, static_cast<mode_t>(mode));
        if (fd < 0) {
            return systemError(errno, "CANNOT OPEN");
        }
        fd_ = fd;
        return XCode::SUCCESS;
    }

    // The checks that the truncating open itself would have made on the target.
    struct stat status {};
    const bool exists = ::stat(systemPath_.c_str(), &status) == 0;
    if (exists) {
        if (S_ISDIR(status.st_mode)) {
            return systemError(EISDIR, "CANNOT OPEN");
        }
    } else if (errno != ENOENT || (flags & O_CREAT) == 0) {
        return systemError(errno, "CANNOT OPEN");
    }
    const int temporaryFlags = (flags & ~O_TRUNC) | O_CREAT | O_EXCL | O_CLOEXEC;
    for (int attempt = 0; attempt < ATTEMPTS_FOR_UNIQUE_NAME; ++attempt) {
        String candidate = temporaryNameFor(systemPath_);
        int fd = ::open(candidate.c_str(), temporaryFlags, static_cast<mode_t>(mode));
        if (fd >= 0) {
            fd_ = fd;
            temporaryPath_ = candidate;
            return exists ? keepAttributes(status) : XCode::SUCCESS;
        }
        if (errno != EEXIST) {
            return systemError(errno, "CANNOT OPEN");
        }
    }
    return systemError(EEXIST, "CANNOT OPEN");
}

XCode KtFile::refuseLinks(const char* what) const {
    return mapped_ ? Device::REFUSE_FLASH_LINKS(path_, what) : XCode(XCode::SUCCESS);
}

XCode KtFile::keepAttributes(const struct stat& replaced) {
    // As a truncating write would: the owner and group where the writer may give them (root), and
    // the permission bits always, so a key stored 0600 stays 0600. The owner goes first: a change
    // of owner clears set-id bits.
    if (replaced.st_uid != ::geteuid() || replaced.st_gid != ::getegid()) {
        // A writer that may not give files away keeps them as its own; the mode still holds.
        (void)::fchown(fd_, replaced.st_uid, replaced.st_gid);
    }
    if (::fchmod(fd_, replaced.st_mode & 07777) != 0) {
        XCode failed = systemError(errno, "CANNOT OPEN");
        (void)::close(fd_);
        fd_ = -1;
        abandonTemporary();
        return failed;
    }
    return XCode::SUCCESS;
}

XCode KtFile::read(String& content, bool& eof, bool all) {
    content = String();
    eof = false;
    if (fd_ < 0) {
        return systemError(EBADF, "CANNOT READ");
    }
    char buffer[READ_BLOCK];
    while (true) {
        ssize_t got = ::read(fd_, buffer, sizeof buffer);
        if (got < 0) {
            if (errno == EINTR) {
                continue;
            }
            return systemError(errno, "CANNOT READ");
        }
        if (got == 0) {
            eof = true;
            return XCode::SUCCESS;
        }
        content.append(buffer, static_cast<std::size_t>(got));
        if (!all) {
            return XCode::SUCCESS;
        }
    }
}

XCode KtFile::writeFixedSizeBlocking(const void* data, unsigned int size, bool all) {
    if (fd_ < 0) {
        return systemError(EBADF, "CANNOT WRITE");
    }
    const char* next = static_cast<const char*>(data);
    std::size_t left = size;
    while (left > 0) {
        ssize_t written = ::write(fd_, next, left);
        if (written < 0) {
            if (errno == EINTR) {
                continue;
            }
            writeFailed_ = true;
            return systemError(errno, "CANNOT WRITE");
        }
        next += written;
        left -= static_cast<std::size_t>(written);
        if (!all) {
            break;
        }
    }
    return XCode::SUCCESS;
}

XCode KtFile::close() {
    if (fd_ < 0) {
        return XCode::SUCCESS;
    }
    const int fd = fd_;
    fd_ = -1;
    if (temporaryPath_.isEmpty()) {
        // Linux releases the descriptor also when close reports EINTR; nothing is lost then.
        if (::close(fd) != 0 && errno != EINTR) {
            return systemError(errno, "CANNOT CLOSE");
        }
        return XCode::SUCCESS;
    }

    XCode result;
    if (writeFailed_) {
        result = systemError(EIO, "CANNOT REPLACE");
        result.setStringF("CANNOT REPLACE %s: an earlier write failed", path_.c_str());
    } else if (::fsync(fd) != 0) {
        result = systemError(errno, "CANNOT WRITE");
    }
    if (::close(fd) != 0 && errno != EINTR && result.isSuccess()) {
        result = systemError(errno, "CANNOT CLOSE");
    }
    if (result.isSuccess() && ::rename(temporaryPath_.c_str(), systemPath_.c_str()) != 0) {
        result = systemError(errno, "CANNOT REPLACE");
    }
    if (result.isErr()) {
        abandonTemporary();
        return result;
    }
    temporaryPath_ = String();
    syncDirectoryOf(systemPath_);
    return XCode::SUCCESS;
}

XCode KtFile::remove() {
    if (pathError_.isErr()) {
        return pathError_;
    }
    XCode noLinks = refuseLinks("CANNOT REMOVE");
    if (noLinks.isErr()) {
        return noLinks;
    }
    if (::unlink(systemPath_.c_str()) != 0) {
        return systemError(errno, "CANNOT REMOVE");
    }
    return XCode::SUCCESS;
}

template <>
XCode KtFile::READ_TEXT_FILE<String>(const String& path, String& content, int flags, bool mapped,
                                     bool strict) {
    KtFile file(path, mapped, false);
    XCode result = file.open(flags, MODE_SHARED, XO_CLOSE_ON_EXEC);
    if (result.isErr()) {
        return result;
    }
    bool eof = false;
    result = file.read(content, eof, true);
    if (result.isErr() && (strict || !eof)) {
        return result;
    }
    return file.close();
}

XCode KtFile::WRITE_TEXT_FILE(const String& path, const String& content) {
    return WRITE_TEXT_FILE(path, content, true);
}

XCode KtFile::WRITE_TEXT_FILE(const String& path, const String& content, bool mapped) {
    KtFile file(path, mapped, false);
    XCode result = file.open(WRITE_CREATE_TRUNCATE, MODE_SHARED, XO_CLOSE_ON_EXEC);
    if (result.isErr()) {
        return result;
    }
    result = file.writeFixedSizeBlocking(content.data(),
                                         static_cast<unsigned int>(content.length()), true);
    if (result.isErr()) {
        return result;  // the destructor abandons the temporary; the old file stays
    }
    return file.close();
}
