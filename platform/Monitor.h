#pragma once

#include <cstdarg>
#include <functional>
#include <mutex>

#include "platform/String.h"

// The device contract: every declaration below is part of the interface.
#pragma GCC visibility push(default)

namespace RTD {

// A named log channel with an enabled level: a line of level L is written when L is not greater
// than the enabled level (smaller numbers are more important). Where the lines go is the host's
// choice (the sink); without a sink they are dropped. Every line reaches the sink with
// ESCAPE_CONTROLS applied: lines carry text from servers and tools, and none of it may drive the
// terminal that shows the log. Thread-safe.
class Monitor {
  public:
    using Sink = std::function<void(const Monitor& monitor, int level, const String& line)>;

    explicit Monitor(String name, int enabledLevel = 6, Sink sink = nullptr);

    void monitor(int level, const char* format, ...) KT_PRINTF(3, 4);
    void vmonitor(int level, const char* format, va_list args);
    // Writes `prefix` directly followed by the formatted text.
    void monitorPrefix(int level, const String& prefix, const char* format, ...) KT_PRINTF(4, 5);
    void vmonitorPrefix(int level, const String& prefix, const char* format, va_list args);

    const String& getName() const { return name_; }
    int getLevel() const;
    void setLevel(int level);
    bool isEnabled(int level) const { return level <= getLevel(); }
    void setSink(Sink sink);

    // `text` with every byte that could drive a terminal written as "\xHH" (two upper-case hex
    // digits): the C0 controls but line feed and tab, DEL, the C1 controls (U+0080 to U+009F,
    // the bytes of their UTF-8 form), and every byte that is not part of valid UTF-8 (a lone
    // 0x9B is a control sequence to a terminal that is not in UTF-8). Line feeds stay: they
    // separate the lines of a multi-line message, and the host writes each line on its own.
    // Printable ASCII and valid UTF-8 stay as they are. Applying it twice changes nothing more.
    static String ESCAPE_CONTROLS(const String& text);

  private:
    void write(int level, const String& line);

    String name_;
    mutable std::mutex mutex_;
    int enabledLevel_;
    Sink sink_;
};

namespace REPOSITORY {
// The monitor when it is not null and enabled for `level`, otherwise null.
Monitor* GET_MONITOR_IF_ENABLED_FOR_LOGGING(Monitor* monitor, int level);
}  // namespace REPOSITORY

}  // namespace RTD

// Event-level messages (stored or executed updates). Provided by the platform; null until the host
// sets it.
extern RTD::Monitor* MON_EVENT;

namespace ERROR {
// The text that conversions to text give for a value outside their table.
extern const char* const INVALID;
}  // namespace ERROR

#pragma GCC visibility pop
