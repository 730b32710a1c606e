// The location walk against a real tftpd-hpa with BusyBox's tftp client.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstring>
#include <memory>
#include <vector>

#include "engine/Monitors.h"
#include "jobs/content/ConfigProvisioningJob.h"
#include "jobs/content/UploadProvisioningJob.h"
#include "platform/Cli.h"
#include "platform/StatusDb.h"
#include "platform/posix/ShellControl.h"
#include "platform/simulated/DeviceDirectory.h"
#include "platform/simulated/SimulatedStatusDb.h"
#include "platform/testing/ShellHooks.h"
#include "platform/testing/StatusDbHooks.h"
#include "support/CaptureMonitor.h"
#include "support/TempDir.h"
#include "support/TftpServer.h"

namespace {

using namespace std::chrono_literals;
using provtest::CaptureMonitor;

const char* VALID_CONFIG =
    "cli version 4.10\ncontext ip router\n  interface lan\nport ethernet 0 0\n";

struct RecordingHandler : ProvisioningJob::CallbackHandler {
    void jobFinished(ProvisioningJob&, XCode result) override { results.push_back(result); }
    std::vector<XCode> results;
};

// A download job whose hook fails, to see that a failed hook is not retried elsewhere.
class RefusingJob : public ProvisioningJob {
  public:
    RefusingJob(KtEventLoop& loop, const KtList<String>& locations,
                const ProvisioningCredentials& credentials, ExpressionResolver& resolver,
                CallbackHandler& handler)
        : ProvisioningJob(loop, "refusing", None, Download, false, locations, credentials, resolver,
                          handler) {}
    int hookCalls = 0;

  protected:
    XCode onSuccessfulFileDownload() override {
        ++hookCalls;
        return testExpression(false).setString("HOOK REFUSED");
    }
    XCode onFailedFileDownload() override { return testExpression(true); }
};

class LocationWalkTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(server.start());
        Device::SET_ROOT(device.path().c_str());
        ASSERT_TRUE(Device::PREPARE().isSuccess());
        DB::Table::ProvisioningStatusHooks::RESET();
        MON_PROV = &prov;
        MON_XFER = &xfer;
        // Unique per test: the work directory is shared by everything on this host.
        unique = String::format("walk-%d-%s", getpid(),
                                ::testing::UnitTest::GetInstance()->current_test_info()->name());
    }
    void TearDown() override {
        MON_PROV = nullptr;
        MON_XFER = nullptr;
    }
    String location(const String& file) const {
        return String::format("tftp://127.0.0.1:%u/%s", server.port(), file.c_str());
    }
    bool runToEnd() {
        return loop.runUntil([this] { return !handler.results.empty(); }, 60s);
    }

    provtest::TftpServer server;
    provtest::TempDir device{"prov-walk"};
    KtEventLoop loop;
    ProvisioningCredentials credentials;
    ExpressionResolver resolver;
    RecordingHandler handler;
    CaptureMonitor prov{"PROV"};
    CaptureMonitor xfer{"XFER"};
    String unique;
};

TEST_F(LocationWalkTest, configurationIsDownloadedAndStored) {
    String file = unique + ".cfg";
    server.put(file.str(), VALID_CONFIG);
    ConfigProvisioningJob job(loop, "cfg", ProvisioningJob::None, false, {location(file)},
                              credentials, resolver, handler);
    ASSERT_TRUE(job.execute().isSuccess());
    EXPECT_EQ(DB::Table::SimulatedProvisioningStatus::RECORD()->location.get(), location(file));
    ASSERT_TRUE(runToEnd()) << prov.dump();
    ASSERT_EQ(handler.results.size(), 1u);
    EXPECT_TRUE(handler.results[0].isSuccess()) << handler.results[0].toString().c_str();
    String stored, error;
    ASSERT_TRUE(CLI::GET_CONFIGURATION_CONTENT("startup-config", stored, error).isSuccess());
    EXPECT_EQ(stored, VALID_CONFIG);
    String workFile = "/tmp/provisioning/" + file;
    EXPECT_TRUE(prov.contains("[cfg] Starting TFTP download"));
    EXPECT_GE(prov.indexOf(("[cfg]   From: " + location(file)).str()), 0) << prov.dump();
    EXPECT_GE(prov.indexOf(("[cfg]   To:   " + workFile).str()), 0);
    EXPECT_GE(prov.indexOf(
                  ("[cfg] File downloaded: '" + location(file) + "' -> '" + workFile + "'").str()),
              0);
    EXPECT_GE(xfer.indexOf(("cfg : " + location(file) + " -> startup-config : succeeded").str()), 0)
        << xfer.dump();
    // The work file is left behind after success.
    EXPECT_TRUE(provtest::fileExists(Device::MAP_PATH(workFile).str()));
    unlink(Device::MAP_PATH(workFile).c_str());
}

