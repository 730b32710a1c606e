#include "platform/Monitor.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

struct Line {
    const RTD::Monitor* monitor;
    int level;
    std::string text;
};

// Collects the lines a monitor writes; thread-safe like the monitor itself.
class Capture {
  public:
    RTD::Monitor::Sink sink() {
        return [this](const RTD::Monitor& monitor, int level, const String& line) {
            std::lock_guard<std::mutex> guard(mutex_);
            lines_.push_back({&monitor, level, line.str()});
        };
    }
    std::vector<Line> lines() const {
        std::lock_guard<std::mutex> guard(mutex_);
        return lines_;
    }

  private:
    mutable std::mutex mutex_;
    std::vector<Line> lines_;
};

void logThroughVmonitor(RTD::Monitor& monitor, int level, const char* format, ...) KT_PRINTF(3, 4);
void logThroughVmonitor(RTD::Monitor& monitor, int level, const char* format, ...) {
    va_list args;
    va_start(args, format);
    monitor.vmonitor(level, format, args);
    va_end(args);
}

void logThroughVmonitorPrefix(RTD::Monitor& monitor, int level, const String& prefix,
                              const char* format, ...) KT_PRINTF(4, 5);
void logThroughVmonitorPrefix(RTD::Monitor& monitor, int level, const String& prefix,
                              const char* format, ...) {
    va_list args;
    va_start(args, format);
    monitor.vmonitorPrefix(level, prefix, format, args);
    va_end(args);
}

TEST(MonitorTest, defaultsToLevelSix) {
    RTD::Monitor monitor("PROV");
    EXPECT_EQ(monitor.getName(), String("PROV"));
    EXPECT_EQ(monitor.getLevel(), 6);
    EXPECT_TRUE(monitor.isEnabled(6));
    EXPECT_TRUE(monitor.isEnabled(3));
    EXPECT_FALSE(monitor.isEnabled(7));
}

TEST(MonitorTest, writesFormattedLineWithLevelToSink) {
    Capture capture;
    RTD::Monitor monitor("PROV", 6, capture.sink());
    monitor.monitor(6, "[%s] Starting execution", "job1");
    monitor.monitor(3, "[%s] EXECUTION FAILED: %s", "job1", "NO LOCATIONS CONFIGURED");
    auto lines = capture.lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].monitor, &monitor);
    EXPECT_EQ(lines[0].level, 6);
    EXPECT_EQ(lines[0].text, "[job1] Starting execution");
    EXPECT_EQ(lines[1].level, 3);
    EXPECT_EQ(lines[1].text, "[job1] EXECUTION FAILED: NO LOCATIONS CONFIGURED");
}

TEST(MonitorTest, dropsLinesAboveEnabledLevel) {
    Capture capture;
    RTD::Monitor monitor("PROV", 3, capture.sink());
    monitor.monitor(6, "progress");
    monitor.monitor(4, "detail");
    monitor.monitor(3, "failure");
    monitor.monitor(0, "fatal");
    auto lines = capture.lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].text, "failure");
    EXPECT_EQ(lines[1].text, "fatal");
}

TEST(MonitorTest, setLevelChangesWhatIsWritten) {
    Capture capture;
    RTD::Monitor monitor("PROV", 3, capture.sink());
    monitor.monitor(6, "dropped");
    monitor.setLevel(6);
    EXPECT_EQ(monitor.getLevel(), 6);
    monitor.monitor(6, "written");
    monitor.setLevel(-1);
    monitor.monitor(0, "dropped too");
    auto lines = capture.lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].text, "written");
}

TEST(MonitorTest, withoutSinkLinesAreDropped) {
    RTD::Monitor monitor("PROV");
    monitor.monitor(3, "nowhere %d", 1);
    monitor.monitorPrefix(3, "[x] ", "nowhere");
    Capture capture;
    monitor.setSink(capture.sink());
    monitor.monitor(3, "somewhere");
    monitor.setSink(nullptr);
    monitor.monitor(3, "nowhere again");
    auto lines = capture.lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].text, "somewhere");
}

TEST(MonitorTest, prefixIsJoinedDirectly) {
    Capture capture;
    RTD::Monitor monitor("PROV", 6, capture.sink());
    monitor.monitorPrefix(6, "[job]/HTTP ", "%s", "HTTP/1.1 200 OK");
    monitor.monitorPrefix(6, "", "bare %d", 5);
    monitor.monitorPrefix(7, "[job] ", "dropped");
    auto lines = capture.lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].text, "[job]/HTTP HTTP/1.1 200 OK");
    EXPECT_EQ(lines[1].text, "bare 5");
}

TEST(MonitorTest, formatIsNotAppliedToPrefix) {
    Capture capture;
    RTD::Monitor monitor("PROV", 6, capture.sink());
    monitor.monitorPrefix(6, "100% ", "%s", "done");
    ASSERT_EQ(capture.lines().size(), 1u);
    EXPECT_EQ(capture.lines()[0].text, "100% done");
}

TEST(MonitorTest, vaListForms) {
    Capture capture;
    RTD::Monitor monitor("PROV", 6, capture.sink());
    logThroughVmonitor(monitor, 6, "%d-%s", 1, "a");
    logThroughVmonitorPrefix(monitor, 6, "[p] ", "%d-%s", 2, "b");
    logThroughVmonitor(monitor, 7, "%d", 3);
    auto lines = capture.lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].text, "1-a");
    EXPECT_EQ(lines[1].text, "[p] 2-b");
}

TEST(MonitorTest, longLinesAreKeptWhole) {
    Capture capture;
    RTD::Monitor monitor("XFER", 6, capture.sink());
    std::string text(2000, 'l');
    monitor.monitor(6, "%s|", text.c_str());
    ASSERT_EQ(capture.lines().size(), 1u);
    EXPECT_EQ(capture.lines()[0].text, text + "|");
}

