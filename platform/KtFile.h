#pragma once

#include <sys/types.h>

#include "platform/String.h"
#include "platform/XCode.h"

// The device contract: every declaration below is part of the interface.
#pragma GCC visibility push(default)

struct stat;

// A file of the device. Device paths under "/flash/" are mapped into the device directory
// (on a host, see posix/DevicePaths.h); every other path is used as it is. A mapped flash path that
// climbs out of flash with ".." is refused by open() and remove() ("PATH LEAVES FLASH: <path>").
// Errors carry the errno as XCode::fromErrno and a message that names the device path,
// "CANNOT OPEN /flash/x: Permission denied". A symbolic link in flash (at the path or at a
// directory on the way) is never read, replaced or removed through: "CANNOT OPEN /flash/x:
// symbolic link", "CANNOT REPLACE ...", "CANNOT REMOVE ..." (Device::REFUSE_FLASH_LINKS).
// One object is used by one thread at a time.
class KtFile {
  public:
    enum XOFlag { XO_NONE = 0, XO_CLOSE_ON_EXEC = 1 };

    // The flags of open() and READ_TEXT_FILE, in the device's numbering: Linux's generic open(2)
    // values, the ones the device's interface gives (0 read only, 65 write and create, 577
    // write, create and truncate). open() translates them to the host's own values in one place,
    // since these differ on some architectures (O_CREAT and O_TRUNC on MIPS, O_NOFOLLOW on ARM).
    // A bit outside these is refused (EINVAL).
    static constexpr int READ_ONLY = 0;
    static constexpr int WRITE_ONLY = 01;
    static constexpr int READ_WRITE = 02;
    static constexpr int CREATE = 0100;
    static constexpr int EXCLUSIVE = 0200;
    static constexpr int TRUNCATE = 01000;
    static constexpr int NO_FOLLOW = 0400000;
    static constexpr int WRITE_CREATE_TRUNCATE = WRITE_ONLY | CREATE | TRUNCATE;  // 577
    // Permission bits are the same everywhere: a file that its owner writes and all may read
    // (0644, 420), and one that only its owner may read and write (0600).
    static constexpr unsigned int MODE_SHARED = 0644;
    static constexpr unsigned int MODE_PRIVATE = 0600;

    // `mapped`: map device paths (true everywhere in the engine); `unused` is kept for the
    // device library's signature.
    KtFile(const String& path, bool mapped = true, bool unused = false);
    ~KtFile();
    KtFile(const KtFile&) = delete;
    KtFile& operator=(const KtFile&) = delete;

    // `flags` in the device's numbering above (READ_ONLY, WRITE_CREATE_TRUNCATE, ...).
    // A write with O_TRUNC goes to a temporary beside the target that close() renames over it,
    // so a reader never sees a torn file and a failed write leaves the old file intact. A new
    // file is created with `mode` (less the umask); a replaced file keeps its permission bits
    // (and, where the writer may set them, its owner and group), as a truncating write keeps
    // them. The descriptor is always close-on-exec
    // (XO_CLOSE_ON_EXEC is accepted and implied), so no spawned tool inherits it.
    [[nodiscard]] XCode open(int flags, unsigned int mode, XOFlag xoFlag);
    // `content` is replaced by what is read: all that is left when `all`, else one block.
    // `eof` tells whether the end was reached.
    [[nodiscard]] XCode read(String& content, bool& eof, bool all);
    // Writes `size` bytes, all of them when `all` (retrying short writes), else what one write
    // takes. After a failed write, close() no longer commits a truncating write.
    [[nodiscard]] XCode writeFixedSizeBlocking(const void* data, unsigned int size, bool all);
    // Closes (success when nothing is open); for a truncating write, commits the new content
    // (fsync and rename). A commit that fails removes the temporary and keeps the old file.
    [[nodiscard]] XCode close();
    [[nodiscard]] XCode remove();

    const String& getPath() const { return path_; }
    const String& getSystemPath() const { return systemPath_; }

    // Whole-file reader: opens with `flags` and mode 0644 and reads it all. A read error is
    // forgiven only when `strict` is false and the end of the file was reached.
    template <typename T>
    [[nodiscard]] static XCode READ_TEXT_FILE(const String& path, T& content, int flags,
                                              bool mapped, bool strict);
    // Whole-file writer with the atomic replace described at open() (flags 577, mode 0644;
    // `path` is mapped).
    [[nodiscard]] static XCode WRITE_TEXT_FILE(const String& path, const String& content);
    // The same for a path that is mapped only when `mapped` (false: a host path).
    [[nodiscard]] static XCode WRITE_TEXT_FILE(const String& path, const String& content,
                                               bool mapped);

  private:
    void abandonTemporary();
    [[nodiscard]] XCode refuseLinks(const char* what) const;
    // Gives the open temporary the mode (and owner) of the file it is to replace.
    [[nodiscard]] XCode keepAttributes(const struct stat& replaced);

    [[nodiscard]] XCode systemError(int error, const char* what) const;

    String path_;
    String systemPath_;
    String temporaryPath_;
    XCode pathError_;  // set when the mapped path leaves flash
    bool mapped_ = true;
    bool writeFailed_ = false;
    int fd_ = -1;
};

template <>
XCode KtFile::READ_TEXT_FILE<String>(const String& path, String& content, int flags, bool mapped,
                                     bool strict);

#pragma GCC visibility pop
