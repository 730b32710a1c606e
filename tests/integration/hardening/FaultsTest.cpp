// Faults of the world around a job, injected against the real tools and servers: a server that
// stops mid-transfer or never answers, a full work directory, a read-only flash, a tool that is
// missing. Each test says what the handler was told and checks that nothing stored in flash or
// the configuration store was lost or torn.
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "integration/hardening/HardeningSupport.h"
#include "jobs/content/ConfigProvisioningJob.h"
#include "jobs/content/KeyProvisioningJob.h"
#include "jobs/upgrade/FirmwareProvisioningJob.h"
#include "platform/posix/ShellControl.h"
#include "platform/testing/ShellHooks.h"
#include "support/FixtureServer.h"
#include "support/HttpServer.h"
#include "support/TftpServer.h"

namespace {

using namespace provtest::hardening;
using provtest::FixtureResponse;
using provtest::FixtureServer;
using provtest::HttpServer;
using provtest::TftpServer;

const char* const NETWORK_FAILURE =
    "NETWORK FAILURE (NO NAME SERVER, NO ROUTE TO HOST, OR TRANSFER FAILED): "
    "wget EXITED WITH STATUS 4";

long fileSize(const std::string& path) {
    struct stat info {};
    return ::stat(path.c_str(), &info) == 0 ? static_cast<long>(info.st_size) : -1;
}

class FaultsTest : public DeviceTest {
  protected:
    void TearDown() override {
        ToolRecorder::RESTORE("tftp");
        ToolRecorder::RESTORE("wget");
        ToolRecorder::RESTORE("tar");
        DeviceTest::TearDown();
    }

    std::unique_ptr<ConfigProvisioningJob> configJob(const char* name,
                                                     const KtList<String>& locations) {
        return std::make_unique<ConfigProvisioningJob>(loop, name, ProvisioningJob::None, false,
                                                       locations, credentials, resolver, handler);
    }
    static String tftpLocation(const TftpServer& server, const std::string& name) {
        return String::format("tftp://127.0.0.1:%u/%s", server.port(), name.c_str());
    }