TEST(MonitorTest, concurrentWritersLoseNoLine) {
    Capture capture;
    RTD::Monitor monitor("PROV", 6, capture.sink());
    constexpr int THREADS = 4;
    constexpr int LINES = 200;
    std::vector<std::thread> writers;
    for (int t = 0; t < THREADS; ++t) {
        writers.emplace_back([&monitor, t] {
            for (int i = 0; i < LINES; ++i) {
                monitor.monitor(6, "%d:%d", t, i);
                if (i % 50 == 0) {
                    monitor.setLevel(6);
                }
            }
        });
    }
    for (auto& writer : writers) {
        writer.join();
    }
    auto lines = capture.lines();
    ASSERT_EQ(lines.size(), static_cast<std::size_t>(THREADS * LINES));
    // Each writer's lines arrive in its own order.
    std::vector<int> next(THREADS, 0);
    for (const Line& line : lines) {
        int t = 0;
        int i = 0;
        ASSERT_EQ(std::sscanf(line.text.c_str(), "%d:%d", &t, &i), 2);
        EXPECT_EQ(i, next[static_cast<std::size_t>(t)]++);
    }
}

// --- control characters ---------------------------------------------------------------------

struct EscapeCase {
    const char* name;
    std::string text;
    std::string expected;
};

TEST(MonitorEscapeTest, controlsAreWrittenAsHexAndTextStays) {
    const EscapeCase cases[] = {
        {"plainAscii", "[job] File downloaded: 'a' -> 'b' ~",
         "[job] File downloaded: 'a' -> 'b' ~"},
        {"lineFeedAndTabStay", "a\n\tb\n", "a\n\tb\n"},
        {"escapeSequences", "\x1b]0;pwned\x07\x1b[2J", "\\x1B]0;pwned\\x07\\x1B[2J"},
        {"carriageReturn", "ok\rfake", "ok\\x0Dfake"},
        {"nulAndBackspace", std::string("a\0b\bc", 5), "a\\x00b\\x08c"},
        {"delete", "a\x7f", "a\\x7F"},
        {"utf8Stays", "Gr\xc3\xbc\xc3\x9f \xe2\x82\xac \xf0\x9f\x93\x9e",
         "Gr\xc3\xbc\xc3\x9f \xe2\x82\xac \xf0\x9f\x93\x9e"},
        {"c1InUtf8",
         "a\xc2\x9b"
         "31m",
         "a\\xC2\\x9B31m"},
        {"noBreakSpaceStays", "\xc2\xa0", "\xc2\xa0"},
        {"loneC1Byte",
         "\x9b"
         "31m",
         "\\x9B31m"},
        {"truncatedSequence", "\xe2\x82", "\\xE2\\x82"},
        {"overlongSlash", "\xc0\xaf", "\\xC0\\xAF"},
        {"surrogate", "\xed\xa0\x80", "\\xED\\xA0\\x80"},
        {"aboveUnicode", "\xf4\x90\x80\x80", "\\xF4\\x90\\x80\\x80"},
        {"backslashStays", "C:\\x41", "C:\\x41"},
    };
    for (const EscapeCase& c : cases) {
        SCOPED_TRACE(c.name);
        const String text(c.text.data(), c.text.size());
        const String escaped = RTD::Monitor::ESCAPE_CONTROLS(text);
        EXPECT_EQ(escaped.str(), c.expected);
        EXPECT_EQ(RTD::Monitor::ESCAPE_CONTROLS(escaped).str(), c.expected);
    }
}

TEST(MonitorEscapeTest, everyLineReachesTheSinkEscaped) {
    Capture capture;
    RTD::Monitor monitor("PROV", 6, capture.sink());
    monitor.monitor(6, "%s", "title\x1b]0;x\x07");
    monitor.monitorPrefix(6, "[TFTP] ", "%s", "tftp: server error: (1) \x1b[2Jgone\r\n");
    logThroughVmonitor(monitor, 6, "%s\n%s", "first", "second\x9b");
    logThroughVmonitorPrefix(monitor, 6, "[p\x1b] ", "%s", "x");
    auto lines = capture.lines();
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[0].text, "title\\x1B]0;x\\x07");
    EXPECT_EQ(lines[1].text, "[TFTP] tftp: server error: (1) \\x1B[2Jgone\\x0D\n");
    EXPECT_EQ(lines[2].text, "first\nsecond\\x9B");
    EXPECT_EQ(lines[3].text, "[p\\x1B] x");
}

TEST(MonitorRepositoryTest, monitorIfEnabledForLogging) {
    RTD::Monitor monitor("PROV", 4);
    EXPECT_EQ(RTD::REPOSITORY::GET_MONITOR_IF_ENABLED_FOR_LOGGING(&monitor, 4), &monitor);
    EXPECT_EQ(RTD::REPOSITORY::GET_MONITOR_IF_ENABLED_FOR_LOGGING(&monitor, 3), &monitor);
    EXPECT_EQ(RTD::REPOSITORY::GET_MONITOR_IF_ENABLED_FOR_LOGGING(&monitor, 5), nullptr);
    EXPECT_EQ(RTD::REPOSITORY::GET_MONITOR_IF_ENABLED_FOR_LOGGING(nullptr, 0), nullptr);
}

TEST(MonitorGlobalsTest, eventMonitorStartsNullAndInvalidText) {
    EXPECT_EQ(MON_EVENT, nullptr);
    EXPECT_STREQ(ERROR::INVALID, "<INVALID>");
}

}  // namespace
