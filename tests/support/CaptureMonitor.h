#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "platform/Monitor.h"

namespace provtest {

// A monitor that keeps every line written to it, for tests to look at. Lines may be written from
// any thread; the readers take a snapshot under the same lock.
class CaptureMonitor : public RTD::Monitor {
  public:
    struct Entry {
        int level;
        std::string text;
    };

    explicit CaptureMonitor(const char* name = "TEST", int enabledLevel = 9);
    CaptureMonitor(const CaptureMonitor&) = delete;
    CaptureMonitor& operator=(const CaptureMonitor&) = delete;

    std::vector<std::string> lines() const;
    std::vector<Entry> entries() const;
    // True when some line contains `text`.
    bool contains(const std::string& text) const;
    // The number of lines that contain `text`.
    int count(const std::string& text) const;
    // The index of the first line equal to `line`, or -1.
    int indexOf(const std::string& line) const;
    // The index of the first line at or after `from` that contains `text`, or -1.
    int find(const std::string& text, int from = 0) const;
    // The level of the first line equal to `line`, or -1.
    int levelOf(const std::string& line) const;
    // All lines, one per text line, for failure messages.
    std::string dump() const;
    void clear();

  private:
    mutable std::mutex linesMutex_;
    std::vector<Entry> entries_;
};

}  // namespace provtest