    // provctl with `arguments` in a private mount namespace with `mounts`; the output ends with
    // "provctl exit N", "work directory:" and what the device's work directory then holds.
    IsolatedRun provctlWithPrivateMounts(const std::vector<PrivateMount>& mounts,
                                         std::vector<std::string> arguments) {
        std::vector<std::string> argv = {
            "/bin/sh", "-c",
            "\"$0\" \"$@\"; echo \"provctl exit $?\"; echo 'work directory:'; "
            "ls -A '" +
                Device::MAP_PATH("/tmp/provisioning").str() + "'",
            PROV_PROVCTL};
        argv.insert(argv.end(), arguments.begin(), arguments.end());
        return runWithPrivateMounts(mounts, argv);
    }
    // The single-line JSON outcome in provctl's output.
    static std::string outcomeOf(const std::string& output) {
        std::size_t start = output.find("{\"ok\"");
        return start == std::string::npos ? ""
                                          : output.substr(start, output.find('\n', start) - start);
    }
    // The outcome says the job failed (blanks after the colon or not).
    static bool failed(const std::string& outcome) {
        std::size_t value = outcome.find_first_not_of(' ', std::string("{\"ok\":").size());
        return outcome.rfind("{\"ok\":", 0) == 0 && value != std::string::npos &&
               outcome.compare(value, 5, "false") == 0;
    }
    static std::string workDirectoryListing(const std::string& output) {
        const std::string heading = "work directory:\n";
        std::size_t at = output.rfind(heading);
        return at == std::string::npos ? "<missing>" : output.substr(at + heading.size());
    }
};

// --- A server that stops in the middle -----------------------------------------------------

TEST_F(FaultsTest, httpServerClosingWithoutAnswerIsANetworkFailure) {
    FixtureServer server;
    std::string name = remote(".cfg");
    server.route("/" + name, {FixtureResponse::closeWithoutAnswer()});
    ASSERT_TRUE(server.start());
    auto job = configJob("closed", {server.url("/" + name).c_str()});
    ASSERT_TRUE(job->execute().isSuccess());
    ASSERT_TRUE(runToEnd());
    EXPECT_EQ(told().getValue(), 0x12000004U);
    EXPECT_EQ(told().getString(), NETWORK_FAILURE);
    EXPECT_FALSE(provtest::fileExists(workFileOf(name)));
    EXPECT_TRUE(deviceUnchanged());
}

TEST_F(FaultsTest, httpServerCuttingAConfigurationShortKeepsTheStoredOne) {
    FixtureServer server;
    std::string name = remote(".cfg");
    // A valid configuration whose second half never comes.
    std::string body = NEW_CONFIG + std::string(64 * 1024, '!');
    server.route("/" + name, {FixtureResponse::truncated(body)});
    ASSERT_TRUE(server.start());
    auto job = configJob("cut", {server.url("/" + name).c_str()});
    ASSERT_TRUE(job->execute().isSuccess());
    ASSERT_TRUE(runToEnd());
    EXPECT_EQ(told().getValue(), 0x12000004U);
    EXPECT_EQ(told().getString(), NETWORK_FAILURE);
    EXPECT_FALSE(provtest::fileExists(workFileOf(name)));
    EXPECT_EQ(storedConfig(), OLD_CONFIG);
    EXPECT_TRUE(deviceUnchanged());
}

TEST_F(FaultsTest, httpServerCuttingAKeyShortKeepsTheKeyInFlash) {
    FixtureServer server;
    std::string name = remote(".key");
    server.route("/" + name, {FixtureResponse::truncated(std::string(32 * 1024, 'k'))});
    ASSERT_TRUE(server.start());
    KeyProvisioningJob job(loop, "key", ProvisioningJob::None, false,
                           {server.url("/" + name).c_str()}, credentials, resolver, handler);
    ASSERT_TRUE(job.execute().isSuccess());
    ASSERT_TRUE(runToEnd());
    EXPECT_EQ(told().getString(), NETWORK_FAILURE);
    EXPECT_TRUE(prov.contains("[key] FAILED TO DOWNLOAD KEY"));
    EXPECT_FALSE(provtest::fileExists(workFileOf(name)));
    EXPECT_EQ(provtest::readFile(device.file("flash/preferences/key")), OLD_KEY);
    EXPECT_TRUE(deviceUnchanged());
}

TEST_F(FaultsTest, tftpServerStoppedMidTransferFailsTheJobAndLeavesNoWorkFile) {
    TftpServer server;
    std::string name = remote(".cfg");
    // 16 MiB in 512-byte blocks: long enough to be caught in the middle, within the 65535
    // blocks that TFTP counts without wrapping.
    server.put(name, NEW_CONFIG + std::string(16 * 1024 * 1024, '!'));
    ASSERT_TRUE(server.start());
    auto job = configJob("stopped", {tftpLocation(server, name)});
    ASSERT_TRUE(job->execute().isSuccess());
    std::string workFile = workFileOf(name);
    ASSERT_TRUE(runUntilPolled(
        loop, [&] { return fileSize(workFile) >= 64 * 1024 || !handler.results.empty(); }, 60s));
    ASSERT_TRUE(handler.results.empty()) << "the transfer ended before the server could stop";
    server.stop();
    ASSERT_TRUE(runToEnd(120s));
    EXPECT_EQ(told().getFamily(), XCode::EXIT_STATUS_FAMILY) << told().toString().c_str();
    EXPECT_EQ(told().getString(), "tftp EXITED WITH STATUS 1");
    EXPECT_TRUE(prov.contains("[stopped] FAILED TO DOWNLOAD CONFIGURATION"));
    EXPECT_FALSE(provtest::fileExists(workFile));
    EXPECT_EQ(Kt::ShellHooks::RUNNING_COMMANDS(), 0U);
    EXPECT_TRUE(deviceUnchanged());
}

// Takes as long as wget's read timeout (30 s): the one test here that waits for it.
TEST_F(FaultsTest, serverThatAcceptsAndNeverAnswersEndsWithinWgetsTimeout) {
    // The kernel accepts the connection into the backlog; nobody ever reads or answers.
    provtest::LoopbackSocket silent = provtest::LoopbackSocket::tcpListener();
    ASSERT_TRUE(silent.valid()) << silent.error();
    std::string name = remote(".cfg");
    auto job = configJob("silent",
                         {String::format("http://127.0.0.1:%u/%s", silent.port(), name.c_str())});
    ASSERT_TRUE(job->execute().isSuccess());
    // The bound: wget's --timeout=30 and a generous margin; a lost timeout fails here.
    ASSERT_TRUE(runToEnd(150s));
    EXPECT_EQ(told().getValue(), 0x12000004U);
    EXPECT_EQ(told().getString(), NETWORK_FAILURE);
    EXPECT_TRUE(prov.contains("--timeout=30")) << prov.dump();
    EXPECT_FALSE(provtest::fileExists(workFileOf(name)));
    EXPECT_TRUE(deviceUnchanged());
}

// --- A full work directory, a read-only flash ----------------------------------------------

TEST_F(FaultsTest, fullWorkDirectoryFailsATftpDownloadAndLeavesNothingBehind) {
    TftpServer server;
    std::string name = remote(".cfg");
    server.put(name, NEW_CONFIG + std::string(256 * 1024, '!'));
    ASSERT_TRUE(server.start());
    IsolatedRun run = provctlWithPrivateMounts(
        {{PrivateMount::Kind::Tmpfs, Device::MAP_PATH("/tmp/provisioning").str(),
          "size=64k,mode=700"}},
        {"config", "--device", device.path(), "--json", tftpLocation(server, name).str()});
    if (!run.notPermitted.empty()) {
        GTEST_SKIP() << "no private mount namespace here: " << run.notPermitted;
    }
    ASSERT_TRUE(run.error.empty()) << run.error << "\n" << run.output;
    // What the handler was told, as provctl reports it.
    std::string outcome = outcomeOf(run.output);
    EXPECT_TRUE(failed(outcome)) << run.output;
    EXPECT_NE(outcome.find("tftp EXITED WITH STATUS 1"), std::string::npos) << run.output;
    EXPECT_NE(run.output.find("provctl exit 1"), std::string::npos) << run.output;
    EXPECT_EQ(workDirectoryListing(run.output), "") << run.output;
    EXPECT_TRUE(deviceUnchanged());
}

TEST_F(FaultsTest, fullWorkDirectoryFailsAnHttpDownloadWithCredentialsAndLeavesNothingBehind) {
    HttpServer server;
    server.options().auth = {{"/secure/", "dev", HttpServer::Scheme::Basic, "user", "pass"}};
    std::string name = remote(".cfg");
    server.put("/secure/" + name, NEW_CONFIG + std::string(256 * 1024, '!'));
    ASSERT_TRUE(server.start());
    IsolatedRun run = provctlWithPrivateMounts(
        {{PrivateMount::Kind::Tmpfs, Device::MAP_PATH("/tmp/provisioning").str(),
          "size=64k,mode=700"}},
        {"config", "--device", device.path(), "--json", "--credential", "dev:user:pass",
         server.url("/secure/" + name)});
    if (!run.notPermitted.empty()) {
        GTEST_SKIP() << "no private mount namespace here: " << run.notPermitted;
    }
    ASSERT_TRUE(run.error.empty()) << run.error << "\n" << run.output;
    std::string outcome = outcomeOf(run.output);
    EXPECT_TRUE(failed(outcome)) << run.output;
    EXPECT_NE(outcome.find("FILE I/O ERROR"), std::string::npos) << run.output;
    EXPECT_NE(run.output.find("provctl exit 1"), std::string::npos) << run.output;
    // Neither the partial work file nor the private credentials directory is left.
    EXPECT_EQ(workDirectoryListing(run.output), "") << run.output;
    EXPECT_TRUE(deviceUnchanged());
}

TEST_F(FaultsTest, readOnlyFlashFailsTheKeyJobAndKeepsTheOldKey) {
    TftpServer server;
    std::string name = remote(".key");
    server.put(name, "new key\n");
    ASSERT_TRUE(server.start());
    IsolatedRun run = provctlWithPrivateMounts(
        {{PrivateMount::Kind::ReadOnlyBind, device.file("flash"), ""}},
        {"key", "--device", device.path(), "--json", tftpLocation(server, name).str()});
    if (!run.notPermitted.empty()) {
        GTEST_SKIP() << "no private mount namespace here: " << run.notPermitted;
    }
    ASSERT_TRUE(run.error.empty()) << run.error << "\n" << run.output;
    std::string outcome = outcomeOf(run.output);
    EXPECT_TRUE(failed(outcome)) << run.output;
    EXPECT_NE(outcome.find("Read-only file system"), std::string::npos) << run.output;
    EXPECT_NE(run.output.find("provctl exit 1"), std::string::npos) << run.output;
    EXPECT_EQ(provtest::readFile(device.file("flash/preferences/key")), OLD_KEY);
    // No temporary of the atomic replace is left beside the key either.
    EXPECT_TRUE(deviceUnchanged());
}

TEST_F(FaultsTest, readOnlyFlashFailsTheDialplanJobAndKeepsTheOldPlan) {
    TftpServer server;
    std::string name = remote(".plan");
    server.put(name, "new plan\n");
    ASSERT_TRUE(server.start());
    IsolatedRun run =
        provctlWithPrivateMounts({{PrivateMount::Kind::ReadOnlyBind, device.file("flash"), ""}},
                                 {"dialplan", "--device", device.path(), "--json", "--dialplan",
                                  "flash:office", tftpLocation(server, name).str()});
    if (!run.notPermitted.empty()) {
        GTEST_SKIP() << "no private mount namespace here: " << run.notPermitted;
    }
    ASSERT_TRUE(run.error.empty()) << run.error << "\n" << run.output;
    EXPECT_TRUE(failed(outcomeOf(run.output))) << run.output;
    // The dial-plan job puts the reason only into the transfer log.
    EXPECT_NE(run.output.find("Read-only file system"), std::string::npos) << run.output;
    EXPECT_NE(run.output.find("provctl exit 1"), std::string::npos) << run.output;
    EXPECT_EQ(provtest::readFile(device.file("flash/dialplan/office")), OLD_DIALPLAN);
    EXPECT_TRUE(deviceUnchanged());
}

TEST_F(FaultsTest, readOnlyConfigurationStoreFailsTheConfigJobAndKeepsTheStoredOne) {
    TftpServer server;
    std::string name = remote(".cfg");
    server.put(name, NEW_CONFIG);
    ASSERT_TRUE(server.start());
    IsolatedRun run = provctlWithPrivateMounts(
        {{PrivateMount::Kind::ReadOnlyBind, device.file("config"), ""}},
        {"config", "--device", device.path(), "--json", tftpLocation(server, name).str()});
    if (!run.notPermitted.empty()) {
        GTEST_SKIP() << "no private mount namespace here: " << run.notPermitted;
    }
    ASSERT_TRUE(run.error.empty()) << run.error << "\n" << run.output;
    std::string outcome = outcomeOf(run.output);
    EXPECT_TRUE(failed(outcome)) << run.output;
    EXPECT_NE(outcome.find("Cannot store configuration 'startup-config': Read-only file system"),
              std::string::npos)
        << run.output;
    EXPECT_EQ(storedConfig(), OLD_CONFIG);
    EXPECT_TRUE(deviceUnchanged());
}

// --- A tool that is missing ----------------------------------------------------------------

TEST_F(FaultsTest, missingTftpIsAStartErrorToldOnce) {
    Kt::ShellControl::SET_TOOL("tftp", {"/nonexistent/tftp"});
    // Never contacted: the tool does not start.
    provtest::LoopbackSocket unused = provtest::LoopbackSocket::udp();
    std::string name = remote(".cfg");
    auto job = configJob("notftp",
                         {String::format("tftp://127.0.0.1:%u/%s", unused.port(), name.c_str())});
    XCode started = job->execute();
    EXPECT_EQ(started.getString(), "CANNOT START tftp: No such file or directory");
    ASSERT_EQ(handler.results.size(), 1U);
    loop.runPending();
    EXPECT_EQ(handler.results.size(), 1U);
    EXPECT_EQ(told().getString(), started.getString());
    EXPECT_GE(prov.indexOf("[notftp] EXECUTION FAILED: " + started.toString().str()), 0)
        << prov.dump();
    EXPECT_EQ(Kt::ShellHooks::RUNNING_COMMANDS(), 0U);
    EXPECT_FALSE(provtest::fileExists(workFileOf(name)));
    EXPECT_TRUE(deviceUnchanged());
}

TEST_F(FaultsTest, missingTftpMovesOnToTheNextLocation) {
    Kt::ShellControl::SET_TOOL("tftp", {"/nonexistent/tftp"});
    HttpServer server;
    std::string name = remote(".cfg");
    server.put("/" + name, NEW_CONFIG);
    ASSERT_TRUE(server.start());
    provtest::LoopbackSocket unused = provtest::LoopbackSocket::udp();
    auto job = configJob("notftp", {String::format("tftp://127.0.0.1:%u/%s-first.cfg",
                                                   unused.port(), unique.c_str()),
                                    server.url("/" + name).c_str()});
    workFiles.push_back(workFileOf(unique + "-first.cfg"));
    ASSERT_TRUE(job->execute().isSuccess());
    ASSERT_TRUE(runToEnd());
    EXPECT_TRUE(told().isSuccess()) << told().toString().c_str() << "\n" << prov.dump();
    EXPECT_EQ(prov.count("[notftp] Trying to download from location "), 2);
    EXPECT_FALSE(provtest::fileExists(workFileOf(unique + "-first.cfg")));
    EXPECT_TRUE(deviceChangedOnly("config/startup-config", NEW_CONFIG));
}

TEST_F(FaultsTest, missingWgetIsLoggedAndTheNextLocationIsTriedAfterAFailure) {
    Kt::ShellControl::SET_TOOL("wget", {"/nonexistent/wget"});
    TftpServer server;
    std::string name = remote(".cfg");
    server.put(name, NEW_CONFIG);
    ASSERT_TRUE(server.start());
    std::string absent = remote("-absent.cfg");
    std::string viaHttp = remote("-http.cfg");
    provtest::LoopbackSocket unused = provtest::LoopbackSocket::tcpRefusing();
    // The first location fails in the background; the walk then cannot start wget for the
    // second and goes on to the third.
    auto job = configJob("nowget",
                         {tftpLocation(server, absent),
                          String::format("http://127.0.0.1:%u/%s", unused.port(), viaHttp.c_str()),
                          tftpLocation(server, name)});
    ASSERT_TRUE(job->execute().isSuccess());
    ASSERT_TRUE(runToEnd());
    EXPECT_TRUE(told().isSuccess()) << told().toString().c_str() << "\n" << prov.dump();
    EXPECT_EQ(prov.count("[nowget] Trying to download from location "), 3);
    EXPECT_GE(
        prov.indexOf("[nowget/HTTP] CANNOT START wget: No such file or directory (0x10000002)"), 0)
        << prov.dump();
    EXPECT_FALSE(provtest::fileExists(workFileOf(viaHttp)));
    EXPECT_TRUE(deviceChangedOnly("config/startup-config", NEW_CONFIG));
}

TEST_F(FaultsTest, missingTarFailsTheFirmwareJobAndLeavesTheSlotsAlone) {
    TftpServer server;
    std::string name = remote(".tar");
    server.put(name, "not looked at: tar cannot start");
    ASSERT_TRUE(server.start());
    Kt::ShellControl::SET_TOOL("tar", {"/nonexistent/tar"});
    FirmwareProvisioningJob job(loop, "notar", ProvisioningJob::None, false,
                                {tftpLocation(server, name)}, credentials, resolver, handler, "",
                                "", "", 1, 1);
    ASSERT_TRUE(job.execute().isSuccess());
    ASSERT_TRUE(runToEnd());
    EXPECT_EQ(told().getString(), "CANNOT START tar: No such file or directory");
    EXPECT_GE(
        xfer.indexOf(
            ("notar : " + tftpLocation(server, name) + " -> flash: : " + told().toString()).str()),
        0)
        << xfer.dump();
    EXPECT_FALSE(job.isAsyncPending());
    EXPECT_EQ(job.getImageAction(), ProvisioningJob::NoAction);
    // No slot was written, nothing else changed.
    EXPECT_TRUE(deviceUnchanged());
}

}  // namespace
