// The locations a job tried, read from its monitor lines as the engine writes them.
#include "host/Attempts.h"

#include <gtest/gtest.h>

namespace {

void feed(Provctl::AttemptLog& log, const std::vector<std::string>& lines) {
    for (const std::string& line : lines) {
        log.onLine("PROV", String(line));
    }
}

TEST(AttemptLogTest, aFailedTftpLocationKeepsTheEnginesReasonAndTheToolsLine) {
    Provctl::AttemptLog log;
    feed(log, {"[config] Trying to download from location tftp://h/a.cfg",
               "[TFTP] \rfile 0% |   |  0 --:--:-- ETA\ntftp: server error: (1) File not found\n",
               "[config] DOWNLOAD LOCATION FAILED: tftp://h/a.cfg: tftp EXITED WITH STATUS 1 "
               "(0x12000001)",
               "[config] Trying to download from location tftp://h/b.cfg",
               "[config] File downloaded: 'tftp://h/b.cfg' -> '/tmp/provisioning/b.cfg'"});
    const std::vector<Provctl::Attempt> attempts = log.attempts();
    ASSERT_EQ(attempts.size(), 2U);
    EXPECT_EQ(attempts[0].location, "tftp://h/a.cfg");
    EXPECT_EQ(attempts[0].outcome, "failed");
    EXPECT_EQ(attempts[0].reason, "tftp EXITED WITH STATUS 1 (0x12000001)");
    EXPECT_EQ(attempts[0].toolLine, "tftp: server error: (1) File not found");
    EXPECT_EQ(attempts[1].outcome, "transferred");
    EXPECT_EQ(attempts[1].toolLine, "");
    EXPECT_EQ(log.lastToolLine(), "tftp: server error: (1) File not found");
}

TEST(AttemptLogTest, aRedirectIsKeptAndWgetsStatusLineIsTheToolLine) {
    Provctl::AttemptLog log;
    feed(log, {"[key] Trying to download from location http://h/old",
               "[key/HTTP] Invoke wget with cmdline: wget -q -S ...",
               "[key/HTTP]   HTTP/1.1 302 Found", "[key/HTTP]   Location: http://h/new",
               "[key] Redirected: 'http://h/old' -> 'http://h/new'",
               "[key/HTTP]   HTTP/1.1 404 Not Found", "[key/HTTP]   Content-Length: 9",
               "[key] DOWNLOAD LOCATION FAILED: http://h/new: HTTP ERROR 404"});
    const std::vector<Provctl::Attempt> attempts = log.attempts();
    ASSERT_EQ(attempts.size(), 1U);
    EXPECT_EQ(attempts[0].redirectedTo, "http://h/new");
    EXPECT_EQ(attempts[0].reason, "HTTP ERROR 404");
    EXPECT_EQ(attempts[0].toolLine, "HTTP/1.1 404 Not Found");
}

TEST(AttemptLogTest, otherMonitorsAndLinesBeforeTheFirstLocationAreIgnored) {
    Provctl::AttemptLog log;
    log.onLine("XFER", "config : tftp://h/a -> startup-config : succeeded");
    log.onLine("PROV", "[config] Starting execution");
    log.onLine("PROV", "[TFTP] tftp: timeout");
    EXPECT_TRUE(log.attempts().empty());
    EXPECT_EQ(log.lastToolLine(), "");
}

}  // namespace