TEST_F(LocationWalkTest, fortyFailingLocationsStopAfterThirty) {
    KtList<String> locations;
    for (int i = 0; i < 40; ++i) {
        locations.pushBack(location(String::format("%s-missing-%d.cfg", unique.c_str(), i)));
    }
    ConfigProvisioningJob job(loop, "forty", ProvisioningJob::None, false, locations, credentials,
                              resolver, handler);
    ASSERT_TRUE(job.execute().isSuccess());
    ASSERT_TRUE(runToEnd());
    ASSERT_EQ(handler.results.size(), 1u);
    EXPECT_EQ(handler.results[0].getString(), "REDIRECTION LOOP DETECTED");
    EXPECT_EQ(prov.count("Trying to download from location"), 30);
    EXPECT_EQ(prov.count("[forty] FAILED TO DOWNLOAD CONFIGURATION"), 30);
    EXPECT_EQ(prov.levelOf("[forty] FAILED TO DOWNLOAD CONFIGURATION"), 3);
    EXPECT_GE(prov.indexOf("[forty] Stop downloading after trying 30 locations"), 0);
    EXPECT_FALSE(prov.contains(String::format("missing-30.cfg").c_str()));
    EXPECT_EQ(job.getLocationsTried(), 30u);
}

TEST_F(LocationWalkTest, failedDownloadLeavesNoWorkFileAndReportsTheShellsCode) {
    String file = unique + "-absent.cfg";
    ConfigProvisioningJob job(loop, "absent", ProvisioningJob::None, false, {location(file)},
                              credentials, resolver, handler);
    ASSERT_TRUE(job.execute().isSuccess());
    ASSERT_TRUE(runToEnd());
    ASSERT_EQ(handler.results.size(), 1u);
    EXPECT_EQ(handler.results[0].getFamily(), XCode::EXIT_STATUS_FAMILY);
    EXPECT_FALSE(provtest::fileExists(Device::MAP_PATH("/tmp/provisioning/" + file).str()));
    // The client's error output is logged with the TFTP prefix.
    EXPECT_GE(prov.find("[TFTP] "), 0) << prov.dump();
    EXPECT_TRUE(prov.contains(("[absent] DOWNLOAD LOCATION FAILED: " + location(file)).str()));
    EXPECT_EQ(prov.levelOf(("[absent] EXECUTION FAILED: " + handler.results[0].toString()).str()),
              3);
}

TEST_F(LocationWalkTest, ftpIsSkippedWithoutCountingAndCapitalSchemeIsAccepted) {
    String file = unique + ".cfg";
    server.put(file.str(), VALID_CONFIG);
    String capital = String::format("TFTP://127.0.0.1:%u/%s", server.port(), file.c_str());
    ConfigProvisioningJob job(loop, "schemes", ProvisioningJob::None, false,
                              {"ftp://127.0.0.1/x.cfg", capital}, credentials, resolver, handler);
    ASSERT_TRUE(job.execute().isSuccess());
    ASSERT_TRUE(runToEnd());
    EXPECT_TRUE(handler.results[0].isSuccess()) << prov.dump();
    EXPECT_EQ(job.getLocationsTried(), 0u);
    unlink(Device::MAP_PATH("/tmp/provisioning/" + file).c_str());
}

TEST_F(LocationWalkTest, failingHookEndsTheJobWithoutTryingTheNextLocation) {
    String file = unique + ".cfg";
    server.put(file.str(), "anything");
    RefusingJob job(loop, {location(file), location(file + ".second")}, credentials, resolver,
                    handler);
    ASSERT_TRUE(job.execute().isSuccess());
    ASSERT_TRUE(runToEnd());
    ASSERT_EQ(handler.results.size(), 1u);
    EXPECT_EQ(handler.results[0].getString(), "HOOK REFUSED");
    EXPECT_EQ(job.hookCalls, 1);
    EXPECT_EQ(prov.count("Trying to download from location"), 1);
    unlink(Device::MAP_PATH("/tmp/provisioning/" + file).c_str());
}

TEST_F(LocationWalkTest, expressionsAreResolvedBeforeTheTransfer) {
    String file = unique + "-00AA.cfg";
    server.put(file.str(), VALID_CONFIG);
    resolver.macAddress = "00AA";
    String withExpression =
        String::format("tftp://127.0.0.1:%u/%s-$(system.mac).cfg", server.port(), unique.c_str());
    ConfigProvisioningJob job(loop, "expr", ProvisioningJob::None, false, {withExpression},
                              credentials, resolver, handler);
    ASSERT_TRUE(job.execute().isSuccess());
    ASSERT_TRUE(runToEnd());
    EXPECT_TRUE(handler.results[0].isSuccess()) << prov.dump();
    EXPECT_GE(prov.indexOf(("[expr] Location resolved to " + location(file)).str()), 0);
    EXPECT_EQ(job.getDownloadLocation(), location(file));
    unlink(Device::MAP_PATH("/tmp/provisioning/" + file).c_str());
}

