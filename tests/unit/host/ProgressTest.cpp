#include "host/Progress.h"

#include <gtest/gtest.h>

#include <string>

#include "support/TempDir.h"

namespace {

using Provctl::DownloadProgress;
using namespace std::chrono_literals;

TEST(ProgressTest, contentLengthIsReadFromTheJobsHttpLine) {
    long long length = -1;
    EXPECT_TRUE(DownloadProgress::PARSE_CONTENT_LENGTH("fw", "[fw/HTTP]   Content-Length: 1048576",
                                                       length));
    EXPECT_EQ(length, 1048576);
}

TEST(ProgressTest, contentLengthAboveFourGibibytesIsRead) {
    long long length = -1;
    EXPECT_TRUE(DownloadProgress::PARSE_CONTENT_LENGTH(
        "fw", "[fw/HTTP]   Content-Length: 6442450944", length));
    EXPECT_EQ(length, 6442450944LL);
}

TEST(ProgressTest, otherLinesAreNoContentLength) {
    long long length = 7;
    EXPECT_FALSE(
        DownloadProgress::PARSE_CONTENT_LENGTH("fw", "[other/HTTP]   Content-Length: 5", length));
    EXPECT_FALSE(DownloadProgress::PARSE_CONTENT_LENGTH(
        "fw", "[fw/HTTP]   Content-Type: text/plain", length));
    EXPECT_FALSE(
        DownloadProgress::PARSE_CONTENT_LENGTH("fw", "[fw/HTTP]   Content-Length: 12x", length));
    EXPECT_FALSE(
        DownloadProgress::PARSE_CONTENT_LENGTH("fw", "[fw/HTTP]   Content-Length: ", length));
    EXPECT_EQ(length, 7);
}

TEST(ProgressTest, bytesAreShownInBinaryUnits) {
    EXPECT_EQ(DownloadProgress::FORMAT_BYTES(0), "0 B");
    EXPECT_EQ(DownloadProgress::FORMAT_BYTES(1023), "1023 B");
    EXPECT_EQ(DownloadProgress::FORMAT_BYTES(1024), "1.0 KiB");
    EXPECT_EQ(DownloadProgress::FORMAT_BYTES(1536 * 1024), "1.5 MiB");
    EXPECT_EQ(DownloadProgress::FORMAT_BYTES(2.0 * 1024 * 1024 * 1024), "2.0 GiB");
}

TEST(ProgressTest, lineWithKnownTotalShowsThePercentage) {
    EXPECT_EQ(DownloadProgress::FORMAT("fw", 1536 * 1024, 3 * 1024 * 1024, 750 * 1024),
              "[fw] 1.5 MiB of 3.0 MiB (50%) at 750.0 KiB/s");
}

TEST(ProgressTest, lineWithoutTotalOrRateLeavesThemOut) {
    EXPECT_EQ(DownloadProgress::FORMAT("config", 512, -1, -1), "[config] 512 B");
    EXPECT_EQ(DownloadProgress::FORMAT("config", 512, -1, 2048), "[config] 512 B at 2.0 KiB/s");
}

TEST(ProgressTest, percentageNeverPassesAHundred) {
    EXPECT_EQ(DownloadProgress::FORMAT("x", 300, 200, -1), "[x] 300 B of 200 B (100%)");
    EXPECT_EQ(DownloadProgress::FORMAT("x", 0, 0, -1), "[x] 0 B of 0 B (100%)");
}

class DownloadProgressTest : public ::testing::Test {
  protected:
    void grow(std::size_t bytes) { provtest::writeFile(workFile_, std::string(bytes, 'x')); }

