// What the caller of the engine has in its environment must not change what the tools do: tar
// and wget run with the platform's own fixed environment, found by absolute path in the system
// directories only. Each test sets a hostile variable in this process, runs a job with the real
// tools, and checks that the tool ignored it.
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "integration/hardening/HardeningSupport.h"
#include "jobs/content/ConfigProvisioningJob.h"
#include "jobs/upgrade/FirmwareProvisioningJob.h"
#include "platform/UpdateController.h"
#include "platform/simulated/SimulatedUpdateController.h"
#include "support/Certificates.h"
#include "support/FixtureServer.h"
#include "support/HttpServer.h"
#include "support/TftpServer.h"
#include "support/UpgradeSupport.h"

namespace {

using namespace provtest::hardening;
using provtest::FixtureResponse;
using provtest::FixtureServer;

const std::string ACTIVE_MANIFEST = "sw_type=X\nsw_version=1.2\nsw_build_num=7\n";

// Sets a variable of this process for the life of the object.
class ScopedVariable {
  public:
    ScopedVariable(const char* name, const std::string& value) : name_(name) {
        const char* old = ::getenv(name);
        hadOld_ = old != nullptr;
        old_ = hadOld_ ? old : "";
        ::setenv(name, value.c_str(), 1);
    }
    ~ScopedVariable() {
        if (hadOld_) {
            ::setenv(name_, old_.c_str(), 1);
        } else {
            ::unsetenv(name_);
        }
    }
    ScopedVariable(const ScopedVariable&) = delete;
    ScopedVariable& operator=(const ScopedVariable&) = delete;

