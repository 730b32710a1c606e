#pragma once

#include <sys/types.h>

#include "String.h"
#include "XCode.h"

// A file of the device. Device paths under "/flash/" are mapped into the device directory
// (see Device.h); every other path is used as it is.
class KtFile {
public:
    enum XOFlag { XO_NONE = 0, XO_CLOSE_ON_EXEC = 1 };

    // `mapped`: map device paths (true everywhere in the engine); `unused` is kept for the
    // device library's signature.
    KtFile(const String& path, bool mapped = true, bool unused = false);
    ~KtFile();
    KtFile(const KtFile&) = delete;
    KtFile& operator=(const KtFile&) = delete;

    // flags are Linux open(2) flags (0 read only, 65 write+create, 577 write+create+truncate).
    // A write with O_TRUNC goes to a temporary beside the target that close() renames over it,
    // so a reader never sees a torn file and a failed write leaves the old file intact.
    [[nodiscard]] XCode open(int flags, unsigned int mode, XOFlag xoFlag);
    // Reads all that is left into `content`; `eof` tells whether the end was reached.
    [[nodiscard]] XCode read(String& content, bool& eof, bool all);
    [[nodiscard]] XCode writeFixedSizeBlocking(const void* data, unsigned int size, bool all);
    // Closes; for a truncating write, commits the new content (fsync and rename).
    [[nodiscard]] XCode close();
    [[nodiscard]] XCode remove();

    const String& getPath() const { return path_; }
    const String& getSystemPath() const { return systemPath_; }

    // Whole-file reader: opens with `flags` and mode 0644 and reads it all. A read error is
    // forgiven only when `strict` is false and the end of the file was reached.
    template <typename T>
    [[nodiscard]] static XCode READ_TEXT_FILE(const String& path, T& content, int flags,
                                              bool mapped, bool strict);
    // Whole-file writer with the atomic replace described at open().
    [[nodiscard]] static XCode WRITE_TEXT_FILE(const String& path, const String& content);

private:
    void abandonTemporary();

    String path_;
    String systemPath_;
    String temporaryPath_;
    int fd_ = -1;
};

template <>
XCode KtFile::READ_TEXT_FILE<String>(const String& path, String& content, int flags, bool mapped,
                                     bool strict);