TEST_F(LocationWalkTest, uploadRetryGoesBackToTheLocationThatFailed) {
    provtest::TftpServer refusing({false});
    ASSERT_TRUE(refusing.start());
    String stored, error;
    ASSERT_TRUE(
        CLI::STORE_CONFIGURATION_CONTENT("startup-config", VALID_CONFIG, error).isSuccess());
    String first = String::format("tftp://127.0.0.1:%u/%s-up.cfg", refusing.port(), unique.c_str());
    String second = location(unique + "-second.cfg");
    UploadProvisioningJob job(loop, "up", ProvisioningJob::None, false, {first, second},
                              credentials, resolver, handler);
    ASSERT_TRUE(job.execute().isSuccess());
    ASSERT_TRUE(runToEnd());
    ASSERT_EQ(handler.results.size(), 1u);
    EXPECT_TRUE(handler.results[0].isErr());
    EXPECT_EQ(prov.count(("[up] Trying to upload to location " + first).str()), 2) << prov.dump();
    EXPECT_FALSE(prov.contains(("Trying to upload to location " + second).str()));
    EXPECT_EQ(prov.count(("[up] DOWNLOAD LOCATION FAILED: " + first).str()), 2);
    EXPECT_FALSE(server.exists((unique + "-second.cfg").str()));
    // The status record shows the source name, not the target.
    EXPECT_EQ(DB::Table::SimulatedProvisioningStatus::RECORD()->location.get(), "startup-config");
}

TEST_F(LocationWalkTest, uploadSendsTheStartupConfiguration) {
    String error;
    ASSERT_TRUE(
        CLI::STORE_CONFIGURATION_CONTENT("startup-config", VALID_CONFIG, error).isSuccess());
    String target = location(unique + "-up.cfg");
    UploadProvisioningJob job(loop, "up", ProvisioningJob::None, false, {target}, credentials,
                              resolver, handler);
    ASSERT_TRUE(job.execute().isSuccess());
    ASSERT_TRUE(runToEnd());
    ASSERT_TRUE(handler.results[0].isSuccess()) << prov.dump();
    EXPECT_EQ(server.received((unique + "-up.cfg").str(), std::strlen(VALID_CONFIG)), VALID_CONFIG);
    EXPECT_GE(prov.indexOf("[up] Starting TFTP upload"), 0);
    EXPECT_GE(prov.indexOf("[up]   From: /tmp/provisioning/file"), 0);
    EXPECT_GE(prov.indexOf(("[up]   To:   " + target).str()), 0);
    EXPECT_GE(
        prov.indexOf(("[up] File uploaded : '/tmp/provisioning/file' -> '" + target + "'").str()),
        0);
}

// The fragment is the device's own: tftp asks for the file, the logs keep the location as written.
TEST_F(LocationWalkTest, fragmentIsNotSentAndTheLocationIsLoggedAsWritten) {
    String file = unique + ".cfg";
    server.put(file.str(), VALID_CONFIG);
    String written = location(file) + "#part";
    ConfigProvisioningJob job(loop, "frag", ProvisioningJob::None, false, {written}, credentials,
                              resolver, handler);
    ASSERT_TRUE(job.execute().isSuccess());
    ASSERT_TRUE(runToEnd()) << prov.dump();
    ASSERT_EQ(handler.results.size(), 1u);
    EXPECT_TRUE(handler.results[0].isSuccess()) << handler.results[0].toString().c_str();
    String workFile = "/tmp/provisioning/" + file;
    EXPECT_GE(prov.indexOf(("[frag]   From: " + location(file)).str()), 0) << prov.dump();
    EXPECT_GE(
        prov.indexOf(("[frag] File downloaded: '" + written + "' -> '" + workFile + "'").str()), 0)
        << prov.dump();
    EXPECT_GE(xfer.indexOf(("frag : " + written + " -> startup-config : succeeded").str()), 0)
        << xfer.dump();
    unlink(Device::MAP_PATH(workFile).c_str());
}

