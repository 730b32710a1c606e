// The HTTP client against real wget and a real server on loopback
// (tests/support/http_client_fixture.py).

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "engine/Monitors.h"
#include "platform/Shell.h"
#include "platform/WgetUtil.h"
#include "platform/simulated/DeviceDirectory.h"
#include "platform/testing/ShellHooks.h"
#include "support/CaptureMonitor.h"
#include "support/Certificates.h"
#include "support/Process.h"
#include "support/TempDir.h"
#include "transfer/ProvisioningHttpClient.h"

namespace {

using provtest::fileExists;
using provtest::readFile;
using provtest::writeFile;

constexpr std::chrono::milliseconds DEADLINE = provtest::DEFAULT_DEADLINE;

// The fixture server as a child of the test: started on a free port, stopped with the test.
class FixtureHttp {
  public:
    ::testing::AssertionResult start(std::vector<std::string> options = {}) {
        provtest::SpawnSpec launch;
        launch.argv = {"/usr/bin/python3",
                       std::string(PROV_SOURCE_DIR) + "/tests/support/http_client_fixture.py"};
        launch.argv.insert(launch.argv.end(), options.begin(), options.end());
        launch.env = {"LC_ALL=C.UTF-8"};
        launch.captureStdout = true;
        launch.logPath = log.file("server.log");
        ::testing::AssertionResult spawned = process.spawn(launch);
        if (!spawned) {
            return spawned;
        }
        std::string line;
        if (!process.readLine(line) || line.rfind("PORT ", 0) != 0) {
            return ::testing::AssertionFailure() << "fixture did not report its port: '" << line
                                                 << "' " << readFile(launch.logPath);
        }
        port = std::stoi(line.substr(5));
        return ::testing::AssertionSuccess();
    }
    String url(const std::string& path, const char* scheme = "http") const {
        return String::format("%s://127.0.0.1:%d%s", scheme, port, path.c_str());
    }

    provtest::TempDir log{"http-client-fixture"};
    provtest::ServerProcess process;
    int port = 0;
};

class HttpClientTest : public ::testing::Test {
  protected:
    void SetUp() override {
        MON_PROV = &monitor;
        outFile =
            String::format("/tmp/provisioning/http-client-test-%d-%s", static_cast<int>(getpid()),
                           ::testing::UnitTest::GetInstance()->current_test_info()->name());
        ::unlink(Device::MAP_PATH(outFile).c_str());
    }
    void TearDown() override {
        client.reset();
        loop.runPending();
        MON_PROV = nullptr;
        ::unlink(Device::MAP_PATH(outFile).c_str());
    }

    Kt::Function<void(XCode)> counting() {
        return Kt::Function<void(XCode)>(Kt::asyncCall(loop), [this](XCode code) {
            ++completions;
            outcome = std::move(code);
        });
    }
    // Runs the loop until the run has completed.
    ::testing::AssertionResult completed() {
        if (!loop.runUntil([this] { return completions > 0; }, DEADLINE)) {
            return ::testing::AssertionFailure() << "no completion; log:\n" << monitor.dump();
        }
        return ::testing::AssertionSuccess();
    }

