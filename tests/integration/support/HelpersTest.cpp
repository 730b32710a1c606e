// The small helpers of the test-support library: temporary directories, files and the capturing
// monitor.

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "support/CaptureMonitor.h"
#include "support/TempDir.h"

using namespace provtest;

TEST(TempDirTest, isFreshUniqueAndRemovedWithItsContent) {
    std::string kept;
    {
        TempDir first("prov-helpers");
        TempDir second("prov-helpers");
        EXPECT_NE(first.path(), second.path());
        EXPECT_EQ(0u, first.path().find("/tmp/prov-helpers-"));
        writeFile(first.file("a/b/c.txt"), "deep");
        EXPECT_EQ("deep", readFile(first.path() + "/a/b/c.txt"));
        kept = first.path();
    }
    EXPECT_FALSE(fileExists(kept));
}

TEST(TempDirTest, writeFileReplacesAndKeepsBytes) {
    TempDir dir;
    std::string bytes("a\0b\r\n", 5);
    writeFile(dir.file("f"), "something longer");
    writeFile(dir.file("f"), bytes);
    EXPECT_EQ(bytes, readFile(dir.file("f")));
    EXPECT_EQ(dir.file("f"), dir.file("/f"));
}

TEST(CaptureMonitorTest, keepsLinesWithTheirLevels) {
    CaptureMonitor monitor;
    monitor.monitor(6, "[%s] Starting execution", "job");
    monitor.monitorPrefix(3, "[TFTP] ", "%s", "error text");
    monitor.monitor(6, "[%s] Starting execution", "job");

    EXPECT_EQ((std::vector<std::string>{"[job] Starting execution", "[TFTP] error text",
                                        "[job] Starting execution"}),
              monitor.lines());
    EXPECT_TRUE(monitor.contains("error"));
    EXPECT_FALSE(monitor.contains("absent"));
    EXPECT_EQ(2, monitor.count("Starting"));
    EXPECT_EQ(1, monitor.indexOf("[TFTP] error text"));
    EXPECT_EQ(-1, monitor.indexOf("[TFTP] error"));
    EXPECT_EQ(2, monitor.find("Starting", 1));
    EXPECT_EQ(3, monitor.levelOf("[TFTP] error text"));
    monitor.clear();
    EXPECT_TRUE(monitor.lines().empty());
}

TEST(CaptureMonitorTest, dropsLinesAboveItsLevel) {
    CaptureMonitor monitor("TEST", 3);
    monitor.monitor(6, "progress");
    monitor.monitor(3, "failure");
    EXPECT_EQ(std::vector<std::string>{"failure"}, monitor.lines());
}

TEST(CaptureMonitorTest, takesLinesFromSeveralThreads) {
    CaptureMonitor monitor;
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&monitor, t] {
            for (int i = 0; i < 250; ++i) {
                monitor.monitor(6, "thread %d line %d", t, i);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(1000u, monitor.lines().size());
    EXPECT_EQ(250, monitor.count("thread 2 "));
}
