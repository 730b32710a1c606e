#pragma once

// The steps of one upgrade of the simulated update controller, and what they share. Private to
// the platform (not installed): UpdateController.cpp runs the steps on a worker of its own.

#include <sys/types.h>

#include <cstddef>

#include "platform/String.h"
#include "platform/XCode.h"
#include "platform/testing/UpdateControllerHooks.h"

namespace RTD {
class Monitor;
}

namespace UpdateController {

// What every step may ask of the upgrade that runs it. Called on the upgrade's worker.
class StepContext {
  public:
    virtual ~StepContext() = default;
    // "UPGRADE CANCELLED" once the upgrade was cancelled: the step ends at once with it.
    [[nodiscard]] virtual XCode checkStop() const = 0;
    // A progress report for the handler (dropped once cancelled).
    virtual void progress(const String& text) = 0;
};

// The source of an upgrade from a local archive: "file:<archive>".
constexpr const char* ARCHIVE_PREFIX = "file:";

// ---- Results and tool output ----

// A tool's failure: its result, then the last non-empty line it printed.
String describeToolFailure(const XCode& result, const String& output);

// ---- Files ----

// A private directory under /tmp/provisioning, removed with its content on every path. It keeps
// its device path (commands and reports name it so); the shell and openRegularFile map it.
class WorkDirectory {
  public:
    WorkDirectory() = default;
    WorkDirectory(const WorkDirectory&) = delete;
    WorkDirectory& operator=(const WorkDirectory&) = delete;
    ~WorkDirectory() { remove(); }

    [[nodiscard]] XCode create();
    void remove();
    const String& path() const { return path_; }
    String file(const char* name) const { return path_ + "/" + name; }

  private:
    String path_;
};

// A descriptor closed on every path.
class Descriptor {
  public:
    explicit Descriptor(int fd = -1) : fd_(fd) {}
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor() { static_cast<void>(close()); }
    int get() const { return fd_; }
    void reset(int fd) {
        static_cast<void>(close());
        fd_ = fd;
    }
    // The error of close(2), 0 on success.
    int close();

  private:
    int fd_;
};

// Opens a regular file for reading, refusing symbolic links and anything that is not a file
// ("<what> IS NOT A FILE"). Non-blocking, so that a FIFO (which an archive can carry) is refused
// instead of blocking the open until a writer comes; reads of a regular file do not care.
[[nodiscard]] XCode openRegularFile(const String& path, const char* what, Descriptor& fd,
                                    off_t& size);
// A manifest or a script, read whole: a plain file (FileNode::READ_CAPPED, else "<what> IS NOT A
// FILE") no larger than FileNode::CONTENT_CAP() ("<what> TOO LARGE").
[[nodiscard]] XCode readText(const String& path, const char* what, String& text);

// ---- The steps ----

// Lists the archive (every member name checked: none absolute, none with ".."), then extracts
// "manifest" and, when the archive has it, "image" into `directory`. `hasImage` tells which.
[[nodiscard]] XCode EXTRACT_ARCHIVE(StepContext& context, const String& archive,
                                    const String& directory, bool& hasImage);
// Fetches `uri` into `localFile` with tftp or wget, with the request's HTTPS settings, and with
// its user and password only when `uri` has the origin of the request's own source (a fetch with
// them follows no redirect).
[[nodiscard]] XCode FETCH(StepContext& context, const Request& request, const String& uri,
                          const String& localFile);
// Writes the image into the slot that does not run, through a temporary beside it, and records
// `version` for that slot. `summary` tells what was written.
[[nodiscard]] XCode WRITE_IMAGE(StepContext& context, const String& imageFile,
                                const String& version, String& summary);
// Runs the script on the running system one line at a time, logging on `monitor`; the first
// failing line ends it ("SCRIPT FAILED AT LINE <n>: ...").
[[nodiscard]] XCode RUN_SCRIPT(StepContext& context, const String& script, RTD::Monitor* monitor,
                               String& summary);

}  // namespace UpdateController
