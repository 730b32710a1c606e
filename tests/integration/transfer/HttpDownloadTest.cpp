// Whole jobs downloading over HTTP and HTTPS with GNU wget, against lighttpd (production answers:
// files, realms, redirects, certificates) and the fixture server (answers on demand, with a log of
// the requests it received).
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "engine/Monitors.h"
#include "jobs/content/ConfigProvisioningJob.h"
#include "jobs/content/UploadProvisioningJob.h"
#include "platform/Cli.h"
#include "platform/Shell.h"
#include "platform/StatusDb.h"
#include "platform/UriUtil.h"
#include "platform/posix/ShellControl.h"
#include "platform/simulated/DeviceDirectory.h"
#include "platform/simulated/SimulatedStatusDb.h"
#include "platform/testing/ShellHooks.h"
#include "platform/testing/StatusDbHooks.h"
#include "support/CaptureMonitor.h"
#include "support/Certificates.h"
#include "support/FixtureServer.h"
#include "support/HttpServer.h"
#include "support/Process.h"
#include "support/RejectedCommands.h"
#include "support/TempDir.h"

namespace {

using namespace std::chrono_literals;
using provtest::CaptureMonitor;
using provtest::decodeBasic;
using provtest::FixtureResponse;
using provtest::FixtureServer;
using provtest::HttpServer;

const char* const VALID_CONFIG =
    "cli version 4.10\ncontext ip router\n  interface lan\nport ethernet 0 0\n";

struct RecordingHandler : ProvisioningJob::CallbackHandler {
    void jobFinished(ProvisioningJob&, XCode result) override { results.push_back(result); }
    std::vector<XCode> results;
};

class HttpDownloadTest : public ::testing::Test {
  protected:
    void SetUp() override {
        Device::SET_ROOT(device.path().c_str());
        ASSERT_TRUE(Device::PREPARE().isSuccess());
        DB::Table::ProvisioningStatusHooks::RESET();
        MON_PROV = &prov;
        MON_XFER = &xfer;
        MON_EVENT = &event;
        // Unique per test: the work directory is shared by everything on this host.
        unique = String::format("%d-%s", getpid(),
                                ::testing::UnitTest::GetInstance()->current_test_info()->name());
    }
    void TearDown() override {
        MON_PROV = nullptr;
        MON_XFER = nullptr;
        MON_EVENT = nullptr;
        for (const std::string& file : workFiles) {
            ::unlink(file.c_str());
        }
    }

    // A remote path "/<dir><unique><suffix>" whose work file is removed after the test.
    std::string remote(const std::string& suffix, const std::string& dir = "") {
        std::string file = unique.str() + suffix;
        workFiles.push_back(Device::MAP_PATH("/tmp/provisioning").str() + "/" + file);
        return "/" + dir + file;
    }
    // The work file's device path, as the job logs it.
    static std::string workFileOf(const std::string& remotePath) {
        return "/tmp/provisioning/" + remotePath.substr(remotePath.rfind('/') + 1);
    }
    static std::string hostWorkFileOf(const std::string& remotePath) {
        return Device::MAP_PATH(workFileOf(remotePath).c_str()).str();
    }
    std::unique_ptr<ConfigProvisioningJob> configJob(const char* name,
                                                     const KtList<String>& locations,
                                                     bool compare = false) {
        return std::make_unique<ConfigProvisioningJob>(loop, name, ProvisioningJob::None, compare,
                                                       locations, credentials, resolver, handler);
    }
    ::testing::AssertionResult runToEnd(std::chrono::milliseconds timeout = 60s) {
        if (!loop.runUntil([this] { return !handler.results.empty(); }, timeout)) {
            return ::testing::AssertionFailure() << "the job did not finish; log:\n" << prov.dump();
        }
        if (handler.results.size() != 1) {
            return ::testing::AssertionFailure() << handler.results.size() << " results";
        }
        return ::testing::AssertionSuccess();
    }
    const XCode& result() const { return handler.results.front(); }
    // A configuration answered 201 that the running system refused: the job ends with `message`,
    // nothing ran, the transfer log names running-config with the refusal, and no update is
    // reported.
    void expectExecutionRefused(const std::string& job, const String& url,
                                const std::string& message) {
        EXPECT_EQ(result().getString(), message);
        EXPECT_FALSE(provtest::fileExists(device.file("running-config")));
        EXPECT_GE(xfer.indexOf(job + " : " + url.str() +
                               " -> running-config : " + result().toString().str()),
                  0)
            << xfer.dump();
        EXPECT_FALSE(event.contains("Received"));
    }
    static std::string storedConfig() {
        String stored;
        String error;
        if (CLI::GET_CONFIGURATION_CONTENT("startup-config", stored, error).isErr()) {
            return "<none: " + error.str() + ">";
        }
        return stored.str();
    }
    // The five lines of the authenticated retry start at `first`, one after the other.
    ::testing::AssertionResult retryLinesAt(int first, const std::vector<std::string>& expected) {
        std::vector<std::string> lines = prov.lines();
        if (first < 0 || static_cast<std::size_t>(first) + expected.size() > lines.size()) {
            return ::testing::AssertionFailure() << "no retry lines; log:\n" << prov.dump();
        }
        for (std::size_t i = 0; i < expected.size(); ++i) {
            if (lines[first + i] != expected[i]) {
                return ::testing::AssertionFailure() << "line " << i << ": '" << lines[first + i]
                                                     << "' instead of '" << expected[i] << "'";
            }
        }
        return ::testing::AssertionSuccess();
    }
    // No line of any monitor holds `secret`.
    ::testing::AssertionResult neverLogged(const std::string& secret) const {
        for (const CaptureMonitor* monitor : {&prov, &xfer, &event}) {
            if (monitor->contains(secret)) {
                return ::testing::AssertionFailure() << "'" << secret << "' logged:\n"
                                                     << monitor->dump();
            }
        }
        return ::testing::AssertionSuccess();
    }
    int wgetRuns() const { return prov.count("/HTTP] Invoke wget with cmdline: wget "); }

