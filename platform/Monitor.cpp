#include "Monitor.h"

RTD::Monitor* MON_EVENT = nullptr;

namespace ERROR {
const char* const INVALID = "<INVALID>";
}

namespace RTD {

Monitor::Monitor(String name, int enabledLevel, Sink sink)
    : name_(std::move(name)), enabledLevel_(enabledLevel), sink_(std::move(sink)) {}

int Monitor::getLevel() const {
    std::lock_guard<std::mutex> guard(mutex_);
    return enabledLevel_;
}

void Monitor::setLevel(int level) {
    std::lock_guard<std::mutex> guard(mutex_);
    enabledLevel_ = level;
}

void Monitor::setSink(Sink sink) {
    std::lock_guard<std::mutex> guard(mutex_);
    sink_ = std::move(sink);
}

void Monitor::monitor(int level, const char* format, ...) {
    va_list args;
    va_start(args, format);
    vmonitor(level, format, args);
    va_end(args);
}

void Monitor::vmonitor(int level, const char* format, va_list args) {
    if (isEnabled(level)) {
        write(level, String::vformat(format, args));
    }
}

void Monitor::monitorPrefix(int level, const String& prefix, const char* format, ...) {
    va_list args;
    va_start(args, format);
    vmonitorPrefix(level, prefix, format, args);
    va_end(args);
}

void Monitor::vmonitorPrefix(int level, const String& prefix, const char* format, va_list args) {
    if (isEnabled(level)) {
        write(level, prefix + String::vformat(format, args));
    }
}

void Monitor::write(int level, const String& line) {
    std::lock_guard<std::mutex> guard(mutex_);
    if (sink_) {
        sink_(*this, level, line);
    }
}

namespace REPOSITORY {
Monitor* GET_MONITOR_IF_ENABLED_FOR_LOGGING(Monitor* monitor, int level) {
    return monitor != nullptr && monitor->isEnabled(level) ? monitor : nullptr;
}
}  // namespace REPOSITORY

}  // namespace RTD
