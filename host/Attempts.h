#pragma once

#include <mutex>
#include <vector>

#include "platform/String.h"

namespace Provctl {

// One location that the job tried, as its monitor lines tell it.
struct Attempt {
    String location;      // as the job shows it (a login masked)
    String outcome;       // "transferred", "failed" or "not finished"
    String redirectedTo;  // the last redirect's target; empty when none
    String reason;        // failed: the engine's reason for this location
    String toolLine;      // the tool's own last error line ("tftp: server error: ..."), if any
};

// Follows a job's MON_PROV lines ("Trying to download from location ...", "Redirected: ...",
// "DOWNLOAD LOCATION FAILED: ...", the tools' output) and keeps one Attempt per location tried.
// onLine may be called from any thread.
class AttemptLog {
  public:
    void onLine(const String& tag, const String& text);
    std::vector<Attempt> attempts() const;
    // The tool's last error line of the last location that failed; empty when there is none.
    String lastToolLine() const;

  private:
    void onProgress(const String& body);
    void onToolLine(const String& line);

    mutable std::mutex mutex_;
    std::vector<Attempt> attempts_;
};

}  // namespace Provctl