    provtest::CaptureMonitor monitor{"PROV"};
    KtEventLoop loop;
    std::unique_ptr<ProvisioningHttpClient> client = std::make_unique<ProvisioningHttpClient>(
        "job", "oem", "model", "serial", "1.0", "hw", "rev", loop);
    FixtureHttp server;
    String outFile;
    int completions = 0;
    XCode outcome;
};

TEST_F(HttpClientTest, okBodyReplacesALongerOlderFile) {
    ASSERT_TRUE(server.start());
    writeFile(Device::MAP_PATH(outFile).str(), std::string(5000, 'x'));
    ASSERT_TRUE(
        client->getHttpInBackground(server.url("/file/20"), outFile, counting()).isSuccess());
    ASSERT_TRUE(completed());
    EXPECT_TRUE(outcome.isSuccess()) << outcome.toString().str();
    EXPECT_EQ(readFile(Device::MAP_PATH(outFile).str()), "01234567890123456789");
    EXPECT_EQ(client->getLastStatus(), 200);
    EXPECT_EQ(completions, 1);
    EXPECT_TRUE(monitor.contains("[job/HTTP] Invoke wget with cmdline: wget -q -S --no-config"));
    EXPECT_GE(monitor.indexOf("[job/HTTP]   HTTP/1.1 200 OK"), 0) << monitor.dump();
}

TEST_F(HttpClientTest, largeBodyPrintsNoProgress) {
    ASSERT_TRUE(server.start());
    ASSERT_TRUE(
        client->getHttpInBackground(server.url("/file/3000000"), outFile, counting()).isSuccess());
    ASSERT_TRUE(completed());
    EXPECT_TRUE(outcome.isSuccess()) << outcome.toString().str();
    EXPECT_EQ(readFile(Device::MAP_PATH(outFile).str()).size(), 3000000U);
    // Only the header lines, the command line and the result line were logged.
    EXPECT_LE(monitor.lines().size(), 8U) << monitor.dump();
}

TEST_F(HttpClientTest, notFoundNamesTheStatusLine) {
    ASSERT_TRUE(server.start());
    ASSERT_TRUE(
        client->getHttpInBackground(server.url("/status/404"), outFile, counting()).isSuccess());
    ASSERT_TRUE(completed());
    EXPECT_EQ(outcome.getValue(), 0x12000008U);
    EXPECT_EQ(outcome.getString(),
              "UNHANDLED ERROR RESPONSE STATUS: HTTP/1.1 404 Not Found: wget EXITED WITH STATUS 8");
    EXPECT_EQ(client->getLastStatus(), 404);
    EXPECT_GE(monitor.indexOf("[job/HTTP] " + outcome.getString().str()), 0) << monitor.dump();
}

TEST_F(HttpClientTest, challengeGivesTheRealm) {
    ASSERT_TRUE(server.start());
    ASSERT_TRUE(
        client->getHttpInBackground(server.url("/basic/lab"), outFile, counting()).isSuccess());
    ASSERT_TRUE(completed());
    EXPECT_TRUE(outcome.isHttpErr(401)) << outcome.toString().str();
    EXPECT_EQ(client->getRealm(), "lab");
    EXPECT_EQ(client->getAuthScheme(), "Basic");
    EXPECT_EQ(client->getLastStatus(), 401);
}

TEST_F(HttpClientTest, credentialsWithBlanksAndQuotesReachTheServerIntact) {
    ASSERT_TRUE(server.start());
    const String user("a \"b\"\tc");
    const String password("p w\"d' #x = y");
    ASSERT_TRUE(
        client->getHttpInBackground(server.url("/basic/lab"), user, password, outFile, counting())
            .isSuccess());
    ASSERT_TRUE(completed());
    EXPECT_TRUE(outcome.isSuccess()) << outcome.toString().str() << "\n" << monitor.dump();
    // The server echoes what it decoded from the Authorization header.
    EXPECT_EQ(readFile(Device::MAP_PATH(outFile).str()), (user + ":" + password).str());
    // wget asked without credentials first, was challenged, and the final answer counts.
    EXPECT_EQ(client->getLastStatus(), 200);
    EXPECT_FALSE(monitor.contains("p w\"d' #x = y")) << monitor.dump();
}

TEST_F(HttpClientTest, secondRunOnTheSameClientRetriesWithCredentials) {
    ASSERT_TRUE(server.start());
    ASSERT_TRUE(
        client->getHttpInBackground(server.url("/basic/lab"), outFile, counting()).isSuccess());
    ASSERT_TRUE(completed());
    ASSERT_TRUE(outcome.isHttpErr(401));
    completions = 0;
    ASSERT_TRUE(
        client->getHttpInBackground(server.url("/basic/lab"), "user", "secret", outFile, counting())
            .isSuccess());
    ASSERT_TRUE(completed());
    EXPECT_TRUE(outcome.isSuccess()) << outcome.toString().str();
    EXPECT_EQ(readFile(Device::MAP_PATH(outFile).str()), "user:secret");
    EXPECT_EQ(client->getRealm(), "lab");  // kept from the first run
}

TEST_F(HttpClientTest, movedPermanentlyIsNotFollowedButReported) {
    ASSERT_TRUE(server.start());
    ASSERT_TRUE(client->getHttpInBackground(server.url("/moved"), outFile, counting()).isSuccess());
    ASSERT_TRUE(completed());
    EXPECT_TRUE(outcome.isHttpErr(302)) << outcome.toString().str();
    EXPECT_EQ(client->getLocation(), server.url("/file/10"));
    EXPECT_EQ(client->getLastStatus(), 301);
}

TEST_F(HttpClientTest, refusedConnectionIsANetworkFailure) {
    provtest::LoopbackSocket refusing = provtest::LoopbackSocket::tcpRefusing();
    ASSERT_TRUE(refusing.valid()) << refusing.error();
    String url = String::format("http://127.0.0.1:%u/x", refusing.port());
    ASSERT_TRUE(client->getHttpInBackground(url, outFile, counting()).isSuccess());
    ASSERT_TRUE(completed());
    EXPECT_EQ(outcome.getValue(), 0x12000004U);
    EXPECT_EQ(outcome.getString(),
              "NETWORK FAILURE (NO NAME SERVER, NO ROUTE TO HOST, OR TRANSFER FAILED): "
              "wget EXITED WITH STATUS 4");
}

TEST_F(HttpClientTest, blockingGetFromASecondThreadWhileTheLoopRuns) {
    ASSERT_TRUE(server.start());
    std::atomic<bool> done{false};
    XCode result;
    String url = server.url("/file/30");
    std::thread caller([&] {
        result = client->getHttp(url, outFile);
        done = true;
        loop.post([] {});  // wakes the loop so that it sees `done`
    });
    bool finished = loop.runUntil([&] { return done.load(); }, DEADLINE);
    if (!finished) {
        // The caller still waits inside the client: nothing can be torn down safely.
        ADD_FAILURE() << "blocking call did not return; log:\n" << monitor.dump();
        std::_Exit(1);
    }
    caller.join();
    EXPECT_TRUE(result.isSuccess()) << result.toString().str();
    EXPECT_EQ(readFile(Device::MAP_PATH(outFile).str()), "012345678901234567890123456789");
    EXPECT_EQ(client->getLastStatus(), 200);
}

TEST_F(HttpClientTest, blockingGetReturnsTheFailure) {
    ASSERT_TRUE(server.start());
    std::atomic<bool> done{false};
    XCode result;
    String url = server.url("/status/404");
    std::thread caller([&] {
        result = client->getHttp(url, outFile);
        done = true;
        loop.post([] {});
    });
    bool finished = loop.runUntil([&] { return done.load(); }, DEADLINE);
    if (!finished) {
        ADD_FAILURE() << "blocking call did not return; log:\n" << monitor.dump();
        std::_Exit(1);
    }
    caller.join();
    EXPECT_EQ(result.getValue(), 0x12000008U);
}

TEST_F(HttpClientTest, destroyingTheClientMidTransferGivesNoCallback) {
    ASSERT_TRUE(server.start());
    std::size_t before = Kt::ShellHooks::RUNNING_COMMANDS();
    ASSERT_TRUE(
        client->getHttpInBackground(server.url("/hang"), "user", "secret", outFile, counting())
            .isSuccess());
    std::string commandLine = monitor.lines().front();
    std::size_t at = commandLine.find("--config=");
    ASSERT_NE(at, std::string::npos);
    std::string config = commandLine.substr(at + 9, commandLine.find(' ', at) - at - 9);
    // The server has answered with its headers: wget is mid-body.
    ASSERT_TRUE(loop.runUntil(
        [this] { return monitor.contains("[job/HTTP]   Content-Length: 1000000"); }, DEADLINE))
        << monitor.dump();
    client.reset();
    // The private files went with the run.
    EXPECT_FALSE(fileExists(config)) << config;
    std::size_t logged = monitor.lines().size();
    // Until wget has been terminated and reaped, nothing that it printed or its end may arrive.
    bool reaped = false;
    std::function<void()> check = [&] {
        reaped = Kt::ShellHooks::RUNNING_COMMANDS() <= before;
        if (!reaped) {
            std::this_thread::yield();
            loop.post(check);
        }
    };
    loop.post(check);
    EXPECT_TRUE(loop.runUntil([&] { return reaped; }, DEADLINE));
    loop.runPending();
    EXPECT_EQ(completions, 0);
    EXPECT_EQ(monitor.lines().size(), logged) << monitor.dump();
}

TEST_F(HttpClientTest, httpsWithTheServersCaIsTrusted) {
    const provtest::Certificates& certificates = provtest::Certificates::get();
    ASSERT_TRUE(certificates.ok()) << certificates.error();
    ASSERT_TRUE(
        server.start({"--cert", certificates.serverChain(), "--key", certificates.serverKey()}));
    ASSERT_TRUE(client
                    ->getHttpsInBackground(server.url("/file/12", "https"), outFile,
                                           certificates.rootCa().c_str(), "", "", counting())
                    .isSuccess());
    ASSERT_TRUE(completed());
    EXPECT_TRUE(outcome.isSuccess()) << outcome.toString().str() << "\n" << monitor.dump();
    EXPECT_EQ(readFile(Device::MAP_PATH(outFile).str()), "012345678901");
    EXPECT_TRUE(monitor.contains("--ca-directory=/tmp/provisioning/.wget-"));
}

TEST_F(HttpClientTest, httpsWithoutTheCaIsRefused) {
    const provtest::Certificates& certificates = provtest::Certificates::get();
    ASSERT_TRUE(certificates.ok()) << certificates.error();
    ASSERT_TRUE(
        server.start({"--cert", certificates.serverChain(), "--key", certificates.serverKey()}));
    // Neither the system's trust store nor another CA vouches for the test server.
    ASSERT_TRUE(client
                    ->getHttpsInBackground(server.url("/file/12", "https"), outFile,
                                           certificates.clientCa().c_str(), "", "", counting())
                    .isSuccess());
    ASSERT_TRUE(completed());
    EXPECT_EQ(outcome.getValue(), 0x12000005U);
    EXPECT_EQ(outcome.getString(), "UNKNOWN ERROR: wget EXITED WITH STATUS 5");
    completions = 0;
    ASSERT_TRUE(
        client
            ->getHttpsInBackground(server.url("/file/12", "https"), outFile, "", "", "", counting())
            .isSuccess());
    ASSERT_TRUE(completed());
    EXPECT_EQ(outcome.getValue(), 0x12000005U);
}

TEST_F(HttpClientTest, httpsClientCertificateAndKeyAreSent) {
    const provtest::Certificates& certificates = provtest::Certificates::get();
    ASSERT_TRUE(certificates.ok()) << certificates.error();
    ASSERT_TRUE(server.start({"--cert", certificates.serverChain(), "--key",
                              certificates.serverKey(), "--client-ca", certificates.clientCa()}));
    ASSERT_TRUE(client
                    ->getHttpsInBackground(server.url("/file/12", "https"), outFile,
                                           certificates.rootCa().c_str(),
                                           certificates.clientCert().c_str(),
                                           certificates.clientKey().c_str(), counting())
                    .isSuccess());
    ASSERT_TRUE(completed());
    EXPECT_TRUE(outcome.isSuccess()) << outcome.toString().str() << "\n" << monitor.dump();
    EXPECT_EQ(readFile(Device::MAP_PATH(outFile).str()), "012345678901");

    completions = 0;
    ASSERT_TRUE(client
                    ->getHttpsInBackground(server.url("/file/12", "https"), outFile,
                                           certificates.rootCa().c_str(), "", "", counting())
                    .isSuccess());
    ASSERT_TRUE(completed());
    EXPECT_TRUE(outcome.isErr()) << monitor.dump();
}

}  // namespace
