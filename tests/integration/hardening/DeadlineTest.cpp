// A server that keeps a transfer alive with a trickle (one byte, one TFTP block at a time, each
// well within the client's own timeouts) must not hold a job for ever: every command has an
// overall deadline, after which its child is ended and reaped, the work file goes, and the
// location fails with a message that names the deadline.
#include <string>

#include "integration/hardening/HardeningSupport.h"
#include "integration/hardening/StallSupport.h"
#include "jobs/content/ConfigProvisioningJob.h"
#include "platform/posix/ShellControl.h"
#include "platform/testing/ShellHooks.h"

namespace {

using namespace provtest::hardening;
using provtest::FixtureServer;

class DeadlineTest : public DeviceTest {
  protected:
    void SetUp() override {
        DeviceTest::SetUp();
        Kt::ShellControl::SET_COMMAND_DEADLINE(2s);
    }
    void TearDown() override {
        Kt::ShellControl::SET_COMMAND_DEADLINE(Kt::ShellControl::DEFAULT_COMMAND_DEADLINE);
        DeviceTest::TearDown();
    }

    // The job ended at the deadline of `tool`, nothing of it runs, no work file is left.
    void expectEndedAtDeadline(const char* tool, const std::string& name) {
        EXPECT_EQ(told().getFamily(), XCode::DEADLINE_FAMILY) << told().toString().c_str();
        const std::string expected = std::string(tool) + " DID NOT FINISH WITHIN 2 SECONDS";
        EXPECT_NE(told().getString().str().find(expected), std::string::npos)
            << told().toString().c_str();
        EXPECT_TRUE(prov.contains("DOWNLOAD LOCATION FAILED")) << prov.dump();
        EXPECT_TRUE(Kt::ShellControl::WAIT_FOR_RUNNING_COMMANDS(0, 10s));
        EXPECT_EQ(Kt::ShellHooks::RUNNING_COMMANDS(), 0U);
        EXPECT_TRUE(processesMentioning(name).empty()) << describe(processesMentioning(name));
        EXPECT_FALSE(
            provtest::fileExists(Device::MAP_PATH(String(workFileOf(name).c_str())).str()));
        EXPECT_TRUE(deviceUnchanged());
    }
};

TEST_F(DeadlineTest, httpServerTricklingTheBodyIsEndedAtTheDeadline) {
    FixtureServer server;
    std::string name = remote(".cfg");
    server.route("/" + name, {tricklingAnswer()});
    ASSERT_TRUE(server.start());
    auto job = configJob(server.url("/" + name).c_str());
    ASSERT_TRUE(job->execute().isSuccess());
    // Without the deadline wget would read one byte every half second for hours.
    ASSERT_TRUE(runToEnd(30s));
    expectEndedAtDeadline("wget", name);
}

TEST_F(DeadlineTest, tftpServerTricklingBlocksIsEndedAtTheDeadline) {
    TricklingTftpServer server;
    ASSERT_TRUE(server.start());
    std::string name = remote(".cfg");
    auto job = configJob(String::format("tftp://127.0.0.1:%u/%s", server.port(), name.c_str()));
    ASSERT_TRUE(job->execute().isSuccess());
    // BusyBox tftp's retries end a silent server, not one that sends a block now and then.
    ASSERT_TRUE(runToEnd(30s));
    expectEndedAtDeadline("tftp", name);
}

TEST_F(DeadlineTest, synchronousCommandIsEndedAtTheDeadline) {
    // A duration of its own, so that the process can be told from any other sleep.
    const std::string duration = "60." + std::to_string(::getpid());
    String output;
    XCode result = Kt::Shell::execute(("sleep " + duration).c_str(), &output);
    EXPECT_EQ(result.getFamily(), XCode::DEADLINE_FAMILY) << result.toString().c_str();
    EXPECT_EQ(result.getString(), "sleep DID NOT FINISH WITHIN 2 SECONDS");
    EXPECT_EQ(Kt::ShellHooks::RUNNING_COMMANDS(), 0U);
    EXPECT_TRUE(processesMentioning(duration).empty()) << describe(processesMentioning(duration));
}

}  // namespace
