#pragma once

#include <cstddef>

#include "platform/String.h"
#include "platform/XCode.h"

// The host side of the POSIX backend: exported for the simulated device and provctl.
#pragma GCC visibility push(default)

// Files of the host that may hold secrets (passwords for the HTTP realms): read whole, with the
// owner and mode of the very file that was read, so that the caller can refuse a file that others
// may read or change.
namespace PrivateFile {

struct Access {
    unsigned int mode = 0;  // permission bits, as stat reports them
    unsigned int owner = 0;
    unsigned int effectiveUser = 0;

    // Owned by the effective user, and neither read nor written by group or others.
    bool ownerOnly() const { return owner == effectiveUser && (mode & 066U) == 0; }
};

// Reads the host file `path` (not mapped) whole, following links, and tells its access, taken
// from the opened file. A missing file is not an error: `exists` false, `text` empty; a symbolic
// link to nothing is ("<path>: dangling symbolic link (to <target>)"). Other errors: not a regular
// file ("<path>: not a regular file (a directory)"; a FIFO is refused without waiting for a
// writer), larger than `maxSize` ("<path>: larger than <n> bytes"), any system error
// ("<path>: <the system's reason>").
[[nodiscard]] XCode READ(const String& path, std::size_t maxSize, String& text, Access& access,
                         bool& exists);

// Writes `text` to the host file `path` (not mapped), readable and writable by its owner only:
// a new file is created 0600 and an existing one made so before anything is written.
[[nodiscard]] XCode WRITE(const String& path, const String& text);

// Reads standard input to its end; more than `maxSize` bytes is an error.
[[nodiscard]] XCode READ_STANDARD_INPUT(std::size_t maxSize, String& text);

}  // namespace PrivateFile

#pragma GCC visibility pop
