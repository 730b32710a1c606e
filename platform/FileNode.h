#pragma once

#include <cstddef>

#include "platform/String.h"
#include "platform/XCode.h"

// The device contract: every declaration below is part of the interface.
#pragma GCC visibility push(default)

// What lies at a path of the work directory, looked at and removed without ever following a
// symbolic link, and read only when it is a plain file of bounded size. A tool run by the engine
// (tar extracting a server's archive) can leave any kind of node under any name there: these are
// the only functions that look at such a node, so every caller makes the same decision.
// Paths are device paths, mapped as KtFile maps them (Device::MAP_PATH). Thread-safe.
namespace FileNode {

enum class Kind {
    Missing,
    Regular,
    Directory,
    SymbolicLink,
    Fifo,
    CharacterDevice,
    BlockDevice,
    Socket
};

struct Info {
    Kind kind = Kind::Missing;
    unsigned long links = 0;
    unsigned long long size = 0;
};

// The node itself, as lstat sees it (a link is reported as a link, never as its target). Nothing
// there is success with Kind::Missing; any other failure is an error naming the path.
[[nodiscard]] XCode INSPECT(const String& path, Info& info);
// True for a regular file with exactly one link: the only kind of node the engine reads or hands
// on from the work directory.
bool IS_PLAIN_FILE(const Info& info);
// "a regular file", "a symbolic link", "a directory", "a FIFO", ... for messages.
const char* KIND_NAME(Kind kind);

// Removes whatever is at `path` without following links and without opening anything but
// directories (O_NOFOLLOW): a directory with all it holds, depth first; a link, never its target.
// Nothing there is success.
[[nodiscard]] XCode REMOVE_WITHOUT_FOLLOWING(const String& path);

// Why a node is not a plain file: "is a symbolic link", "has 2 links"; empty for a plain file.
String WHY_NOT_PLAIN(const Info& info);

// Reads the file at `path` whole, at most `cap` bytes. Anything but a regular file with one link
// is refused before it is opened ("UNSAFE FILE: <path> is a FIFO", the generic failure); the open
// itself uses O_NOFOLLOW and O_NONBLOCK, so a name changed into a link or a FIFO meanwhile is
// neither followed nor waited for. A longer file is refused with "FILE TOO LARGE: <path> is
// larger than <cap> bytes" (see IS_TOO_LARGE) after reading cap + 1 bytes at most. A failing
// system call gives its errno.
[[nodiscard]] XCode READ_CAPPED(const String& path, String& content, std::size_t cap);
// True for the refusal of READ_CAPPED of a file over its cap.
bool IS_TOO_LARGE(const XCode& result);
// True for the refusal of READ_CAPPED of a node that is not a plain file.
bool IS_REFUSED(const XCode& result);

// Caps on what is read from, or extracted into, the work directory.
// A manifest, extracted from an archive or downloaded, holds a handful of "key=value" lines, a
// few hundred bytes: 64 KiB leaves two orders of magnitude of room and still keeps a size bomb
// out of memory and off the monitors. Also the file-size limit of the extracting tar.
constexpr std::size_t DEFAULT_MANIFEST_CAP = std::size_t{64} * 1024;
std::size_t MANIFEST_CAP();
// A configuration, dial plan, key or wizard file: the largest real configurations are a few
// hundred KiB; 16 MiB is far above any of them and far below the memory of the device.
constexpr std::size_t DEFAULT_CONTENT_CAP = std::size_t{16} * 1024 * 1024;
std::size_t CONTENT_CAP();

}  // namespace FileNode

#pragma GCC visibility pop