  private:
    const char* name_;
    bool hadOld_;
    std::string old_;
};

class EnvironmentTest : public DeviceTest {
  protected:
    // A firmware job whose archive holds the manifest of the running version: with a manifest
    // extracted as it should be, the job succeeds without starting an upgrade.
    XCode runFirmwareJobWithTheRunningVersion() {
        provtest::TempDir staging{"prov-env-src"};
        provtest::writeFile(staging.file("manifest"), ACTIVE_MANIFEST);
        provtest::writeFile(staging.file("image"), "IMAGE");
        std::string archive = staging.file("archive.tar");
        EXPECT_TRUE(provtest::makeTar(archive, staging.path(), {"manifest", "image"}));
        provtest::TftpServer server;
        std::string name = remote(".tar");
        server.put(name, provtest::readFile(archive));
        EXPECT_TRUE(server.start());
        KtList<String> locations;
        locations.pushBack(String::format("tftp://127.0.0.1:%u/%s", server.port(), name.c_str()));
        FirmwareProvisioningJob job(loop, "fw", ProvisioningJob::None, true, locations, credentials,
                                    resolver, handler, "X 1.0 1", "X 1.1 1", "X 1.2 7", 2, 1);
        EXPECT_TRUE(job.execute().isSuccess());
        EXPECT_TRUE(runToEnd());
        EXPECT_TRUE(UpdateController::WAIT_IDLE(60s));
        return handler.results.empty() ? XCode(XCode::GENERIC_FAILURE) : told();
    }
};

TEST_F(EnvironmentTest, tarOptionsOfTheCallerDoNotReachTheExtraction) {
    const std::string manifest = Device::MAP_PATH("/tmp/provisioning/manifest").str();
    ::unlink(manifest.c_str());
    // Would extract the manifest under another name, and so hide it from the job.
    ScopedVariable options("TAR_OPTIONS", "--transform=s,manifest," + unique + ",");
    XCode result = runFirmwareJobWithTheRunningVersion();
    std::string elsewhere = Device::MAP_PATH(String(("/tmp/provisioning/" + unique).c_str())).str();
    bool renamed = provtest::fileExists(elsewhere);
    ::unlink(elsewhere.c_str());
    EXPECT_FALSE(renamed) << "tar followed TAR_OPTIONS";
    EXPECT_TRUE(result.isSuccess()) << result.toString().c_str() << "\n" << prov.dump();
    EXPECT_EQ(provtest::readFile(manifest), ACTIVE_MANIFEST);
}

TEST_F(EnvironmentTest, proxyAndWgetrcOfTheCallerAreNotUsed) {
    FixtureServer proxy;
    ASSERT_TRUE(proxy.start());
    FixtureServer server;
    std::string name = remote(".cfg");
    server.route("/" + name, {FixtureResponse::ok(NEW_CONFIG)});
    ASSERT_TRUE(server.start());
    provtest::TempDir home{"prov-env-home"};
    std::string hostile = home.file("wgetrc");
    provtest::writeFile(hostile, "http_proxy = " + proxy.url("/") + "\nuse_proxy = on\n" +
                                     "header = X-Hostile: yes\n");
    ScopedVariable httpProxy("http_proxy", proxy.url("/"));
    ScopedVariable upperProxy("HTTP_PROXY", proxy.url("/"));
    ScopedVariable wgetrc("WGETRC", hostile);
    auto job = configJob(server.url("/" + name));
    ASSERT_TRUE(job->execute().isSuccess());
    ASSERT_TRUE(runToEnd());
    EXPECT_TRUE(told().isSuccess()) << told().toString().c_str() << "\n" << prov.dump();
    EXPECT_TRUE(proxy.requests().empty()) << "the proxy was asked";
    ASSERT_EQ(server.requests().size(), 1U);
    EXPECT_FALSE(server.requests().front().hasHeader("X-Hostile"));
}

TEST_F(EnvironmentTest, tlsKeyLogFileOfTheCallerIsNotWritten) {
    const provtest::Certificates& certificates = provtest::Certificates::get();
    ASSERT_TRUE(certificates.ok()) << certificates.error();
    provtest::HttpServer server;
    server.options().https = true;
    std::string name = remote(".cfg");
    server.put("/" + name, NEW_CONFIG);
    ASSERT_TRUE(server.start());
    provtest::TempDir keys{"prov-env-keys"};
    // GnuTLS writes every session's secrets to the file this names.
    ScopedVariable keyLog("SSLKEYLOGFILE", keys.file("keys.log"));
    auto job = configJob(server.url("/" + name));
    job->setAuthentication(certificates.rootCa().c_str(), "", "");
    ASSERT_TRUE(job->execute().isSuccess());
    ASSERT_TRUE(runToEnd());
    EXPECT_TRUE(told().isSuccess()) << told().toString().c_str() << "\n" << prov.dump();
    EXPECT_FALSE(provtest::fileExists(keys.file("keys.log"))) << "TLS secrets were logged";
}

TEST_F(EnvironmentTest, relativeAndEmptyPathEntriesAreNeverSearched) {
    provtest::TempDir here{"prov-env-cwd"};
    std::string marker = here.file("hostile-ran");
    for (const char* tool : {"wget", "tar", "busybox"}) {
        std::string script = here.file(tool);
        provtest::writeFile(script, "#!/bin/sh\necho \"$0\" >> " + marker + "\nexit 1\n");
        ASSERT_EQ(::chmod(script.c_str(), 0755), 0);
        provtest::writeFile(here.file(std::string("relative/") + tool), provtest::readFile(script));
        ASSERT_EQ(::chmod(here.file(std::string("relative/") + tool).c_str(), 0755), 0);
    }
    char previous[4096];
    ASSERT_NE(::getcwd(previous, sizeof previous), nullptr);
    ASSERT_EQ(::chdir(here.path().c_str()), 0);
    ScopedVariable path("PATH", ":.:relative");
    FixtureServer server;
    std::string name = remote(".cfg");
    server.route("/" + name, {FixtureResponse::ok(NEW_CONFIG)});
    bool started = server.start();
    XCode result(XCode::GENERIC_FAILURE);
    if (started) {
        auto job = configJob(server.url("/" + name));
        if (job->execute().isSuccess() && runToEnd()) {
            result = told();
        }
    }
    String tarOutput;
    XCode tar = Kt::Shell::execute("tar --version", &tarOutput);
    EXPECT_EQ(::chdir(previous), 0);
    ASSERT_TRUE(started);
    EXPECT_FALSE(provtest::fileExists(marker)) << provtest::readFile(marker);
    EXPECT_TRUE(result.isSuccess()) << result.toString().c_str() << "\n" << prov.dump();
    EXPECT_TRUE(tar.isSuccess()) << tar.toString().c_str();
    EXPECT_NE(tarOutput.str().find("GNU tar"), std::string::npos) << tarOutput.c_str();
}

}  // namespace
