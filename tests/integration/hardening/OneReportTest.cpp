// A job whose status record cannot be written once its first transfer has started reports that
// failure once, and only after the transfer was abandoned: its child ended and reaped, its work
// file removed. The transfer never reports a second time, and nothing it fetched is stored.
#include <unistd.h>

#include <filesystem>
#include <string>

#include "integration/hardening/HardeningSupport.h"
#include "integration/hardening/StallSupport.h"
#include "jobs/content/ConfigProvisioningJob.h"
#include "platform/testing/ShellHooks.h"
#include "support/TftpServer.h"

namespace {

using namespace provtest::hardening;
using provtest::FixtureResponse;
using provtest::FixtureServer;

class OneReportTest : public DeviceTest {
  protected:
    void SetUp() override {
        DeviceTest::SetUp();
        // The record's location is mirrored into <device>/status/; a file in the directory's
        // place makes that write fail, while the lookup before the transfer still succeeds.
        std::error_code error;
        std::filesystem::remove_all(device.file("status"), error);
        provtest::writeFile(device.file("status"), "not a directory\n");
    }

    void runAndExpectOneReport(const String& location, const std::string& name) {
        auto job = configJob(location);
        handler.then = [&](ProvisioningJob&, const XCode&) {
            // At the moment of the report nothing of the transfer may run or be left.
            EXPECT_EQ(Kt::ShellHooks::RUNNING_COMMANDS(), 0U);
            EXPECT_FALSE(provtest::fileExists(workFile(name)));
        };
        XCode started = job->execute();
        EXPECT_TRUE(started.isErr());
        // Whatever the transfer would still deliver arrives once it has ended.
        EXPECT_TRUE(runUntilPolled(
            loop, [] { return Kt::ShellHooks::RUNNING_COMMANDS() == 0; }, 30s));
        loop.runPending();
        ASSERT_EQ(handler.results.size(), 1U) << prov.dump();
        EXPECT_EQ(told(), started);
        EXPECT_FALSE(provtest::fileExists(workFile(name)));
        EXPECT_EQ(storedConfig(), OLD_CONFIG);
    }
    static std::string workFile(const std::string& name) {
        return Device::MAP_PATH(String(workFileOf(name).c_str())).str();
    }
};

TEST_F(OneReportTest, unwritableStatusAfterAnHttpStartReportsOnceWithTheTransferEnded) {
    FixtureServer server;
    std::string name = remote(".cfg");
    // A quick answer: without the abandonment its result would reach the walk a second time.
    server.route("/" + name, {FixtureResponse::ok(NEW_CONFIG)});
    ASSERT_TRUE(server.start());
    runAndExpectOneReport(server.url("/" + name).c_str(), name);
}

TEST_F(OneReportTest, unwritableStatusAfterATftpStartReportsOnceWithTheTransferEnded) {
    provtest::TftpServer server;
    std::string name = remote(".cfg");
    server.put(name, NEW_CONFIG);
    ASSERT_TRUE(server.start());
    runAndExpectOneReport(String::format("tftp://127.0.0.1:%u/%s", server.port(), name.c_str()),
                          name);
}

}  // namespace
