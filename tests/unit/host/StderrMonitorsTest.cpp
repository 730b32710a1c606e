#include "host/StderrMonitors.h"

#include <gtest/gtest.h>

#include <mutex>
#include <vector>

#include "engine/Monitors.h"

namespace {

using Provctl::StderrMonitors;

TEST(StderrMonitorsTest, lineCarriesTagAndLevel) {
    EXPECT_EQ(StderrMonitors::FORMAT("XFER", 6, "config : a -> b : succeeded"),
              "XFER 6 config : a -> b : succeeded\n");
}

TEST(StderrMonitorsTest, everyLineOfAMultiLineTextIsTagged) {
    EXPECT_EQ(StderrMonitors::FORMAT("PROV", 6, "one\n  two\nthree\n"),
              "PROV 6 one\nPROV 6   two\nPROV 6 three\n");
}

TEST(StderrMonitorsTest, emptyTextIsOneEmptyLine) {
    EXPECT_EQ(StderrMonitors::FORMAT("EVENT", 3, ""), "EVENT 3 \n");
}

TEST(StderrMonitorsTest, monitorsAreSetForTheirLifetime) {
    {
        StderrMonitors monitors(4);
        ASSERT_NE(MON_PROV, nullptr);
        ASSERT_NE(MON_XFER, nullptr);
        ASSERT_NE(MON_EVENT, nullptr);
        EXPECT_EQ(MON_PROV->getName(), "PROV");
        EXPECT_EQ(MON_XFER->getName(), "XFER");
        EXPECT_EQ(MON_EVENT->getName(), "EVENT");
        EXPECT_TRUE(MON_PROV->isEnabled(4));
        EXPECT_FALSE(MON_PROV->isEnabled(5));
    }
    EXPECT_EQ(MON_PROV, nullptr);
    EXPECT_EQ(MON_XFER, nullptr);
    EXPECT_EQ(MON_EVENT, nullptr);
}

TEST(StderrMonitorsTest, observerSeesLinesAboveTheWrittenLevel) {
    std::mutex mutex;
    std::vector<std::string> seen;
    {
        StderrMonitors monitors(3, [&](const String& tag, int level, const String& text) {
            std::lock_guard<std::mutex> lock(mutex);
            seen.push_back(tag.str() + " " + std::to_string(level) + " " + text.str());
        });
        EXPECT_TRUE(MON_PROV->isEnabled(6));
        EXPECT_FALSE(MON_PROV->isEnabled(7));
        MON_PROV->monitor(6, "[fw/HTTP]   Content-Length: %d", 42);
        MON_XFER->monitor(3, "fw : a -> b : failed");
    }
    EXPECT_EQ(seen, (std::vector<std::string>{"PROV 6 [fw/HTTP]   Content-Length: 42",
                                              "XFER 3 fw : a -> b : failed"}));
}

TEST(StderrMonitorsTest, observerKeepsAHigherLevel) {
    StderrMonitors monitors(8, [](const String&, int, const String&) {});
    EXPECT_TRUE(MON_PROV->isEnabled(8));
    EXPECT_FALSE(MON_PROV->isEnabled(9));
}

}  // namespace
