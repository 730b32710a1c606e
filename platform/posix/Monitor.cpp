#include "platform/Monitor.h"

RTD::Monitor* MON_EVENT = nullptr;

namespace ERROR {
const char* const INVALID = "<INVALID>";
}

namespace RTD {

namespace {

// The length of the UTF-8 sequence at `at` when it is valid (shortest form, no surrogate, at most
// U+10FFFF) and encodes no C1 control; 0 otherwise.
int printableSequenceLength(const unsigned char* bytes, int at, int length) {
    const unsigned char lead = bytes[at];
    int size = 0;
    unsigned char low = 0x80;
    unsigned char high = 0xBF;
    if (lead >= 0xC2 && lead <= 0xDF) {
        size = 2;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        size = 3;
        low = lead == 0xE0 ? 0xA0 : 0x80;
        high = lead == 0xED ? 0x9F : 0xBF;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        size = 4;
        low = lead == 0xF0 ? 0x90 : 0x80;
        high = lead == 0xF4 ? 0x8F : 0xBF;
    } else {
        return 0;
    }
    if (at + size > length || bytes[at + 1] < low || bytes[at + 1] > high) {
        return 0;
    }
    for (int i = 2; i < size; ++i) {
        if (bytes[at + i] < 0x80 || bytes[at + i] > 0xBF) {
            return 0;
        }
    }
    // U+0080 to U+009F: C2 80 to C2 9F.
    if (lead == 0xC2 && bytes[at + 1] <= 0x9F) {
        return 0;
    }
    return size;
}

bool isPlainByte(unsigned char c) {
    return c == '\n' || c == '\t' || (c >= 0x20 && c < 0x7F);
}

}  // namespace

String Monitor::ESCAPE_CONTROLS(const String& text) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
    const int length = text.length();
    int at = 0;
    while (at < length && isPlainByte(bytes[at])) {
        ++at;
    }
    if (at == length) {
        return text;  // the common line: nothing to escape, nothing copied byte by byte
    }
    String escaped(text.data(), static_cast<std::size_t>(at));
    while (at < length) {
        if (isPlainByte(bytes[at])) {
            escaped += static_cast<char>(bytes[at]);
            ++at;
            continue;
        }
        const int size = bytes[at] >= 0x80 ? printableSequenceLength(bytes, at, length) : 0;
        if (size > 0) {
            escaped.append(text.data() + at, static_cast<std::size_t>(size));
            at += size;
        } else {
            escaped.concatf("\\x%02X", bytes[at]);
            ++at;
        }
    }
    return escaped;
}

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
        sink_(*this, level, ESCAPE_CONTROLS(line));
    }
}

namespace REPOSITORY {
Monitor* GET_MONITOR_IF_ENABLED_FOR_LOGGING(Monitor* monitor, int level) {
    return monitor != nullptr && monitor->isEnabled(level) ? monitor : nullptr;
}
}  // namespace REPOSITORY

}  // namespace RTD
