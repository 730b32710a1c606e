// A password goes only where it was given: to the origin (scheme, host, port) whose challenge it
// answered, never over plain HTTP once it was used for HTTPS, never with a redirect of the update
// controller's own fetch, never to an image that a manifest names on another origin, and never to
// a host other than the one it is bound to. Two servers on two ports of loopback are two origins;
// "localhost" and "127.0.0.1" are two hosts. The servers record every Authorization header.
#include <string>
#include <vector>

#include "integration/hardening/HardeningSupport.h"
#include "jobs/content/ConfigProvisioningJob.h"
#include "jobs/upgrade/FirmwareProvisioningJob.h"
#include "platform/UpdateController.h"
#include "platform/simulated/SimulatedUpdateController.h"
#include "support/Certificates.h"
#include "support/FixtureServer.h"
#include "support/HttpServer.h"

namespace {

using namespace provtest::hardening;
using provtest::decodeBasic;
using provtest::FixtureResponse;
using provtest::FixtureServer;
using provtest::HttpServer;
using provtest::readFile;
using provtest::writeFile;

const char* const IMAGE_MANIFEST = "sw_type=X\nsw_version=9.9\nsw_build_num=1\nimage=%s\n";

class CredentialScopeTest : public DeviceTest {
  protected:
    // No request that `server` received carries `password` in a Basic Authorization header.
    static ::testing::AssertionResult neverSent(const FixtureServer& server,
                                                const std::string& password) {
        for (const provtest::RecordedRequest& request : server.requests()) {
            std::string credentials = decodeBasic(request.header("Authorization"));
            if (request.hasHeader("Authorization") &&
                (credentials.empty() || credentials.find(":" + password) != std::string::npos)) {
                return ::testing::AssertionFailure()
                       << request.path
                       << " received Authorization: " << request.header("Authorization") << " ("
                       << credentials << ")";
            }
        }
        return ::testing::AssertionSuccess();
    }
    static std::string manifestNaming(const std::string& image) {
        return String::format(IMAGE_MANIFEST, image.c_str()).str();
    }
    std::unique_ptr<FirmwareProvisioningJob> firmwareJob(const std::string& location) {
        return std::make_unique<FirmwareProvisioningJob>(
            loop, "fw", ProvisioningJob::None, false, KtList<String>{location.c_str()}, credentials,
            resolver, handler, "", "", "", 1, 1);
    }
    // Until the update controller's termination has been told, or the job ended without it.
    ::testing::AssertionResult runUpgradeToEnd() {
        ::testing::AssertionResult ended = runToEnd();
        UpdateController::WAIT_IDLE(std::chrono::milliseconds(20000));
        return ended;
    }
};

const FixtureResponse DEV = FixtureResponse::challenge("Basic realm=\"dev\"");
const FixtureResponse LAB = FixtureResponse::challenge("Basic realm=\"lab\"");

// Server A asks for realm dev and, once answered, redirects to server B, which asks for realm
// lab: the job has nothing for lab, and A's password is not what it sends.
TEST_F(CredentialScopeTest, passwordHeldFromOneServerIsNotSentToTheNextOneThatChallenges) {
    FixtureServer a;
    FixtureServer b;
    std::string name = "/" + remote(".cfg");
    ASSERT_TRUE(b.start());
    a.route(name, {DEV, DEV, FixtureResponse::redirect(302, b.url(name))});
    b.route(name, {LAB});
    ASSERT_TRUE(a.start());
    ASSERT_TRUE(credentials.add("dev", "devuser", "devpass").isSuccess());
    ConfigProvisioningJob job(loop, "scope", ProvisioningJob::None, false, {a.url(name).c_str()},
                              credentials, resolver, handler);
    ASSERT_TRUE(job.execute().isSuccess());
    ASSERT_TRUE(runToEnd());
    EXPECT_TRUE(told().isHttpErr(401)) << told().toString().c_str() << "\n" << prov.dump();
    // A got its password; B got its retry, without it.
    std::vector<provtest::RecordedRequest> atA = a.requestsFor(name);
    ASSERT_EQ(atA.size(), 3U) << a.log();
    EXPECT_EQ(decodeBasic(atA[2].header("Authorization")), "devuser:devpass");
    EXPECT_EQ(b.requestsFor(name).size(), 2U) << b.log();
    EXPECT_TRUE(neverSent(b, "devpass"));
    EXPECT_GE(prov.indexOf("[scope]   Realm:  lab"), 0) << prov.dump();
    EXPECT_GE(prov.indexOf("[scope]   User:   "), 0) << prov.dump();
    EXPECT_TRUE(deviceUnchanged());
}

// An HTTPS server asks for realm dev and, once answered, redirects to plain HTTP on another port
// of the same host, which asks for the same realm: the password that went over HTTPS does not go
// over plain HTTP, not even as the realm's own entry.
TEST_F(CredentialScopeTest, passwordObtainedForHttpsIsNotSentOverPlainHttp) {
    const provtest::Certificates& certificates = provtest::Certificates::get();
    ASSERT_TRUE(certificates.ok()) << certificates.error();
    FixtureServer plain;
    ASSERT_TRUE(plain.start());
    std::string name = remote(".cfg");
    plain.route("/" + name, {DEV});
    HttpServer tls;
    tls.options().https = true;
    tls.options().auth = {{"/secure/", "dev", HttpServer::Scheme::Basic, "devuser", "tlspass"}};
    tls.options().redirects = {{"/secure/" + name, plain.url("/" + name), 302}};
    ASSERT_TRUE(tls.start()) << tls.log();
    ASSERT_TRUE(credentials.add("dev", "devuser", "tlspass").isSuccess());
    ConfigProvisioningJob job(loop, "down", ProvisioningJob::None, false,
                              {tls.url("/secure/" + name).c_str()}, credentials, resolver, handler);
    job.setAuthentication(certificates.rootCa().c_str(), "", "");
    ASSERT_TRUE(job.execute().isSuccess());
    ASSERT_TRUE(runToEnd());
    EXPECT_TRUE(told().isHttpErr(401)) << told().toString().c_str() << "\n" << prov.dump();
    // The HTTPS server answered the password with the redirect.
    EXPECT_GE(prov.indexOf("[down] Redirected: '" + tls.url("/secure/" + name) + "' -> '" +
                           plain.url("/" + name) + "'"),
              0)
        << prov.dump();
    EXPECT_EQ(plain.requestsFor("/" + name).size(), 2U) << plain.log();
    EXPECT_TRUE(neverSent(plain, "tlspass"));
    EXPECT_TRUE(deviceUnchanged());
}

// The manifest's own server asks for the password; the manifest names an image on another
// origin, which asks too. The update controller fetches that image without the password.
TEST_F(CredentialScopeTest, imageOnAnotherOriginIsFetchedWithoutThePassword) {
    FixtureServer a;
    FixtureServer b;
    ASSERT_TRUE(b.start());
    std::string manifest = "/" + remote("-manifest");
    std::string image = "/" + unique + "-image.bin";
    // The job's download, then the controller's fetch: each asks once.
    FixtureResponse text = FixtureResponse::ok(manifestNaming(b.url(image)));
    a.route(manifest, {DEV, DEV, text, DEV, text});
    b.route(image, {DEV, FixtureResponse::ok(std::string(64, 'i'))});
    ASSERT_TRUE(a.start());
    ASSERT_TRUE(credentials.add("dev", "devuser", "fwpass").isSuccess());
    auto job = firmwareJob(a.url(manifest));
    ASSERT_TRUE(job->execute().isSuccess());
    ASSERT_TRUE(runUpgradeToEnd());
    // The controller did fetch the manifest with the password, from its own origin.
    std::vector<provtest::RecordedRequest> atA = a.requestsFor(manifest);
    ASSERT_EQ(atA.size(), 5U) << a.log();
    EXPECT_EQ(decodeBasic(atA.back().header("Authorization")), "devuser:fwpass");
    // The image's origin asked and got nothing: the upgrade fails there.
    EXPECT_FALSE(b.requestsFor(image).empty()) << b.log();
    EXPECT_TRUE(neverSent(b, "fwpass"));
    EXPECT_TRUE(told().isErr()) << prov.dump();
    EXPECT_NE(told().getString().str().find("CANNOT FETCH " + b.url(image)), std::string::npos)
        << told().toString().c_str();
}

// The update controller's fetch of the manifest is redirected to another origin: the fetch that
// carries the password follows no redirect.
TEST_F(CredentialScopeTest, controllersFetchWithThePasswordFollowsNoRedirect) {
    FixtureServer a;
    FixtureServer b;
    ASSERT_TRUE(b.start());
    std::string manifest = "/" + remote("-manifest");
    std::string text = manifestNaming("image.bin");
    // The job's download: challenge, challenge, manifest. Then the controller's fetch.
    a.route(manifest, {DEV, DEV, FixtureResponse::ok(text), DEV,
                       FixtureResponse::redirect(302, b.url(manifest))});
    b.route(manifest, {DEV, FixtureResponse::ok(text)});
    ASSERT_TRUE(a.start());
    ASSERT_TRUE(credentials.add("dev", "devuser", "fwpass").isSuccess());
    auto job = firmwareJob(a.url(manifest));
    ASSERT_TRUE(job->execute().isSuccess());
    ASSERT_TRUE(runUpgradeToEnd());
    EXPECT_TRUE(b.requestsFor(manifest).empty()) << b.log();
    EXPECT_TRUE(neverSent(b, "fwpass"));
    EXPECT_EQ(told().getString(),
              "CANNOT FETCH " + a.url(manifest) + ": REDIRECT NOT FOLLOWED WITH CREDENTIALS")
        << prov.dump();
}

// The job is redirected from the server that asked for the password to another origin that
// serves the manifest without asking: the update controller gets no password for that origin.
TEST_F(CredentialScopeTest, manifestReachedThroughARedirectGoesToTheControllerWithoutPassword) {
    FixtureServer a;
    FixtureServer b;
    ASSERT_TRUE(b.start());
    std::string manifest = "/" + remote("-manifest");
    std::string text = manifestNaming("image.bin");
    a.route(manifest, {DEV, DEV, FixtureResponse::redirect(302, b.url(manifest))});
    // The job's download, then the controller's fetch, which is asked for a password.
    b.route(manifest, {FixtureResponse::ok(text), DEV});
    ASSERT_TRUE(a.start());
    ASSERT_TRUE(credentials.add("dev", "devuser", "fwpass").isSuccess());
    auto job = firmwareJob(a.url(manifest));
    ASSERT_TRUE(job->execute().isSuccess());
    ASSERT_TRUE(runUpgradeToEnd());
    EXPECT_GE(b.requestsFor(manifest).size(), 2U) << b.log();
    EXPECT_TRUE(neverSent(b, "fwpass"));
    EXPECT_TRUE(told().isErr()) << prov.dump();
}

// A credential bound to 127.0.0.1 in device.toml is not sent to "localhost", although the same
// server answers there; at 127.0.0.1 it is.
class BoundCredentialTest : public CredentialScopeTest {
  protected:
    int runProvctl(const std::string& location) {
        provtest::CommandResult run = provtest::runCommand(
            {PROV_PROVCTL, "key", "--device", device.path(), "-v", "6", location});
        output = run.output;
        return run.exitStatus;
    }
    std::string output;
};

TEST_F(BoundCredentialTest, credentialBoundToAHostInDeviceTomlIsSentToNoOtherHost) {
    FixtureServer server;
    std::string name = "/" + remote(".key");
    server.route(name, {DEV});
    ASSERT_TRUE(server.start());
    std::string toml = device.file("device.toml");
    writeFile(toml,
              "[credentials]\ndev = { user = \"devuser\", password = \"boundpass\", host = "
              "\"127.0.0.1\" }\n");
    ASSERT_EQ(::chmod(toml.c_str(), 0600), 0);
    std::string elsewhere = "http://localhost:" + std::to_string(server.port()) + name;
    EXPECT_EQ(runProvctl(elsewhere), 1) << output;
    EXPECT_EQ(server.requestsFor(name).size(), 2U) << server.log() << output;
    EXPECT_TRUE(neverSent(server, "boundpass"));
    EXPECT_EQ(readFile(device.file("flash/preferences/key")), OLD_KEY);
    // Its own host gets it.
    server.route(name, {DEV, DEV, FixtureResponse::ok("bound key\n")});
    EXPECT_EQ(runProvctl(server.url(name)), 0) << output;
    std::vector<provtest::RecordedRequest> requests = server.requestsFor(name);
    ASSERT_EQ(requests.size(), 5U) << server.log();
    EXPECT_EQ(decodeBasic(requests[4].header("Authorization")), "devuser:boundpass");
    EXPECT_EQ(readFile(device.file("flash/preferences/key")), "bound key\n");
}

// A location's own login answers its server, and goes nowhere else: A asks for realm dev, gets
// the login, and redirects to B, which asks for realm lab and gets nothing of A's.
TEST_F(CredentialScopeTest, loginInALocationGoesToItsOriginOnly) {
    FixtureServer a;
    FixtureServer b;
    std::string name = "/" + remote(".cfg");
    ASSERT_TRUE(b.start());
    a.route(name, {DEV, DEV, FixtureResponse::redirect(302, b.url(name))});
    b.route(name, {LAB});
    ASSERT_TRUE(a.start());
    std::string location = "http://locuser:L0cpass@" + a.url(name).substr(7);
    ConfigProvisioningJob job(loop, "login", ProvisioningJob::None, false, {location.c_str()},
                              credentials, resolver, handler);
    ASSERT_TRUE(job.execute().isSuccess());
    ASSERT_TRUE(runToEnd());
    EXPECT_TRUE(told().isHttpErr(401)) << told().toString().c_str() << "\n" << prov.dump();
    std::vector<provtest::RecordedRequest> atA = a.requestsFor(name);
    ASSERT_EQ(atA.size(), 3U) << a.log();
    EXPECT_FALSE(atA[0].hasHeader("Authorization"));
    EXPECT_EQ(decodeBasic(atA[2].header("Authorization")), "locuser:L0cpass");
    EXPECT_EQ(b.requestsFor(name).size(), 2U) << b.log();
    EXPECT_TRUE(neverSent(b, "L0cpass"));
    for (const provtest::CaptureMonitor* monitor : {&prov, &xfer, &event}) {
        EXPECT_FALSE(monitor->contains("L0cpass")) << monitor->dump();
    }
}

// A server that redirects to a location with a login does not choose what the device sends,
// not even to itself: the login is dropped from the target, which gets what the job holds for
// its origin (here nothing), and the job's own lines show the target without it.
class RedirectLoginTest : public CredentialScopeTest, public ::testing::WithParamInterface<bool> {};

TEST_P(RedirectLoginTest, isNotSent) {
    const bool sameOrigin = GetParam();
    FixtureServer a;
    FixtureServer other;
    FixtureServer& target = sameOrigin ? a : other;
    std::string name = "/" + remote(".cfg");
    std::string targetPath = name + "-target";
    ASSERT_TRUE(other.start());
    ASSERT_TRUE(a.start());
    std::string plainTarget = target.url(targetPath);
    a.route(name,
            {FixtureResponse::redirect(302, "http://evil:R3dirpass@" + plainTarget.substr(7))});
    target.route(targetPath, {LAB});
    ConfigProvisioningJob job(loop, "redir", ProvisioningJob::None, false, {a.url(name).c_str()},
                              credentials, resolver, handler);
    ASSERT_TRUE(job.execute().isSuccess());
    ASSERT_TRUE(runToEnd());
    EXPECT_TRUE(told().isHttpErr(401)) << told().toString().c_str() << "\n" << prov.dump();
    EXPECT_EQ(target.requestsFor(targetPath).size(), 2U) << target.log();
    EXPECT_TRUE(neverSent(target, "R3dirpass"));
    for (const provtest::RecordedRequest& request : target.requestsFor(targetPath)) {
        EXPECT_FALSE(request.hasHeader("Authorization")) << request.header("Authorization");
    }
    EXPECT_GE(prov.indexOf("[redir] Redirected: '" + a.url(name) + "' -> '" + plainTarget + "'"), 0)
        << prov.dump();
    EXPECT_GE(prov.indexOf("[redir] Trying to download from location " + plainTarget), 0);
    EXPECT_FALSE(xfer.contains("R3dirpass")) << xfer.dump();
    for (const std::string& line : prov.lines()) {
        // Only the HTTP client's printout of the server's own answer shows what the server sent.
        if (line.find("R3dirpass") != std::string::npos) {
            EXPECT_EQ(line.rfind("[redir/HTTP] ", 0), 0U) << line;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Origins, RedirectLoginTest, ::testing::Bool(),
                         [](const ::testing::TestParamInfo<bool>& test) {
                             return test.param ? "sameOrigin" : "otherOrigin";
                         });

}  // namespace
