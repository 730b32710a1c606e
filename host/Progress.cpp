#include "host/Progress.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <system_error>

#include "platform/Monitor.h"
#include "platform/simulated/DeviceDirectory.h"

namespace Provctl {

namespace {

// Back to the start of the line and erase it: what the status line leaves behind.
const char* const ERASE_LINE = "\r\033[K";

std::mutex& stderrMutex() {
    static std::mutex mutex;
    return mutex;
}

bool g_statusShown = false;  // guarded by stderrMutex()

// Called with stderrMutex() held.
void eraseStatus() {
    if (g_statusShown) {
        std::fputs(ERASE_LINE, stderr);
        g_statusShown = false;
    }
}

}  // namespace

namespace Stderr {

bool IS_TERMINAL() {
    static const bool terminal = ::isatty(STDERR_FILENO) == 1;
    return terminal;
}

void WRITE(const String& text) {
    const String escaped = RTD::Monitor::ESCAPE_CONTROLS(text);
    std::lock_guard<std::mutex> lock(stderrMutex());
    eraseStatus();
    std::fwrite(escaped.data(), 1, static_cast<std::size_t>(escaped.length()), stderr);
    std::fflush(stderr);
}

void SHOW_STATUS(const String& line) {
    if (!IS_TERMINAL()) {
        return;
    }
    const String escaped = RTD::Monitor::ESCAPE_CONTROLS(line);
    std::lock_guard<std::mutex> lock(stderrMutex());
    std::fputs("\r", stderr);
    std::fwrite(escaped.data(), 1, static_cast<std::size_t>(escaped.length()), stderr);
    std::fputs("\033[K", stderr);
    std::fflush(stderr);
    g_statusShown = true;
}

void CLEAR_STATUS() {
    std::lock_guard<std::mutex> lock(stderrMutex());
    eraseStatus();
    std::fflush(stderr);
}

}  // namespace Stderr

DownloadProgress::DownloadProgress(String jobName, bool show)
    : jobName_(std::move(jobName)), show_(show) {}

DownloadProgress::~DownloadProgress() {
    if (show_) {
        Stderr::CLEAR_STATUS();
    }
}

void DownloadProgress::onMonitorLine(const String& line) {
    const String own = "[" + jobName_ + "] ";
    long long length = 0;
    std::lock_guard<std::mutex> lock(mutex_);
    if (line.startsWith(own + "Trying to download from location ")) {
        transferRunning_ = true;
        total_ = -1;
        restart_ = true;
    } else if (line.startsWith(own + "File downloaded: ") ||
               line.startsWith(own + "DOWNLOAD LOCATION FAILED") ||
               line.startsWith(own + "Redirected: ")) {
        transferRunning_ = false;
    } else if (line.startsWith("[" + jobName_ + "/HTTP]   HTTP/")) {
        total_ = -1;  // a new response: its own length follows, if any
    } else if (PARSE_CONTENT_LENGTH(jobName_, line, length)) {
        total_ = length;
    }
}

String DownloadProgress::poll(const String& workFile, Clock::time_point now) {
    if (!show_) {
        return String();
    }
    bool running = false;
    long long total = -1;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        running = transferRunning_;
        total = total_;
        if (restart_) {
            sampled_ = false;
            restart_ = false;
        }
    }
    if (!running) {
        Stderr::CLEAR_STATUS();
        return String();
    }
    std::error_code error;
    const std::uintmax_t found =
        std::filesystem::file_size(Device::MAP_PATH(workFile).str(), error);
    const long long size = error ? 0 : static_cast<long long>(found);
    // A shorter file is a new attempt (wget truncates it): the rate starts again.
    if (!sampled_ || size < lastSize_) {
        sampled_ = true;
        firstTime_ = now;
        firstSize_ = size;
        lastDrawn_ = now;
    }
    lastSize_ = size;
    // A transfer shorter than one interval is never shown.
    if (now - lastDrawn_ < INTERVAL) {
        return String();
    }
    lastDrawn_ = now;
    const double seconds = std::chrono::duration<double>(now - firstTime_).count();
    const double rate = seconds > 0 ? static_cast<double>(size - firstSize_) / seconds : -1;
    const String text = FORMAT(jobName_, size, total, rate);
    Stderr::SHOW_STATUS(text);
    return text;
}

bool DownloadProgress::PARSE_CONTENT_LENGTH(const String& jobName, const String& line,
                                            long long& length) {
    const String prefix = "[" + jobName + "/HTTP]   Content-Length: ";
    if (!line.startsWith(prefix)) {
        return false;
    }
    String number = line.substring(prefix.length());
    number.trim();
    if (number.isEmpty() || number.length() > 18) {
        return false;
    }
    long long value = 0;
    for (char c : number.str()) {
        if (c < '0' || c > '9') {
            return false;
        }
        value = value * 10 + (c - '0');
    }
    length = value;
    return true;
}

String DownloadProgress::FORMAT_BYTES(double bytes) {
    static const char* const UNITS[] = {"KiB", "MiB", "GiB", "TiB"};
    if (bytes < 1024) {
        return String::format("%.0f B", bytes);
    }
    int unit = -1;
    while (bytes >= 1024 && unit < 3) {
        bytes /= 1024;
        ++unit;
    }
    return String::format("%.1f %s", bytes, UNITS[unit]);
}

String DownloadProgress::FORMAT(const String& jobName, long long bytes, long long total,
                                double rate) {
    String text = String::format("[%s] %s", jobName.c_str(),
                                 FORMAT_BYTES(static_cast<double>(bytes)).c_str());
    if (total >= 0) {
        const long long percent =
            total == 0 ? 100 : std::min<long long>(100, bytes * 100 / std::max(total, 1LL));
        text.concatf(" of %s (%lld%%)", FORMAT_BYTES(static_cast<double>(total)).c_str(), percent);
    }
    if (rate >= 0) {
        text.concatf(" at %s/s", FORMAT_BYTES(rate).c_str());
    }
    return text;
}

}  // namespace Provctl
