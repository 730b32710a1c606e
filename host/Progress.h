#pragma once

#include <chrono>
#include <mutex>

#include "platform/String.h"

namespace Provctl {

// Standard error as provctl writes it: monitor lines, and on a terminal one status line below
// them that is rewritten in place ("\r"). A monitor line erases the status line first, so that
// monitor lines look the same with and without it; the status line is drawn again at the next
// update. Thread-safe: monitor lines may come from any thread.
namespace Stderr {

// Whether standard error is a terminal (checked once).
bool IS_TERMINAL();
// Writes `text` (whole lines) to standard error, control characters escaped
// (RTD::Monitor::ESCAPE_CONTROLS).
void WRITE(const String& text);
// Shows `line` as the status line (terminal only; a line end in it is not allowed), control
// characters escaped.
void SHOW_STATUS(const String& line);
// Erases the status line if one is shown.
void CLEAR_STATUS();

}  // namespace Stderr

// The progress of one job's download: the size of its work file so far, the rate and, when the
// server announced it, the percentage. It learns from the job's monitor lines when a transfer
// starts ("[name] Trying to download from location ...") and ends ("[name] File downloaded: ..."),
// and the announced size from "[name/HTTP]   Content-Length: N" of the last response.
//
// onMonitorLine may be called from any thread; poll() runs on the job's loop thread.
class DownloadProgress {
  public:
    using Clock = std::chrono::steady_clock;
    // The status line is redrawn at most this often.
    static constexpr std::chrono::milliseconds INTERVAL{200};

    // `show`: false off a terminal; then poll() draws nothing.
    DownloadProgress(String jobName, bool show);
    // Erases the status line.
    ~DownloadProgress();
    DownloadProgress(const DownloadProgress&) = delete;
    DownloadProgress& operator=(const DownloadProgress&) = delete;

    void onMonitorLine(const String& line);
    // Samples the size of `workFile` and redraws the line when INTERVAL has passed since the last
    // drawing. Returns the text drawn (empty when nothing was drawn).
    String poll(const String& workFile, Clock::time_point now = Clock::now());

    // The announced length of "[name/HTTP]   Content-Length: N"; false for any other line.
    static bool PARSE_CONTENT_LENGTH(const String& jobName, const String& line, long long& length);
    // "[name] 1.5 MiB of 3.0 MiB (50%) at 750.0 KiB/s"; `total` < 0: unknown (no "of", no
    // percentage); `rate` < 0: unknown (no "at").
    static String FORMAT(const String& jobName, long long bytes, long long total, double rate);
    // 999 B, 1.0 KiB, 1.5 MiB, 2.0 GiB.
    static String FORMAT_BYTES(double bytes);

  private:
    const String jobName_;
    const bool show_;
    std::mutex mutex_;
    bool transferRunning_ = false;  // guarded by mutex_
    long long total_ = -1;          // guarded by mutex_
    bool restart_ = false;          // guarded by mutex_: a new transfer began
    // Loop thread only.
    bool sampled_ = false;
    Clock::time_point firstTime_;
    long long firstSize_ = 0;
    Clock::time_point lastDrawn_;
    long long lastSize_ = -1;
};

}  // namespace Provctl