// A query has no meaning to a TFTP server: the location fails at once and the walk goes on.
TEST_F(LocationWalkTest, queryIsRefusedAndTheNextLocationIsTried) {
    String file = unique + ".cfg";
    server.put(file.str(), VALID_CONFIG);
    String withQuery = location(file) + "?mac=001122";
    ConfigProvisioningJob job(loop, "query", ProvisioningJob::None, false,
                              {withQuery, location(file)}, credentials, resolver, handler);
    ASSERT_TRUE(job.execute().isSuccess());
    ASSERT_TRUE(runToEnd()) << prov.dump();
    ASSERT_EQ(handler.results.size(), 1u);
    EXPECT_TRUE(handler.results[0].isSuccess()) << handler.results[0].toString().c_str();
    EXPECT_GE(prov.indexOf(("[query] Trying to download from location " + withQuery).str()), 0);
    EXPECT_EQ(prov.count("[query] Starting TFTP download"), 1) << prov.dump();
    EXPECT_EQ(job.getDownloadLocation(), location(file));
    unlink(Device::MAP_PATH("/tmp/provisioning/" + file).c_str());
}

// BusyBox tftp gets the address with its brackets, as the location writes it.
TEST_F(LocationWalkTest, ipv6LoopbackDownloadAndUpload) {
    provtest::TftpServer::Options options;
    options.ipv6 = true;
    provtest::TftpServer six(options);
    ASSERT_TRUE(six.start());
    String file = unique + "-six.cfg";
    six.put(file.str(), VALID_CONFIG);
    String from = String::format("tftp://[::1]:%u/%s", six.port(), file.c_str());
    ConfigProvisioningJob download(loop, "six", ProvisioningJob::None, false, {from}, credentials,
                                   resolver, handler);
    ASSERT_TRUE(download.execute().isSuccess());
    ASSERT_TRUE(runToEnd()) << prov.dump();
    ASSERT_TRUE(handler.results[0].isSuccess()) << handler.results[0].toString().c_str();
    EXPECT_GE(prov.indexOf(("[six]   From: " + from).str()), 0) << prov.dump();
    unlink(Device::MAP_PATH("/tmp/provisioning/" + file).c_str());

    // The download stored the file as the startup configuration, which the upload sends back.
    String to = String::format("tftp://[::1]:%u/%s-up.cfg", six.port(), unique.c_str());
    UploadProvisioningJob upload(loop, "up6", ProvisioningJob::None, false, {to}, credentials,
                                 resolver, handler);
    ASSERT_TRUE(upload.execute().isSuccess());
    ASSERT_TRUE(loop.runUntil([this] { return handler.results.size() == 2; }, 60s));
    ASSERT_TRUE(handler.results[1].isSuccess()) << prov.dump();
    EXPECT_EQ(six.read((unique + "-up.cfg").str()), VALID_CONFIG);
}

TEST_F(LocationWalkTest, cdrUploadFailsWithNotImplemented) {
    CdrUploadJob job(loop, "cdr", "cdr-source", ProvisioningJob::None, false, {location("x")},
                     credentials, resolver, handler);
    XCode result = job.execute();
    EXPECT_EQ(result.getString(), "NOT IMPLEMENTED");
    ASSERT_EQ(handler.results.size(), 1u);
    EXPECT_FALSE(prov.contains("Trying to upload"));
}

TEST_F(LocationWalkTest, shellCharactersInALocationRunNoSecondCommand) {
    String marker = String::format("/tmp/prov-owned-%d", getpid());
    unlink(marker.c_str());
    ConfigProvisioningJob job(loop, "inject", ProvisioningJob::None, false,
                              {location("x;touch " + marker), location("`touch " + marker + "`"),
                               location("$(touch " + marker + ")")},
                              credentials, resolver, handler);
    static_cast<void>(job.execute());
    ASSERT_TRUE(runToEnd());
    EXPECT_TRUE(handler.results[0].isErr());
    EXPECT_FALSE(provtest::fileExists(marker.str()));
}

TEST_F(LocationWalkTest, destroyedJobGetsNoCallbackAndLeavesNoChild) {
    // Nothing answers on this port: the client would wait for its timeout.
    provtest::LoopbackSocket silent = provtest::LoopbackSocket::udp();
    String file = unique + "-silent.cfg";
    {
        ConfigProvisioningJob job(
            loop, "gone", ProvisioningJob::None, false,
            {String::format("tftp://127.0.0.1:%u/%s", silent.port(), file.c_str())}, credentials,
            resolver, handler);
        ASSERT_TRUE(job.execute().isSuccess());
        ASSERT_EQ(Kt::ShellHooks::RUNNING_COMMANDS(), 1u);
    }
    EXPECT_TRUE(Kt::ShellControl::WAIT_FOR_RUNNING_COMMANDS(0, 10s));
    loop.runUntil([] { return false; }, 300ms);
    EXPECT_TRUE(handler.results.empty());
    unlink(Device::MAP_PATH("/tmp/provisioning/" + file).c_str());
}

}  // namespace