    provtest::TempDir dir_{"prov-progress"};
    const std::string workFile_ = dir_.file("work");
    const DownloadProgress::Clock::time_point start_ = DownloadProgress::Clock::now();
};

TEST_F(DownloadProgressTest, nothingIsShownBeforeATransferStarts) {
    DownloadProgress progress("fw", true);
    grow(100);
    EXPECT_EQ(progress.poll(workFile_, start_), "");
    EXPECT_EQ(progress.poll(workFile_, start_ + 1s), "");
}

TEST_F(DownloadProgressTest, aTransferIsShownOnlyAfterOneInterval) {
    DownloadProgress progress("fw", true);
    progress.onMonitorLine("[fw] Trying to download from location http://127.0.0.1/fw.tar");
    grow(1000);
    EXPECT_EQ(progress.poll(workFile_, start_), "");
    EXPECT_EQ(progress.poll(workFile_, start_ + 100ms), "");
    grow(3000);
    EXPECT_EQ(progress.poll(workFile_, start_ + 1s), "[fw] 2.9 KiB at 2.0 KiB/s");
}

TEST_F(DownloadProgressTest, redrawsAtMostOncePerInterval) {
    DownloadProgress progress("fw", true);
    progress.onMonitorLine("[fw] Trying to download from location http://127.0.0.1/fw.tar");
    grow(10);
    EXPECT_EQ(progress.poll(workFile_, start_), "");
    EXPECT_NE(progress.poll(workFile_, start_ + 200ms), "");
    EXPECT_EQ(progress.poll(workFile_, start_ + 300ms), "");
    EXPECT_NE(progress.poll(workFile_, start_ + 400ms), "");
}

TEST_F(DownloadProgressTest, contentLengthOfTheLastResponseGivesThePercentage) {
    DownloadProgress progress("fw", true);
    progress.onMonitorLine("[fw] Trying to download from location http://127.0.0.1/fw.tar");
    // The challenge's own length comes first; the final response's length counts.
    progress.onMonitorLine("[fw/HTTP]   HTTP/1.1 401 Unauthorized");
    progress.onMonitorLine("[fw/HTTP]   Content-Length: 9");
    progress.onMonitorLine("[fw/HTTP]   HTTP/1.1 200 OK");
    progress.onMonitorLine("[fw/HTTP]   Content-Length: 4096");
    grow(1024);
    EXPECT_EQ(progress.poll(workFile_, start_), "");
    EXPECT_EQ(progress.poll(workFile_, start_ + 1s), "[fw] 1.0 KiB of 4.0 KiB (25%) at 0 B/s");
}

TEST_F(DownloadProgressTest, responseWithoutLengthShowsNoPercentage) {
    DownloadProgress progress("fw", true);
    progress.onMonitorLine("[fw] Trying to download from location http://127.0.0.1/fw.tar");
    progress.onMonitorLine("[fw/HTTP]   HTTP/1.1 302 Found");
    progress.onMonitorLine("[fw/HTTP]   Content-Length: 0");
    progress.onMonitorLine("[fw/HTTP]   HTTP/1.1 200 OK");
    grow(2048);
    EXPECT_EQ(progress.poll(workFile_, start_), "");
    EXPECT_EQ(progress.poll(workFile_, start_ + 1s), "[fw] 2.0 KiB at 0 B/s");
}

TEST_F(DownloadProgressTest, linesOfOtherJobsAreIgnored) {
    DownloadProgress progress("fw", true);
    progress.onMonitorLine("[config] Trying to download from location tftp://127.0.0.1/x");
    grow(10);
    EXPECT_EQ(progress.poll(workFile_, start_), "");
    EXPECT_EQ(progress.poll(workFile_, start_ + 1s), "");
}

TEST_F(DownloadProgressTest, finishedDownloadIsNoLongerShown) {
    DownloadProgress progress("fw", true);
    progress.onMonitorLine("[fw] Trying to download from location tftp://127.0.0.1/fw.tar");
    grow(10);
    EXPECT_EQ(progress.poll(workFile_, start_), "");
    EXPECT_NE(progress.poll(workFile_, start_ + 1s), "");
    progress.onMonitorLine("[fw] File downloaded: 'tftp://127.0.0.1/fw.tar' -> '/tmp/x'");
    EXPECT_EQ(progress.poll(workFile_, start_ + 2s), "");
}

TEST_F(DownloadProgressTest, shorterFileStartsTheRateAgain) {
    DownloadProgress progress("fw", true);
    progress.onMonitorLine("[fw] Trying to download from location http://127.0.0.1/fw.tar");
    grow(4096);
    EXPECT_EQ(progress.poll(workFile_, start_), "");
    // The retry with credentials truncates the work file.
    grow(1024);
    EXPECT_EQ(progress.poll(workFile_, start_ + 1s), "");
    grow(3072);
    EXPECT_EQ(progress.poll(workFile_, start_ + 2s), "[fw] 3.0 KiB at 2.0 KiB/s");
}

TEST_F(DownloadProgressTest, missingWorkFileCountsAsEmpty) {
    DownloadProgress progress("fw", true);
    progress.onMonitorLine("[fw] Trying to download from location tftp://127.0.0.1/fw.tar");
    EXPECT_EQ(progress.poll(dir_.file("missing"), start_), "");
    EXPECT_EQ(progress.poll(dir_.file("missing"), start_ + 1s), "[fw] 0 B at 0 B/s");
}

TEST_F(DownloadProgressTest, offATerminalNothingIsDrawn) {
    DownloadProgress progress("fw", false);
    progress.onMonitorLine("[fw] Trying to download from location tftp://127.0.0.1/fw.tar");
    grow(10);
    EXPECT_EQ(progress.poll(workFile_, start_), "");
    EXPECT_EQ(progress.poll(workFile_, start_ + 1s), "");
}

}  // namespace