    provtest::TempDir device{"prov-httpjob"};
    KtEventLoop loop;
    ProvisioningCredentials credentials;
    ExpressionResolver resolver;
    RecordingHandler handler;
    CaptureMonitor prov{"PROV"};
    CaptureMonitor xfer{"XFER"};
    CaptureMonitor event{"EVENT"};
    String unique;
    std::vector<std::string> workFiles;
};

// --- Plain downloads -----------------------------------------------------------------------

TEST_F(HttpDownloadTest, configurationOverHttpIsStored) {
    HttpServer server;
    std::string path = remote(".cfg");
    server.put(path, VALID_CONFIG);
    ASSERT_TRUE(server.start());
    String url = server.url(path);
    auto job = configJob("cfg", {url});
    ASSERT_TRUE(job->execute().isSuccess());
    EXPECT_EQ(DB::Table::SimulatedProvisioningStatus::RECORD()->location.get(), url);
    ASSERT_TRUE(runToEnd());
    EXPECT_TRUE(result().isSuccess()) << result().toString().str() << "\n" << prov.dump();
    EXPECT_EQ(storedConfig(), VALID_CONFIG);
    EXPECT_TRUE(job->getActivationFlag());
    EXPECT_TRUE(job->isComparisonAllowed());
    std::string workFile = workFileOf(path);
    int start = prov.indexOf("[cfg] Starting HTTP download");
    ASSERT_GE(start, 0) << prov.dump();
    EXPECT_EQ(prov.indexOf(("[cfg]   From: " + url).str()), start + 1);
    EXPECT_EQ(prov.indexOf("[cfg]   To:   " + workFile), start + 2);
    EXPECT_GE(prov.indexOf(("[cfg] File downloaded: '" + url + "' -> '").str() + workFile + "'"),
              0);
    EXPECT_GE(xfer.indexOf(("cfg : " + url + " -> startup-config : succeeded").str()), 0)
        << xfer.dump();
    EXPECT_GE(event.indexOf("[cfg] Received and stored configuration update"), 0);
    EXPECT_EQ(provtest::readFile(Device::MAP_PATH(workFile.c_str()).str()), VALID_CONFIG);
    EXPECT_EQ(wgetRuns(), 1);
}

TEST_F(HttpDownloadTest, configurationOverHttpsWithTheTestCaIsStored) {
    const provtest::Certificates& certificates = provtest::Certificates::get();
    ASSERT_TRUE(certificates.ok()) << certificates.error();
    HttpServer server;
    server.options().https = true;
    std::string path = remote(".cfg");
    server.put(path, VALID_CONFIG);
    ASSERT_TRUE(server.start());
    auto job = configJob("tls", {server.url(path)});
    job->setAuthentication(certificates.rootCa().c_str(), "", "");
    ASSERT_TRUE(job->execute().isSuccess());
    ASSERT_TRUE(runToEnd());
    EXPECT_TRUE(result().isSuccess()) << result().toString().str() << "\n" << prov.dump();
    EXPECT_EQ(storedConfig(), VALID_CONFIG);
    EXPECT_GE(prov.indexOf("[tls] Starting HTTPS download"), 0);
    EXPECT_TRUE(prov.contains("--ca-certificate=" + certificates.rootCa())) << prov.dump();
}

TEST_F(HttpDownloadTest, httpsWithoutCaIsUntrusted) {
    HttpServer server;
    server.options().https = true;
    std::string path = remote(".cfg");
    server.put(path, VALID_CONFIG);
    ASSERT_TRUE(server.start());
    // No setAuthentication: wget checks against the host's trust store, which does not know the
    // test CA.
    auto job = configJob("untrusted", {server.url(path)});
    ASSERT_TRUE(job->execute().isSuccess());
    ASSERT_TRUE(runToEnd());
    EXPECT_EQ(result().getValue(), 0x12000005U);
    EXPECT_EQ(result().getString(), "UNKNOWN ERROR: wget EXITED WITH STATUS 5");
    EXPECT_GE(prov.indexOf("[untrusted] FAILED TO DOWNLOAD CONFIGURATION"), 0);
    EXPECT_FALSE(provtest::fileExists(hostWorkFileOf(path)));
    EXPECT_EQ(storedConfig().rfind("<none", 0), 0U);
}

TEST_F(HttpDownloadTest, clientCertificateLocationAcceptsTheDevicesCertificate) {
    const provtest::Certificates& certificates = provtest::Certificates::get();
    ASSERT_TRUE(certificates.ok()) << certificates.error();
    HttpServer server;
    server.options().https = true;
    server.options().clientCertPaths = {"/device/"};
    std::string path = remote(".cfg", "device/");
    server.put(path, VALID_CONFIG);
    ASSERT_TRUE(server.start());
    auto job = configJob("cert", {server.url(path)});
    job->setAuthentication(certificates.rootCa().c_str(), certificates.clientCert().c_str(),
                           certificates.clientKey().c_str());
    ASSERT_TRUE(job->execute().isSuccess());
    ASSERT_TRUE(runToEnd());
    EXPECT_TRUE(result().isSuccess()) << result().toString().str() << "\n" << prov.dump();
    EXPECT_EQ(storedConfig(), VALID_CONFIG);
    EXPECT_TRUE(prov.contains("--certificate=" + certificates.clientCert()));
    EXPECT_TRUE(prov.contains("--private-key=" + certificates.clientKey()));
}

TEST_F(HttpDownloadTest, clientCertificateLocationRefusesADeviceWithoutCertificate) {
    const provtest::Certificates& certificates = provtest::Certificates::get();
    ASSERT_TRUE(certificates.ok()) << certificates.error();
    HttpServer server;
    server.options().https = true;
    server.options().clientCertPaths = {"/device/"};
    std::string path = remote(".cfg", "device/");
    server.put(path, VALID_CONFIG);
    ASSERT_TRUE(server.start());
    auto job = configJob("nocert", {server.url(path)});
    job->setAuthentication(certificates.rootCa().c_str(), "", "");
    ASSERT_TRUE(job->execute().isSuccess());
    ASSERT_TRUE(runToEnd());
    EXPECT_TRUE(result().isErr());
    EXPECT_EQ(storedConfig().rfind("<none", 0), 0U);
    EXPECT_FALSE(provtest::fileExists(hostWorkFileOf(path)));
    // The server's 401 carries no challenge: nothing to retry with, the location simply fails.
    EXPECT_GE(prov.indexOf("[nocert/HTTP]   HTTP/1.1 401 Unauthorized"), 0) << prov.dump();
    EXPECT_EQ(result().getString(), "START OF HEADER NOT FOUND");
    EXPECT_FALSE(prov.contains("Re-Starting")) << prov.dump();
    EXPECT_EQ(wgetRuns(), 1);
}

// --- Redirects -----------------------------------------------------------------------------

TEST_F(HttpDownloadTest, chainOfThreeRedirectsIsFollowedHopByHop) {
    HttpServer server;
    std::string path = remote(".cfg");
    std::string hop1 = remote("-hop1"), hop2 = remote("-hop2"), hop3 = remote("-hop3");
    server.options().redirects = {{hop1, server.url(hop2), 302},
                                  {hop2, server.url(hop3), 302},
                                  {hop3, server.url(path), 302}};
    server.put(path, VALID_CONFIG);
    ASSERT_TRUE(server.start());
    auto job = configJob("chain", {server.url(hop1)});
    ASSERT_TRUE(job->execute().isSuccess());
    ASSERT_TRUE(runToEnd());
    EXPECT_TRUE(result().isSuccess()) << result().toString().str() << "\n" << prov.dump();
    EXPECT_EQ(storedConfig(), VALID_CONFIG);
    int first = prov.indexOf("[chain] Redirected: '" + server.url(hop1) + "' -> '" +
                             server.url(hop2) + "'");
    int second = prov.indexOf("[chain] Redirected: '" + server.url(hop2) + "' -> '" +
                              server.url(hop3) + "'");
    int third = prov.indexOf("[chain] Redirected: '" + server.url(hop3) + "' -> '" +
                             server.url(path) + "'");
    EXPECT_GE(first, 0) << prov.dump();
    EXPECT_GT(second, first);
    EXPECT_GT(third, second);
    EXPECT_EQ(prov.count("[chain] Redirected: "), 3);
    EXPECT_EQ(wgetRuns(), 4);
    EXPECT_EQ(job->getLocationsTried(), 3U);
    EXPECT_EQ(job->getDownloadLocation(), server.url(path));
    // The transfer log names the location the file finally came from.
    EXPECT_GE(xfer.indexOf("chain : " + server.url(path) + " -> startup-config : succeeded"), 0)
        << xfer.dump();
}

TEST_F(HttpDownloadTest, redirectTargetIsTriedBeforeTheRemainingLocations) {
    HttpServer server;
    std::string hop = remote("-hop");
    std::string missing = remote("-missing.cfg");
    std::string fallback = remote("-fallback.cfg");
    server.options().redirects = {{hop, server.url(missing), 302}};
    server.put(fallback, VALID_CONFIG);
    ASSERT_TRUE(server.start());
    auto job = configJob("order", {server.url(hop), server.url(fallback)});
    ASSERT_TRUE(job->execute().isSuccess());
    ASSERT_TRUE(runToEnd());
    EXPECT_TRUE(result().isSuccess()) << result().toString().str() << "\n" << prov.dump();
    int target = prov.indexOf("[order] Trying to download from location " + server.url(missing));
    int next = prov.indexOf("[order] Trying to download from location " + server.url(fallback));
    EXPECT_GE(target, 0) << prov.dump();
    EXPECT_GT(next, target);
    EXPECT_GE(prov.find("[order] DOWNLOAD LOCATION FAILED: " + server.url(missing)), target);
    EXPECT_EQ(job->getDownloadLocation(), server.url(fallback));
}

TEST_F(HttpDownloadTest, relativeLocationKeepsSchemeHostAndPort) {
    HttpServer server;
    std::string hop = remote("-hop");
    std::string path = remote(".cfg", "new/");
    server.options().redirects = {{hop, path, 302}};
    server.put(path, VALID_CONFIG);
    ASSERT_TRUE(server.start());
    auto job = configJob("relative", {server.url(hop)});
    ASSERT_TRUE(job->execute().isSuccess());
    ASSERT_TRUE(runToEnd());
    EXPECT_TRUE(result().isSuccess()) << result().toString().str() << "\n" << prov.dump();
    EXPECT_GE(prov.indexOf("[relative/HTTP]   Location: " + path), 0) << prov.dump();
    String absolute = UriUtil::buildUri("http", "127.0.0.1", server.port(), path.c_str());
    EXPECT_EQ(absolute, server.url(path));
    EXPECT_GE(prov.indexOf("[relative] Redirected: '" + server.url(hop) + "' -> '" +
                           absolute.str() + "'"),
              0)
        << prov.dump();
}

TEST_F(HttpDownloadTest, relativeLocationOverHttpsStaysHttps) {
    const provtest::Certificates& certificates = provtest::Certificates::get();
    ASSERT_TRUE(certificates.ok()) << certificates.error();
    HttpServer server;
    server.options().https = true;
    std::string hop = remote("-hop");
    std::string path = remote(".cfg", "new/");
    server.options().redirects = {{hop, path, 302}};
    server.put(path, VALID_CONFIG);
    ASSERT_TRUE(server.start());
    auto job = configJob("relative", {server.url(hop)});
    job->setAuthentication(certificates.rootCa().c_str(), "", "");
    ASSERT_TRUE(job->execute().isSuccess());
    ASSERT_TRUE(runToEnd());
    EXPECT_TRUE(result().isSuccess()) << result().toString().str() << "\n" << prov.dump();
    String absolute = UriUtil::buildUri("https", "127.0.0.1", server.port(), path.c_str());
    EXPECT_GE(prov.indexOf("[relative] Redirected: '" + server.url(hop) + "' -> '" +
                           absolute.str() + "'"),
              0)
        << prov.dump();
    EXPECT_EQ(prov.count("[relative] Starting HTTPS download"), 2);
}

TEST_F(HttpDownloadTest, movedPermanentlyIsFollowedLikeFound) {
    HttpServer server;
    std::string hop = remote("-hop");
    std::string path = remote(".cfg");
    server.options().redirects = {{hop, server.url(path), 301}};
    server.put(path, VALID_CONFIG);
    ASSERT_TRUE(server.start());
    auto job = configJob("moved", {server.url(hop)});
    ASSERT_TRUE(job->execute().isSuccess());
    ASSERT_TRUE(runToEnd());
    EXPECT_TRUE(result().isSuccess()) << result().toString().str() << "\n" << prov.dump();
    EXPECT_GE(prov.indexOf("[moved/HTTP]   HTTP/1.1 301 Moved Permanently"), 0) << prov.dump();
    EXPECT_GE(
        prov.indexOf("[moved] Redirected: '" + server.url(hop) + "' -> '" + server.url(path) + "'"),
        0);
    EXPECT_EQ(storedConfig(), VALID_CONFIG);
}

TEST_F(HttpDownloadTest, seeOtherAndTemporaryRedirectAreNotFollowed) {
    HttpServer server;
    std::string see = remote("-303");
    std::string temporary = remote("-307");
    std::string path = remote(".cfg");
    server.options().redirects = {{see, server.url(path), 303}, {temporary, server.url(path), 307}};
    server.put(path, VALID_CONFIG);
    ASSERT_TRUE(server.start());
    auto job = configJob("other", {server.url(see), server.url(temporary)});
    ASSERT_TRUE(job->execute().isSuccess());
    ASSERT_TRUE(runToEnd());
    EXPECT_TRUE(result().isErr());
    EXPECT_EQ(result().getString(),
              "UNHANDLED ERROR RESPONSE STATUS: HTTP/1.1 307 Temporary Redirect: "
              "wget EXITED WITH STATUS 8");
    EXPECT_TRUE(prov.contains("[other] DOWNLOAD LOCATION FAILED: " + server.url(see) +
                              ": UNHANDLED ERROR RESPONSE STATUS: HTTP/1.1 303 See Other"))
        << prov.dump();
    EXPECT_FALSE(prov.contains("Redirected"));
    EXPECT_FALSE(prov.contains("Trying to download from location " + server.url(path)));
    EXPECT_EQ(wgetRuns(), 2);
}

TEST_F(HttpDownloadTest, redirectToItselfStopsAfterThirtyLocations) {
    HttpServer server;
    std::string loopPath = remote("-loop.cfg");
    server.options().redirects = {{loopPath, server.url(loopPath), 302}};
    ASSERT_TRUE(server.start());
    String url = server.url(loopPath);
    auto job = configJob("loop", {url, server.url(remote("-never.cfg"))});
    ASSERT_TRUE(job->execute().isSuccess());
    ASSERT_TRUE(runToEnd(120s));
    EXPECT_EQ(result().getValue(), 0x7FFFFFFFU);
    EXPECT_EQ(result().getString(), "REDIRECTION LOOP DETECTED");
    EXPECT_EQ(prov.count(("[loop] Redirected: '" + url + "' -> '" + url + "'").str()), 30)
        << prov.dump();
    EXPECT_EQ(prov.count("Redirected"), 30);
    int stop = prov.indexOf("[loop] Stop downloading after trying 30 locations");
    EXPECT_GE(stop, 0);
    EXPECT_GT(stop, prov.find("Redirected", 0));
    EXPECT_EQ(wgetRuns(), 30);
    EXPECT_EQ(job->getLocationsTried(), 30U);
    // The configured second location was never reached.
    EXPECT_FALSE(prov.contains("-never.cfg"));
    EXPECT_FALSE(provtest::fileExists(hostWorkFileOf(loopPath)));
}

// --- Authentication --------------------------------------------------------------------------

TEST_F(HttpDownloadTest, basicChallengeIsAnsweredWithTheRealmsCredentials) {
    HttpServer server;
    server.options().auth = {{"/secure/", "dev", HttpServer::Scheme::Basic, "devuser", "s3cret"}};
    std::string path = remote(".cfg", "secure/");
    server.put(path, VALID_CONFIG);
    ASSERT_TRUE(server.start());
    ASSERT_TRUE(credentials.add("other", "otheruser", "otherpass").isSuccess());
    ASSERT_TRUE(credentials.add("dev", "devuser", "s3cret").isSuccess());
    String url = server.url(path);
    auto job = configJob("basic", {url});
    ASSERT_TRUE(job->execute().isSuccess());
    ASSERT_TRUE(runToEnd());
    EXPECT_TRUE(result().isSuccess()) << result().toString().str() << "\n" << prov.dump();
    EXPECT_EQ(storedConfig(), VALID_CONFIG);
    EXPECT_TRUE(
        retryLinesAt(prov.indexOf("[basic] Re-Starting HTTP download with authentication"),
                     {"[basic] Re-Starting HTTP download with authentication",
                      "[basic]   From:   " + url.str(), "[basic]   To:     " + workFileOf(path),
                      "[basic]   Realm:  dev", "[basic]   User:   devuser"}));
    // The first run asked without credentials, the second one downloaded.
    EXPECT_EQ(wgetRuns(), 2);
    EXPECT_EQ(prov.count("[basic/HTTP]   HTTP/1.1 401 Unauthorized"), 2);
    EXPECT_EQ(prov.count("[basic/HTTP]   HTTP/1.1 200 OK"), 1);
    EXPECT_TRUE(neverLogged("s3cret"));
}

TEST_F(HttpDownloadTest, digestChallengeIsAnsweredWithTheRealmsCredentials) {
    HttpServer server;
    server.options().auth = {{"/secure/", "lab", HttpServer::Scheme::Digest, "labuser", "d1gest"}};
    std::string path = remote(".cfg", "secure/");
    server.put(path, VALID_CONFIG);
    ASSERT_TRUE(server.start());
    ASSERT_TRUE(credentials.add("dev", "devuser", "wrong").isSuccess());
    ASSERT_TRUE(credentials.add("lab", "labuser", "d1gest").isSuccess());
    String url = server.url(path);
    auto job = configJob("digest", {url});
    ASSERT_TRUE(job->execute().isSuccess());
    ASSERT_TRUE(runToEnd());
    EXPECT_TRUE(result().isSuccess()) << result().toString().str() << "\n" << prov.dump();
    EXPECT_EQ(storedConfig(), VALID_CONFIG);
    EXPECT_TRUE(prov.contains("[digest/HTTP]   WWW-Authenticate: Digest realm=\"lab\""));
    EXPECT_TRUE(
        retryLinesAt(prov.indexOf("[digest] Re-Starting HTTP download with authentication"),
                     {"[digest] Re-Starting HTTP download with authentication",
                      "[digest]   From:   " + url.str(), "[digest]   To:     " + workFileOf(path),
                      "[digest]   Realm:  lab", "[digest]   User:   labuser"}));
    EXPECT_EQ(wgetRuns(), 2);
    EXPECT_TRUE(neverLogged("d1gest"));
}

TEST_F(HttpDownloadTest, httpsRetryLinesAlignOneColumnFurtherLeft) {
    const provtest::Certificates& certificates = provtest::Certificates::get();
    ASSERT_TRUE(certificates.ok()) << certificates.error();
    HttpServer server;
    server.options().https = true;
    server.options().auth = {{"/secure/", "dev", HttpServer::Scheme::Basic, "devuser", "s3cret"}};
    std::string path = remote(".cfg", "secure/");
    server.put(path, VALID_CONFIG);
    ASSERT_TRUE(server.start());
    ASSERT_TRUE(credentials.add("dev", "devuser", "s3cret").isSuccess());
    String url = server.url(path);
    auto job = configJob("tls", {url});
    job->setAuthentication(certificates.rootCa().c_str(), "", "");
    ASSERT_TRUE(job->execute().isSuccess());
    ASSERT_TRUE(runToEnd());
    EXPECT_TRUE(result().isSuccess()) << result().toString().str() << "\n" << prov.dump();
    EXPECT_TRUE(retryLinesAt(
        prov.indexOf("[tls] Re-Starting HTTPS download with authentication"),
        {"[tls] Re-Starting HTTPS download with authentication", "[tls]   From:  " + url.str(),
         "[tls]   To:    " + workFileOf(path), "[tls]   Realm: dev", "[tls]   User:  devuser"}));
    // The retry keeps the HTTPS settings.
    EXPECT_EQ(prov.count("--ca-certificate=" + certificates.rootCa()), 2);
    EXPECT_TRUE(neverLogged("s3cret"));
}

TEST_F(HttpDownloadTest, passwordAppearsInNoLogLineNorCommandLine) {
    HttpServer server;
    server.options().auth = {{"/secure/", "dev", HttpServer::Scheme::Basic, "devuser", "Pa55word"}};
    std::string path = remote(".cfg", "secure/");
    server.put(path, VALID_CONFIG);
    ASSERT_TRUE(server.start());
    ASSERT_TRUE(credentials.add("dev", "devuser", "Pa55word").isSuccess());
    auto job = configJob("secret", {server.url(path)});
    ASSERT_TRUE(job->execute().isSuccess());
    ASSERT_TRUE(runToEnd());
    ASSERT_TRUE(result().isSuccess()) << result().toString().str() << "\n" << prov.dump();
    int retry = prov.find("[secret/HTTP] Invoke wget with cmdline: ",
                          prov.indexOf("[secret] Re-Starting HTTP download with authentication"));
    ASSERT_GE(retry, 0) << prov.dump();
    std::string commandLine = prov.lines()[retry];
    // The credentials travel in a private file named on the command line.
    EXPECT_NE(commandLine.find(" --config=/tmp/provisioning/.wget-"), std::string::npos)
        << commandLine;
    EXPECT_EQ(commandLine.find("Pa55word"), std::string::npos) << commandLine;
    EXPECT_TRUE(neverLogged("Pa55word"));
    // ... and the file went with the run.
    std::size_t at = commandLine.find("--config=") + 9;
    std::string config = commandLine.substr(at, commandLine.find(' ', at) - at);
    EXPECT_FALSE(provtest::fileExists(Device::MAP_PATH(config.c_str()).str())) << config;
}

TEST_F(HttpDownloadTest, wildCardCredentialsServeARealmWithoutItsOwn) {
    HttpServer server;
    server.options().auth = {{"/secure/", "dev", HttpServer::Scheme::Basic, "anyuser", "anypass"}};
    std::string path = remote(".cfg", "secure/");
    server.put(path, VALID_CONFIG);
    ASSERT_TRUE(server.start());
    ASSERT_TRUE(credentials.add("other", "otheruser", "otherpass").isSuccess());
    ASSERT_TRUE(credentials.add("", "anyuser", "anypass").isSuccess());
    auto job = configJob("wild", {server.url(path)});
    ASSERT_TRUE(job->execute().isSuccess());
    ASSERT_TRUE(runToEnd());
    EXPECT_TRUE(result().isSuccess()) << result().toString().str() << "\n" << prov.dump();
    EXPECT_GE(prov.indexOf("[wild]   Realm:  dev"), 0);
    EXPECT_GE(prov.indexOf("[wild]   User:   anyuser"), 0);
    EXPECT_EQ(storedConfig(), VALID_CONFIG);
}

TEST_F(HttpDownloadTest, challengeWithoutCredentialsStillRetriesExactlyOnce) {
    FixtureServer server;
    std::string path = remote(".cfg");
    server.route(path, {FixtureResponse::challenge("Basic realm=\"dev\"")});
    ASSERT_TRUE(server.start());
    ASSERT_TRUE(credentials.add("other", "otheruser", "otherpass").isSuccess());
    String url = server.url(path).c_str();
    auto job = configJob("none", {url});
    ASSERT_TRUE(job->execute().isSuccess());
    ASSERT_TRUE(runToEnd());
    EXPECT_TRUE(result().isHttpErr(401)) << result().toString().str();
    EXPECT_TRUE(retryLinesAt(
        prov.indexOf("[none] Re-Starting HTTP download with authentication"),
        {"[none] Re-Starting HTTP download with authentication", "[none]   From:   " + url.str(),
         "[none]   To:     " + workFileOf(path), "[none]   Realm:  dev", "[none]   User:   "}));
    std::vector<provtest::RecordedRequest> requests = server.requestsFor(path);
    ASSERT_EQ(requests.size(), 2U) << server.log();
    // Nothing to send: the retry asks exactly as the first attempt did.
    EXPECT_FALSE(requests[0].hasHeader("Authorization"));
    EXPECT_FALSE(requests[1].hasHeader("Authorization"));
    EXPECT_EQ(wgetRuns(), 2);
    EXPECT_FALSE(provtest::fileExists(hostWorkFileOf(path)));
}

TEST_F(HttpDownloadTest, secondChallengeEndsTheLocationWithoutAThirdAttempt) {
    FixtureServer server;
    std::string path = remote(".cfg");
    std::string fallback = remote("-fallback.cfg");
    FixtureResponse challenge = FixtureResponse::challenge("Basic realm=\"dev\"");
    // Were there a third attempt, it would be answered with the file.
    server.route(path, {challenge, challenge, challenge, FixtureResponse::ok(VALID_CONFIG)});
    server.route(fallback, {FixtureResponse::withStatus(404)});
    ASSERT_TRUE(server.start());
    ASSERT_TRUE(credentials.add("dev", "devuser", "refused").isSuccess());
    auto job = configJob("twice", {server.url(path).c_str(), server.url(fallback).c_str()});
    ASSERT_TRUE(job->execute().isSuccess());
    ASSERT_TRUE(runToEnd());
    EXPECT_TRUE(result().isErr());
    EXPECT_EQ(prov.count("Re-Starting HTTP download with authentication"), 1);
    // The second 401 fails the location and the walk goes on.
    EXPECT_TRUE(prov.contains("[twice] DOWNLOAD LOCATION FAILED: " + server.url(path)))
        << prov.dump();
    EXPECT_GE(prov.indexOf("[twice] Trying to download from location " + server.url(fallback)), 0);
    // First attempt, then the retry, in which wget asks once without and once with credentials.
    std::vector<provtest::RecordedRequest> requests = server.requestsFor(path);
    ASSERT_EQ(requests.size(), 3U) << server.log();
    EXPECT_FALSE(requests[0].hasHeader("Authorization"));
    EXPECT_FALSE(requests[1].hasHeader("Authorization"));
    EXPECT_EQ(decodeBasic(requests[2].header("Authorization")), "devuser:refused");
    EXPECT_EQ(wgetRuns(), 3);  // two for the first location, one for the fallback
}

TEST_F(HttpDownloadTest, unquotedRealmLosesItsFirstAndLastLetter) {
    FixtureServer server;
    std::string path = remote(".cfg");
    FixtureResponse challenge = FixtureResponse::challenge("Basic realm=dev");
    server.route(path, {challenge, challenge, FixtureResponse::ok(VALID_CONFIG)});
    ASSERT_TRUE(server.start());
    ASSERT_TRUE(credentials.add("dev", "devuser", "devpass").isSuccess());
    ASSERT_TRUE(credentials.add("e", "euser", "epass").isSuccess());
    auto job = configJob("unquoted", {server.url(path).c_str()});
    ASSERT_TRUE(job->execute().isSuccess());
    ASSERT_TRUE(runToEnd());
    EXPECT_TRUE(result().isSuccess()) << result().toString().str() << "\n" << prov.dump();
    EXPECT_GE(prov.indexOf("[unquoted]   Realm:  e"), 0) << prov.dump();
    EXPECT_GE(prov.indexOf("[unquoted]   User:   euser"), 0);
    std::vector<provtest::RecordedRequest> requests = server.requestsFor(path);
    ASSERT_EQ(requests.size(), 3U) << server.log();
    EXPECT_EQ(decodeBasic(requests[2].header("Authorization")), "euser:epass");
}

// The user and password fields of the job are only overwritten by a successful lookup: a realm
// without credentials (and no wild-card) is answered with the last ones looked up.
TEST_F(HttpDownloadTest, realmWithoutCredentialsReusesTheLastOnesLookedUp) {
    FixtureServer server;
    std::string first = remote("-first.cfg");
    std::string second = remote("-second.cfg");
    FixtureResponse dev = FixtureResponse::challenge("Basic realm=\"dev\"");
    FixtureResponse unknown = FixtureResponse::challenge("Basic realm=\"unknown\"");
    server.route(first, {dev, dev, FixtureResponse::withStatus(404)});
    server.route(second, {unknown, unknown, FixtureResponse::ok(VALID_CONFIG)});
    ASSERT_TRUE(server.start());
    ASSERT_TRUE(credentials.add("dev", "devuser", "devpass").isSuccess());
    auto job = configJob("reuse", {server.url(first).c_str(), server.url(second).c_str()});
    ASSERT_TRUE(job->execute().isSuccess());
    ASSERT_TRUE(runToEnd());
    EXPECT_TRUE(result().isSuccess()) << result().toString().str() << "\n" << prov.dump();
    EXPECT_GE(prov.indexOf("[reuse]   Realm:  unknown"), 0) << prov.dump();
    EXPECT_EQ(prov.count("[reuse]   User:   devuser"), 2);
    std::vector<provtest::RecordedRequest> requests = server.requestsFor(second);
    ASSERT_EQ(requests.size(), 3U) << server.log();
    EXPECT_EQ(decodeBasic(requests[2].header("Authorization")), "devuser:devpass");
}

// wget's configuration file drops white space around a value: such credentials are refused
// rather than sent altered, so the retry cannot start and the location fails.
TEST_F(HttpDownloadTest, credentialsWgetCannotCarryFailTheLocationWithoutARetry) {
    FixtureServer server;
    std::string path = remote(".cfg");
    std::string fallback = remote("-fallback.cfg");
    server.route(path, {FixtureResponse::challenge("Basic realm=\"dev\"")});
    server.route(fallback, {FixtureResponse::ok(VALID_CONFIG)});
    ASSERT_TRUE(server.start());
    ASSERT_TRUE(credentials.add("dev", " padded", "pw").isSuccess());
    auto job = configJob("padded", {server.url(path).c_str(), server.url(fallback).c_str()});
    ASSERT_TRUE(job->execute().isSuccess());
    ASSERT_TRUE(runToEnd());
    EXPECT_TRUE(result().isSuccess()) << result().toString().str() << "\n" << prov.dump();
    EXPECT_GE(prov.indexOf("[padded] Re-Starting HTTP download with authentication"), 0);
    EXPECT_GE(prov.indexOf("[padded/HTTP] WHITE SPACE AROUND WGET CREDENTIALS (0x7FFFFFFF)"), 0)
        << prov.dump();
    EXPECT_TRUE(prov.contains("[padded] DOWNLOAD LOCATION FAILED: " + server.url(path) +
                              ": WHITE SPACE AROUND WGET CREDENTIALS"));
    EXPECT_EQ(server.requestsFor(path).size(), 1U);
    EXPECT_EQ(job->getDownloadLocation(), server.url(fallback));
    EXPECT_EQ(job->getLocationsTried(), 1U);
}

TEST_F(HttpDownloadTest, challengeWithOnlyASchemeFailsWithMissingWspAndIsNotRetried) {
    FixtureServer server;
    std::string path = remote(".cfg");
    server.route(path, {FixtureResponse::challenge("Basic")});
    ASSERT_TRUE(server.start());
    ASSERT_TRUE(credentials.add("", "anyuser", "anypass").isSuccess());
    auto job = configJob("bare", {server.url(path).c_str()});
    ASSERT_TRUE(job->execute().isSuccess());
    ASSERT_TRUE(runToEnd());
    EXPECT_EQ(result().getString(), "MISSING WSP");
    EXPECT_FALSE(prov.contains("Re-Starting")) << prov.dump();
    EXPECT_EQ(server.requestsFor(path).size(), 1U);
    EXPECT_EQ(wgetRuns(), 1);
    EXPECT_GE(prov.indexOf("[bare/HTTP] MISSING WSP"), 0);
}

// wget ends with status 8 when the server refuses the credentials with a 403: the status line is
// reported as an unhandled error response.
TEST_F(HttpDownloadTest, forbiddenAfterCredentialsIsAnUnhandledErrorStatus) {
    FixtureServer server;
    std::string path = remote(".cfg");
    FixtureResponse challenge = FixtureResponse::challenge("Basic realm=\"dev\"");
    server.route(path, {challenge, challenge, FixtureResponse::withStatus(403, "go away\n")});
    ASSERT_TRUE(server.start());
    ASSERT_TRUE(credentials.add("dev", "devuser", "devpass").isSuccess());
    auto job = configJob("forbidden", {server.url(path).c_str()});
    ASSERT_TRUE(job->execute().isSuccess());
    ASSERT_TRUE(runToEnd());
    EXPECT_EQ(result().getValue(), 0x12000008U);
    EXPECT_EQ(result().getString(),
              "UNHANDLED ERROR RESPONSE STATUS: HTTP/1.1 403 Forbidden: wget EXITED WITH STATUS 8");
    EXPECT_EQ(server.requestsFor(path).size(), 3U);
    EXPECT_FALSE(provtest::fileExists(hostWorkFileOf(path)));
}

// The final status line is a line of its own that starts with "HTTP/": a header that quotes
// another status line in its value decides nothing, and the challenge is answered.
TEST_F(HttpDownloadTest, statusLineQuotedInAHeaderValueDecidesNothing) {
    FixtureServer server;
    std::string path = remote(".cfg");
    FixtureResponse challenge = FixtureResponse::challenge("Basic realm=\"dev\"");
    challenge.headers.emplace_back("X-Upstream-Status", "HTTP/1.1 403 Forbidden");
    server.route(path, {challenge});
    ASSERT_TRUE(server.start());
    auto job = configJob("upstream", {server.url(path).c_str()});
    ASSERT_TRUE(job->execute().isSuccess());
    ASSERT_TRUE(runToEnd());
    EXPECT_TRUE(result().isHttpErr(401)) << result().toString().str();
    EXPECT_TRUE(prov.contains("Re-Starting")) << prov.dump();
    EXPECT_GE(prov.indexOf("[upstream]   Realm:  dev"), 0) << prov.dump();
    EXPECT_EQ(server.requestsFor(path).size(), 2U);
}

// --- Status 201: execute instead of store ----------------------------------------------------

TEST_F(HttpDownloadTest, createdConfigurationIsExecutedInsteadOfStored) {
    FixtureServer server;
    std::string path = remote(".cfg");
    server.route(path, {FixtureResponse::withStatus(201, VALID_CONFIG)});
    ASSERT_TRUE(server.start());
    String url = server.url(path).c_str();
    auto job = configJob("created", {url}, true);
    ASSERT_TRUE(job->execute().isSuccess());
    ASSERT_TRUE(runToEnd());
    EXPECT_TRUE(result().isSuccess()) << result().toString().str() << "\n" << prov.dump();
    EXPECT_FALSE(job->isComparisonAllowed());
    EXPECT_FALSE(job->getActivationFlag());
    EXPECT_EQ(storedConfig().rfind("<none", 0), 0U);
    EXPECT_EQ(provtest::readFile(device.file("running-config")),
              "cli version 4.10\ncontext ip router\n  interface lan\nport ethernet 0 0\n");
    EXPECT_GE(prov.indexOf("[created] Executing configuration"), 0) << prov.dump();
    EXPECT_GE(prov.indexOf("[CmdExec] context ip router"), 0);
    EXPECT_FALSE(prov.contains("No stored configuration"));
    EXPECT_GE(event.indexOf("[created] Received and executed configuration"), 0);
    EXPECT_GE(xfer.indexOf(("created : " + url + " -> running-config : succeeded").str()), 0)
        << xfer.dump();
}

TEST_F(HttpDownloadTest, createdInvalidConfigurationIsExecutedAllTheSame) {
    FixtureServer server;
    std::string path = remote(".cfg");
    // No "cli version", no "interface": a store would refuse it.
    server.route(path, {FixtureResponse::withStatus(201, "hostname gw-7\n")});
    ASSERT_TRUE(server.start());
    auto job = configJob("partial", {server.url(path).c_str()});
    ASSERT_TRUE(job->execute().isSuccess());
    ASSERT_TRUE(runToEnd());
    EXPECT_TRUE(result().isSuccess()) << result().toString().str() << "\n" << prov.dump();
    EXPECT_EQ(provtest::readFile(device.file("running-config")), "hostname gw-7\n");
    EXPECT_FALSE(prov.contains("NOT A VALID CONFIGURATION"));
}

TEST_F(HttpDownloadTest, createdConfigurationWithRejectedCommandsFailsToExecute) {
    provtest::RejectedCommands rejected({"frobnicate *"});
    FixtureServer server;
    std::string path = remote(".cfg");
    server.route(path,
                 {FixtureResponse::withStatus(201, "hostname gw-7\nfrobnicate the gateway\n")});
    ASSERT_TRUE(server.start());
    String url = server.url(path).c_str();
    auto job = configJob("unknown", {url});
    ASSERT_TRUE(job->execute().isSuccess());
    ASSERT_TRUE(runToEnd());
    expectExecutionRefused("unknown", url, "EXECUTION FAILED AT LINE 2: frobnicate the gateway");
}

// An ordinary configuration: comments, a blank line, and sub-commands two levels deep.
const char* const NESTED_CONFIG =
    "! unit 17\n"
    "cli version 4.10\n"
    "\n"
    "context ip router\n"
    "  interface eth0\n"
    "    ipaddress 10.0.0.1 255.255.255.0\n"
    "  interface lan\n"
    "    ipaddress 192.168.1.1 255.255.255.0\n"
    "port ethernet 0 0\n"
    "  bind interface eth0 router\n";

TEST_F(HttpDownloadTest, createdConfigurationWithSubCommandsRunsWithItsIndentation) {
    FixtureServer server;
    std::string path = remote(".cfg");
    server.route(path, {FixtureResponse::withStatus(201, NESTED_CONFIG)});
    ASSERT_TRUE(server.start());
    String url = server.url(path).c_str();
    auto job = configJob("nested", {url});
    ASSERT_TRUE(job->execute().isSuccess());
    ASSERT_TRUE(runToEnd());
    EXPECT_TRUE(result().isSuccess()) << result().toString().str() << "\n" << prov.dump();
    EXPECT_EQ(provtest::readFile(device.file("running-config")),
              "cli version 4.10\n"
              "context ip router\n"
              "  interface eth0\n"
              "    ipaddress 10.0.0.1 255.255.255.0\n"
              "  interface lan\n"
              "    ipaddress 192.168.1.1 255.255.255.0\n"
              "port ethernet 0 0\n"
              "  bind interface eth0 router\n");
    EXPECT_EQ(storedConfig().rfind("<none", 0), 0U);
    EXPECT_GE(prov.indexOf("[CmdExec] ipaddress 10.0.0.1 255.255.255.0"), 0) << prov.dump();
    EXPECT_GE(event.indexOf("[nested] Received and executed configuration"), 0);
    EXPECT_GE(xfer.indexOf(("nested : " + url + " -> running-config : succeeded").str()), 0)
        << xfer.dump();
}

TEST_F(HttpDownloadTest, rejectedSubCommandFailsTheCreatedConfigurationAtItsLine) {
    provtest::RejectedCommands rejected({"ipaddress 10.*"});
    FixtureServer server;
    std::string path = remote(".cfg");
    server.route(path, {FixtureResponse::withStatus(201, NESTED_CONFIG)});
    ASSERT_TRUE(server.start());
    String url = server.url(path).c_str();
    auto job = configJob("nested", {url});
    ASSERT_TRUE(job->execute().isSuccess());
    ASSERT_TRUE(runToEnd());
    expectExecutionRefused("nested", url,
                           "EXECUTION FAILED AT LINE 6: ipaddress 10.0.0.1 255.255.255.0");
}

// --- Failures --------------------------------------------------------------------------------

TEST_F(HttpDownloadTest, noContentIsNotADownload) {
    FixtureServer server;
    std::string path = remote(".cfg");
    server.route(path, {FixtureResponse::withStatus(204)});
    ASSERT_TRUE(server.start());
    auto job = configJob("empty", {server.url(path).c_str()});
    ASSERT_TRUE(job->execute().isSuccess());
    ASSERT_TRUE(runToEnd());
    EXPECT_EQ(result().getValue(), 0x7FFFFFFFU);
    EXPECT_EQ(result().getString(), "STATUS IS NOT 200 OK or 201 CREATED: HTTP/1.1 204 No Content");
    EXPECT_FALSE(provtest::fileExists(hostWorkFileOf(path)));
}

TEST_F(HttpDownloadTest, notFoundIsAnUnhandledErrorStatus) {
    HttpServer server;
    std::string path = remote(".cfg");
    ASSERT_TRUE(server.start());
    auto job = configJob("absent", {server.url(path)});
    ASSERT_TRUE(job->execute().isSuccess());
    ASSERT_TRUE(runToEnd());
    EXPECT_EQ(result().getValue(), 0x12000008U);
    EXPECT_EQ(result().getString(),
              "UNHANDLED ERROR RESPONSE STATUS: HTTP/1.1 404 Not Found: wget EXITED WITH STATUS 8");
    EXPECT_EQ(prov.levelOf("[absent] EXECUTION FAILED: " + result().toString().str()), 3);
}

TEST_F(HttpDownloadTest, failedDownloadLeavesNoWorkFile) {
    FixtureServer server;
    std::string path = remote(".cfg");
    // Half of the body arrives before the server closes: wget has written it to the work file.
    server.route(path, {FixtureResponse::truncated(std::string(4096, 'x'))});
    ASSERT_TRUE(server.start());
    auto job = configJob("partial", {server.url(path).c_str()});
    ASSERT_TRUE(job->execute().isSuccess());
    EXPECT_TRUE(provtest::fileExists(hostWorkFileOf(path)));
    ASSERT_TRUE(runToEnd());
    EXPECT_TRUE(result().isErr());
    EXPECT_FALSE(provtest::fileExists(hostWorkFileOf(path)));
}

TEST_F(HttpDownloadTest, refusedConnectionIsANetworkFailure) {
    provtest::LoopbackSocket refusing = provtest::LoopbackSocket::tcpRefusing();
    ASSERT_TRUE(refusing.valid()) << refusing.error();
    std::string path = remote(".cfg");
    auto job = configJob("refused",
                         {String::format("http://127.0.0.1:%u%s", refusing.port(), path.c_str())});
    ASSERT_TRUE(job->execute().isSuccess());
    ASSERT_TRUE(runToEnd());
    EXPECT_EQ(result().getValue(), 0x12000004U);
    EXPECT_EQ(result().getString(),
              "NETWORK FAILURE (NO NAME SERVER, NO ROUTE TO HOST, OR TRANSFER FAILED): "
              "wget EXITED WITH STATUS 4");
    EXPECT_FALSE(provtest::fileExists(hostWorkFileOf(path)));
}

// Takes as long as wget's read timeout (30 s).
TEST_F(HttpDownloadTest, silentServerEndsWithWgetsTimeout) {
    FixtureServer server;
    std::string path = remote(".cfg");
    server.route(path, {FixtureResponse::hang()});
    ASSERT_TRUE(server.start());
    auto job = configJob("silent", {server.url(path).c_str()});
    ASSERT_TRUE(job->execute().isSuccess());
    ASSERT_TRUE(runToEnd(120s));
    EXPECT_EQ(result().getValue(), 0x12000004U);
    EXPECT_EQ(server.requestsFor(path).size(), 1U);
    EXPECT_FALSE(provtest::fileExists(hostWorkFileOf(path)));
}

// --- Safety ----------------------------------------------------------------------------------

TEST_F(HttpDownloadTest, shellCharactersInALocationRunNoCommand) {
    FixtureServer server;
    ASSERT_TRUE(server.start());
    std::string marker = "/tmp/" + unique.str() + "-owned";
    ::unlink(marker.c_str());
    String base = String::format("http://127.0.0.1:%u/%s", server.port(), unique.c_str());
    auto job = configJob(
        "inject", {base + ";touch " + marker.c_str(), base + "-`touch " + marker.c_str() + "`",
                   base + "$IFS;touch$IFS" + marker.c_str(),
                   base + "-$(touch " + marker.c_str() + ")", base + "\ntouch " + marker.c_str()});
    static_cast<void>(job->execute());
    ASSERT_TRUE(runToEnd());
    EXPECT_TRUE(result().isErr());
    EXPECT_FALSE(provtest::fileExists(marker));
    ::unlink(marker.c_str());
    for (const char* leftover : {"-owned`", "-owned", "-owned)"}) {
        ::unlink(
            (Device::MAP_PATH("/tmp/provisioning").str() + "/" + unique.str() + leftover).c_str());
    }
}

TEST_F(HttpDownloadTest, shellCharactersInARedirectTargetRunNoCommand) {
    FixtureServer server;
    std::string marker = "/tmp/" + unique.str() + "-owned";
    ::unlink(marker.c_str());
    std::string target = "http://127.0.0.1:{port}/" + unique.str();
    std::vector<std::string> locations = {target + ";touch " + marker,
                                          target + "-`touch " + marker + "`",
                                          target + "$IFS;touch$IFS" + marker,
                                          target + "-$(touch " + marker + ")",
                                          target + "\" ; touch " + marker + " ; \"",
                                          "/" + unique.str() + "-x\ntouch " + marker};
    // The port is known once the server listens.
    ASSERT_TRUE(server.start());
    KtList<String> hops;
    for (std::size_t i = 0; i < locations.size(); ++i) {
        std::string hop = remote("-hop" + std::to_string(i));
        server.route(hop, {FixtureResponse::redirect(302, locations[i])});
        hops.pushBack(server.url(hop).c_str());
    }
    auto job = configJob("inject", hops);
    ASSERT_TRUE(job->execute().isSuccess());
    ASSERT_TRUE(runToEnd());
    EXPECT_TRUE(result().isErr());
    EXPECT_GE(prov.count("[inject] Redirected: "), 4) << prov.dump();
    EXPECT_FALSE(provtest::fileExists(marker));
    ::unlink(marker.c_str());
    for (const char* leftover : {"-owned`", "-owned", "-owned)", "-x", "\" "}) {
        ::unlink(
            (Device::MAP_PATH("/tmp/provisioning").str() + "/" + unique.str() + leftover).c_str());
    }
}

TEST_F(HttpDownloadTest, credentialsWithBlanksAndQuotesReachTheServerIntact) {
    FixtureServer server;
    std::string path = remote(".cfg");
    FixtureResponse challenge = FixtureResponse::challenge("Basic realm=\"q\"");
    server.route(path, {challenge, challenge, FixtureResponse::ok(VALID_CONFIG)});
    ASSERT_TRUE(server.start());
    const std::string user = "a \"b\" c'd";
    const std::string password = "p w\"d'#x = y";
    ASSERT_TRUE(credentials.add("q", user.c_str(), password.c_str()).isSuccess());
    auto job = configJob("quotes", {server.url(path).c_str()});
    ASSERT_TRUE(job->execute().isSuccess());
    ASSERT_TRUE(runToEnd());
    EXPECT_TRUE(result().isSuccess()) << result().toString().str() << "\n" << prov.dump();
    std::vector<provtest::RecordedRequest> requests = server.requestsFor(path);
    ASSERT_EQ(requests.size(), 3U) << server.log();
    EXPECT_EQ(decodeBasic(requests[2].header("Authorization")), user + ":" + password);
    EXPECT_GE(prov.indexOf("[quotes]   User:   " + user), 0);
    EXPECT_TRUE(neverLogged(password));
}

// --- Uploads and cancellation ----------------------------------------------------------------

TEST_F(HttpDownloadTest, httpUploadFailsAtOnce) {
    String error;
    ASSERT_TRUE(
        CLI::STORE_CONFIGURATION_CONTENT("startup-config", VALID_CONFIG, error).isSuccess());
    // Earlier commands of this process are all reaped: the count below is this test's own.
    ASSERT_TRUE(Kt::ShellControl::WAIT_FOR_RUNNING_COMMANDS(0, 20s));
    UploadProvisioningJob job(loop, "up", ProvisioningJob::None, false,
                              {"http://127.0.0.1:1/up.cfg"}, credentials, resolver, handler);
    XCode started = job.execute();
    EXPECT_EQ(started.getString(), "HTTP UPLOAD NOT SUPPORTED YET");
    ASSERT_EQ(handler.results.size(), 1U);
    EXPECT_EQ(result().getString(), "HTTP UPLOAD NOT SUPPORTED YET");
    EXPECT_EQ(Kt::ShellHooks::RUNNING_COMMANDS(), 0U);
    EXPECT_FALSE(prov.contains("Invoke wget"));
}

TEST_F(HttpDownloadTest, httpsUploadFailsAtOnce) {
    String error;
    ASSERT_TRUE(
        CLI::STORE_CONFIGURATION_CONTENT("startup-config", VALID_CONFIG, error).isSuccess());
    // Earlier commands of this process are all reaped: the count below is this test's own.
    ASSERT_TRUE(Kt::ShellControl::WAIT_FOR_RUNNING_COMMANDS(0, 20s));
    UploadProvisioningJob job(loop, "up", ProvisioningJob::None, false,
                              {"https://127.0.0.1:1/up.cfg"}, credentials, resolver, handler);
    XCode started = job.execute();
    EXPECT_EQ(started.getString(), "HTTPS UPLOAD NOT SUPPORTED YET");
    ASSERT_EQ(handler.results.size(), 1U);
    EXPECT_EQ(result().getString(), "HTTPS UPLOAD NOT SUPPORTED YET");
    EXPECT_EQ(Kt::ShellHooks::RUNNING_COMMANDS(), 0U);
}

// --- Locations as users write them: query, fragment, login, IPv6 ----------------------------

// lighttpd serves the file at the path whatever the query; the work file is named without it.
TEST_F(HttpDownloadTest, queryIsRequestedAndNamesNoWorkFileAndTheFragmentStaysHome) {
    HttpServer server;
    std::string path = remote(".cfg", "gen/");
    server.put(path, VALID_CONFIG);
    ASSERT_TRUE(server.start());
    String location = (server.url(path) + "?mac=001122&f=/other.cfg#top").c_str();
    auto job = configJob("query", {location});
    ASSERT_TRUE(job->execute().isSuccess());
    EXPECT_EQ(DB::Table::SimulatedProvisioningStatus::RECORD()->location.get(), location);
    ASSERT_TRUE(runToEnd());
    EXPECT_TRUE(result().isSuccess()) << result().toString().str() << "\n" << prov.dump();
    EXPECT_EQ(storedConfig(), VALID_CONFIG);
    // wget is asked for the query, and the fragment is nothing of the server's.
    std::string request = server.url(path) + "?mac=001122&f=/other.cfg";
    int commandLine = prov.find("[query/HTTP] Invoke wget with cmdline: wget ");
    ASSERT_GE(commandLine, 0) << prov.dump();
    std::string line = prov.lines()[commandLine];
    EXPECT_EQ(line.substr(line.size() - request.size() - 4), " -- " + request) << line;
    EXPECT_GE(prov.indexOf("[query]   From: " + request), 0) << prov.dump();
    std::string workFile = workFileOf(path);
    EXPECT_GE(
        prov.indexOf(("[query] File downloaded: '" + location).str() + "' -> '" + workFile + "'"),
        0)
        << prov.dump();
    EXPECT_GE(xfer.indexOf(("query : " + location + " -> startup-config : succeeded").str()), 0)
        << xfer.dump();
    EXPECT_EQ(provtest::readFile(hostWorkFileOf(path)), VALID_CONFIG);
}

TEST_F(HttpDownloadTest, queryReachesTheServerAsWrittenAndTheFragmentNever) {
    FixtureServer server;
    std::string path = remote(".cfg");
    server.route(path, {FixtureResponse::ok(VALID_CONFIG)});
    ASSERT_TRUE(server.start());
    auto job = configJob("asked", {(server.url(path) + "?a=1&b=/c%20d;e#frag").c_str()});
    ASSERT_TRUE(job->execute().isSuccess());
    ASSERT_TRUE(runToEnd());
    EXPECT_TRUE(result().isSuccess()) << result().toString().str() << "\n" << prov.dump();
    std::vector<provtest::RecordedRequest> requests = server.requests();
    ASSERT_EQ(requests.size(), 1U);
    EXPECT_EQ(requests[0].path, path + "?a=1&b=/c%20d;e");
}

// The login of the location answers the challenge, ahead of the realm's credentials in the store,
// reaches wget through its private file only, and shows masked wherever the location does.
class HttpLocationLoginTest : public HttpDownloadTest,
                              public ::testing::WithParamInterface<HttpServer::Scheme> {};

TEST_P(HttpLocationLoginTest, answersTheChallengeAheadOfTheStoreAndShowsMasked) {
    HttpServer server;
    server.options().auth = {{"/secure/", "dev", GetParam(), "dev", "p@ss word"}};
    std::string path = remote(".cfg", "secure/");
    server.put(path, VALID_CONFIG);
    ASSERT_TRUE(server.start());
    ASSERT_TRUE(credentials.add("dev", "dev", "wrong").isSuccess());
    std::string url = server.url(path);
    std::string shown = "http://***@" + url.substr(7);
    String location = ("http://dev:p%40ss%20word@" + url.substr(7)).c_str();
    auto job = configJob("login", {location});
    ASSERT_TRUE(job->execute().isSuccess());
    EXPECT_EQ(DB::Table::SimulatedProvisioningStatus::RECORD()->location.get(), shown.c_str());
    ASSERT_TRUE(runToEnd());
    EXPECT_TRUE(result().isSuccess()) << result().toString().str() << "\n" << prov.dump();
    EXPECT_EQ(storedConfig(), VALID_CONFIG);
    EXPECT_EQ(job->getDownloadLocation(), shown.c_str());
    EXPECT_GE(prov.indexOf("[login] Trying to download from location " + shown), 0);
    EXPECT_GE(prov.indexOf("[login] Location resolved to " + shown), 0);
    EXPECT_GE(prov.indexOf("[login]   From: " + shown), 0) << prov.dump();
    EXPECT_TRUE(retryLinesAt(prov.indexOf("[login] Re-Starting HTTP download with authentication"),
                             {"[login] Re-Starting HTTP download with authentication",
                              "[login]   From:   " + shown, "[login]   To:     " + workFileOf(path),
                              "[login]   Realm:  dev", "[login]   User:   dev"}));
    EXPECT_GE(
        prov.indexOf("[login] File downloaded: '" + shown + "' -> '" + workFileOf(path) + "'"), 0);
    EXPECT_GE(xfer.indexOf("login : " + shown + " -> startup-config : succeeded"), 0)
        << xfer.dump();
    // wget is asked for the URL without the login.
    EXPECT_EQ(prov.count(" -- " + url), 2) << prov.dump();
    for (const char* secret : {"p@ss word", "p%40ss", "p@ss%20", "ss%20word", "dev:p"}) {
        EXPECT_TRUE(neverLogged(secret));
    }
    EXPECT_EQ(wgetRuns(), 2);
}

INSTANTIATE_TEST_SUITE_P(Schemes, HttpLocationLoginTest,
                         ::testing::Values(HttpServer::Scheme::Basic, HttpServer::Scheme::Digest),
                         [](const ::testing::TestParamInfo<HttpServer::Scheme>& test) {
                             return test.param == HttpServer::Scheme::Basic ? "Basic" : "Digest";
                         });

TEST_F(HttpDownloadTest, wrongLoginInTheLocationIsNotReplacedByTheStoresCredentials) {
    HttpServer server;
    server.options().auth = {{"/secure/", "dev", HttpServer::Scheme::Basic, "dev", "right"}};
    std::string path = remote(".cfg", "secure/");
    server.put(path, VALID_CONFIG);
    ASSERT_TRUE(server.start());
    ASSERT_TRUE(credentials.add("dev", "dev", "right").isSuccess());
    auto job = configJob("wrong", {("http://dev:wrong@" + server.url(path).substr(7)).c_str()});
    ASSERT_TRUE(job->execute().isSuccess());
    ASSERT_TRUE(runToEnd());
    EXPECT_TRUE(result().isHttpErr(401)) << result().toString().str() << "\n" << prov.dump();
    EXPECT_EQ(wgetRuns(), 2);
    EXPECT_EQ(storedConfig().rfind("<none", 0), 0U);
}

TEST_F(HttpDownloadTest, ipv6LoopbackOverHttp) {
    HttpServer::Options options;
    options.ipv6 = true;
    HttpServer server(options);
    std::string path = remote(".cfg");
    server.put(path, VALID_CONFIG);
    ASSERT_TRUE(server.start());
    std::string url = server.url(path);
    ASSERT_EQ(url.rfind("http://[::1]:", 0), 0U);
    auto job = configJob("six", {url.c_str()});
    ASSERT_TRUE(job->execute().isSuccess());
    ASSERT_TRUE(runToEnd());
    EXPECT_TRUE(result().isSuccess()) << result().toString().str() << "\n" << prov.dump();
    EXPECT_EQ(storedConfig(), VALID_CONFIG);
    EXPECT_GE(prov.indexOf("[six]   From: " + url), 0) << prov.dump();
    EXPECT_TRUE(prov.contains(" -- " + url)) << prov.dump();
}

// The login is held for the origin https://[::1]:<port>, which the challenge comes from.
TEST_F(HttpDownloadTest, ipv6LoopbackOverHttpsWithALogin) {
    const provtest::Certificates& certificates = provtest::Certificates::get();
    ASSERT_TRUE(certificates.ok()) << certificates.error();
    HttpServer::Options options;
    options.ipv6 = true;
    options.https = true;
    options.auth = {{"/secure/", "dev", HttpServer::Scheme::Digest, "six", "v6pass"}};
    HttpServer server(options);
    std::string path = remote(".cfg", "secure/");
    server.put(path, VALID_CONFIG);
    ASSERT_TRUE(server.start());
    std::string url = server.url(path);
    ASSERT_EQ(url.rfind("https://[::1]:", 0), 0U);
    auto job = configJob("six", {("https://six:v6pass@" + url.substr(8)).c_str()});
    job->setAuthentication(certificates.rootCa().c_str(), "", "");
    ASSERT_TRUE(job->execute().isSuccess());
    ASSERT_TRUE(runToEnd());
    EXPECT_TRUE(result().isSuccess()) << result().toString().str() << "\n" << prov.dump();
    EXPECT_EQ(storedConfig(), VALID_CONFIG);
    EXPECT_GE(prov.indexOf("[six]   From:  https://***@" + url.substr(8)), 0) << prov.dump();
    EXPECT_GE(prov.indexOf("[six]   User:  six"), 0) << prov.dump();
    EXPECT_TRUE(neverLogged("v6pass"));
}

TEST_F(HttpDownloadTest, destroyedJobGetsNoCallbackAndLeavesNoChild) {
    FixtureServer server;
    std::string path = remote(".cfg");
    // The headers come at once, the body one byte a second: wget is mid-transfer for long.
    server.route(path, {FixtureResponse::slow(std::string(600, 'x'), 1, 1000)});
    ASSERT_TRUE(server.start());
    ASSERT_TRUE(Kt::ShellControl::WAIT_FOR_RUNNING_COMMANDS(0, 20s));
    {
        auto job = configJob("gone", {server.url(path).c_str()});
        ASSERT_TRUE(job->execute().isSuccess());
        EXPECT_EQ(Kt::ShellHooks::RUNNING_COMMANDS(), 1U);
        ASSERT_TRUE(loop.runUntil(
            [this] { return prov.contains("[gone/HTTP]   Content-Length: 600"); }, 20s))
            << prov.dump();
    }
    std::size_t logged = prov.lines().size();
    EXPECT_TRUE(Kt::ShellControl::WAIT_FOR_RUNNING_COMMANDS(0, 20s));
    loop.runPending();
    EXPECT_TRUE(handler.results.empty());
    EXPECT_EQ(prov.lines().size(), logged) << prov.dump();
}

TEST_F(HttpDownloadTest, jobDestroyedBetweenWgetsEndAndItsResultGetsNoCallback) {
    HttpServer server;
    std::string path = remote(".cfg");
    server.put(path, VALID_CONFIG);
    ASSERT_TRUE(server.start());
    {
        auto job = configJob("late", {server.url(path)});
        ASSERT_TRUE(job->execute().isSuccess());
        // The client has handled wget's end and queued the job's completion; the job goes
        // before that completion runs.
        ASSERT_TRUE(loop.runUntil(
            [this] { return prov.contains("[late/HTTP] Handle result of wget: SUCCESS"); }, 20s))
            << prov.dump();
    }
    std::size_t logged = prov.lines().size();
    loop.runPending();
    EXPECT_TRUE(handler.results.empty());
    EXPECT_EQ(prov.lines().size(), logged) << prov.dump();
    EXPECT_FALSE(prov.contains("File downloaded"));
    EXPECT_EQ(storedConfig().rfind("<none", 0), 0U);
}

}  // namespace
