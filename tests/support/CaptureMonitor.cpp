#include "support/CaptureMonitor.h"

namespace provtest {

CaptureMonitor::CaptureMonitor(const char* name, int enabledLevel)
    : RTD::Monitor(name, enabledLevel) {
    setSink([this](const RTD::Monitor&, int level, const String& line) {
        std::lock_guard<std::mutex> guard(linesMutex_);
        entries_.push_back({level, line.str()});
    });
}

std::vector<std::string> CaptureMonitor::lines() const {
    std::lock_guard<std::mutex> guard(linesMutex_);
    std::vector<std::string> result;
    result.reserve(entries_.size());
    for (const Entry& entry : entries_) {
        result.push_back(entry.text);
    }
    return result;
}

std::vector<CaptureMonitor::Entry> CaptureMonitor::entries() const {
    std::lock_guard<std::mutex> guard(linesMutex_);
    return entries_;
}

bool CaptureMonitor::contains(const std::string& text) const {
    return find(text) >= 0;
}

int CaptureMonitor::count(const std::string& text) const {
    std::lock_guard<std::mutex> guard(linesMutex_);
    int n = 0;
    for (const Entry& entry : entries_) {
        if (entry.text.find(text) != std::string::npos) {
            ++n;
        }
    }
    return n;
}

int CaptureMonitor::indexOf(const std::string& line) const {
    std::lock_guard<std::mutex> guard(linesMutex_);
    for (std::size_t i = 0; i < entries_.size(); ++i) {
        if (entries_[i].text == line) {
            return static_cast<int>(i);
        }
    }
    return -1;
}

int CaptureMonitor::find(const std::string& text, int from) const {
    std::lock_guard<std::mutex> guard(linesMutex_);
    for (std::size_t i = from < 0 ? 0 : static_cast<std::size_t>(from); i < entries_.size(); ++i) {
        if (entries_[i].text.find(text) != std::string::npos) {
            return static_cast<int>(i);
        }
    }
    return -1;
}

int CaptureMonitor::levelOf(const std::string& line) const {
    std::lock_guard<std::mutex> guard(linesMutex_);
    for (const Entry& entry : entries_) {
        if (entry.text == line) {
            return entry.level;
        }
    }
    return -1;
}

std::string CaptureMonitor::dump() const {
    std::lock_guard<std::mutex> guard(linesMutex_);
    std::string result;
    for (const Entry& entry : entries_) {
        result += "[" + std::to_string(entry.level) + "] " + entry.text + "\n";
    }
    return result;
}

void CaptureMonitor::clear() {
    std::lock_guard<std::mutex> guard(linesMutex_);
    entries_.clear();
}

}  // namespace provtest
