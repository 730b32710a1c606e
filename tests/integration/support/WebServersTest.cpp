// The servers of the interoperability tests, driven by the real clients the device uses: GNU wget
// and busybox tftp.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/ApacheServer.h"
#include "support/BusyboxHttpd.h"
#include "support/Certificates.h"
#include "support/DnsmasqTftpServer.h"
#include "support/NginxServer.h"
#include "support/Process.h"
#include "support/PythonHttpServer.h"
#include "support/TempDir.h"

using namespace provtest;

namespace {

const char* const WGET = "/usr/bin/wget";

// wget printing the headers of every response, body to `out`, no retries, no redirects followed.
CommandResult wget(const std::string& url, const std::string& out,
                   std::vector<std::string> options = {}) {
    std::vector<std::string> argv = {WGET, "-S", "--tries=1", "--timeout=20", "--max-redirect=0",
                                     "-O", out};
    argv.insert(argv.end(), options.begin(), options.end());
    argv.push_back(url);
    return runCommand(argv);
}

bool has(const CommandResult& result, const std::string& text) {
    return result.output.find(text) != std::string::npos;
}

std::vector<std::string> trustTheTestCa() {
    return {"--ca-certificate=" + Certificates::get().rootCa()};
}

std::vector<std::string> withClientCertificate() {
    const Certificates& certificates = Certificates::get();
    return {"--ca-certificate=" + certificates.rootCa(),
            "--certificate=" + certificates.clientCert(),
            "--private-key=" + certificates.clientKey()};
}

// A server whose launches are scripted: the first `lost` launches fail, saying in the log that
// the port was in use (or, with `otherFailure`, something else).
class ScriptedStart : public WebServer {
  public:
    ScriptedStart(int lost, bool otherFailure)
        : WebServer("prov-scripted"), lost_(lost), otherFailure_(otherFailure) {}
    ::testing::AssertionResult start() override {
        return startOnFreePorts(2, [this](const std::vector<unsigned int>& ports) {
            launches.push_back(ports);
            if (static_cast<int>(launches.size()) <= lost_) {
                writeFile(logPath(), log() + (otherFailure_ ? "syntax error\n"
                                                            : "bind: Address already in use\n"));
                return ::testing::AssertionFailure() << "lost";
            }
            port_ = ports.at(0);
            return ::testing::AssertionSuccess();
        });
    }
    std::vector<std::vector<unsigned int>> launches;

  private:
    int lost_;
    bool otherFailure_;
};

}  // namespace

// --- Free ports ---

TEST(WebServerTest, startOnFreePortsTriesNewPortsWhenAPortWasLost) {
    ScriptedStart server(1, false);
    ASSERT_TRUE(server.start());
    ASSERT_EQ(server.launches.size(), 2u);
    for (const std::vector<unsigned int>& ports : server.launches) {
        ASSERT_EQ(ports.size(), 2u);
        EXPECT_NE(ports[0], ports[1]);
        EXPECT_GT(ports[0], 0u);
    }
    EXPECT_EQ(server.port(), server.launches[1][0]);
}

TEST(WebServerTest, startOnFreePortsGivesUpOnAnyOtherFailure) {
    ScriptedStart server(1, true);
    EXPECT_FALSE(server.start());
    EXPECT_EQ(server.launches.size(), 1u);
}

TEST(WebServerTest, startOnFreePortsGivesUpAfterThreeLostPorts) {
    ScriptedStart server(5, false);
    EXPECT_FALSE(server.start());
    EXPECT_EQ(server.launches.size(), 3u);
}

// --- nginx ---

TEST(NginxServerTest, servesHttpAndHttpsOnPortsKnownBeforeStart) {
    TempDir local;
    NginxServer server;
    EXPECT_NE(server.port(), 0u);
    EXPECT_NE(server.httpsPort(), 0u);
    EXPECT_NE(server.port(), server.httpsPort());
    server.put("/cfg/a.txt", "hello\n");
    ASSERT_TRUE(server.start());

    CommandResult plain = wget(server.url("/cfg/a.txt"), local.file("1"));
    EXPECT_EQ(plain.exitStatus, 0) << plain.output;
    EXPECT_EQ(readFile(local.file("1")), "hello\n");
    CommandResult tls = wget(server.httpsUrl("/cfg/a.txt"), local.file("2"), trustTheTestCa());
    EXPECT_EQ(tls.exitStatus, 0) << tls.output;
    EXPECT_EQ(readFile(local.file("2")), "hello\n");
}

TEST(NginxServerTest, siteRulesApply) {
    TempDir local;
    NginxServer server;
    server.site().auth = {{"/basic/", "dev", HttpServer::Scheme::Basic, "u", "p"}};
    server.site().redirects = {{"/rel", "/new/a.txt", 302},
                               {"/abs", server.url("/new/a.txt"), 301}};
    server.site().forbidden = {"/forbidden/"};
    server.site().clientCertPaths = {"/device/"};
    for (const char* path : {"/basic/a.txt", "/forbidden/a.txt", "/device/a.txt"}) {
        server.put(path, "x\n");
    }
    ASSERT_TRUE(server.start()) << server.log();

    EXPECT_TRUE(has(wget(server.url("/rel"), local.file("r")), "  Location: /new/a.txt\n"));
    EXPECT_TRUE(has(wget(server.url("/abs"), local.file("a")),
                    "  Location: " + server.url("/new/a.txt") + "\n"));
    CommandResult challenged = wget(server.url("/basic/a.txt"), local.file("b"));
    EXPECT_EQ(challenged.exitStatus, 6);
    EXPECT_TRUE(has(challenged, "WWW-Authenticate: Basic realm=\"dev\"")) << challenged.output;
    EXPECT_EQ(
        wget(server.url("/basic/a.txt"), local.file("b"), {"--user=u", "--password=p"}).exitStatus,
        0);
    EXPECT_TRUE(has(wget(server.url("/forbidden/a.txt"), local.file("f")), "403 Forbidden"));
    EXPECT_TRUE(has(wget(server.httpsUrl("/device/a.txt"), local.file("d"), trustTheTestCa()),
                    "403 Forbidden"));
    EXPECT_EQ(
        wget(server.httpsUrl("/device/a.txt"), local.file("d"), withClientCertificate()).exitStatus,
        0);
}

TEST(NginxServerTest, digestZoneFailsTheStart) {
    NginxServer server;
    server.site().auth = {{"/digest/", "dev", HttpServer::Scheme::Digest, "u", "p"}};
    ::testing::AssertionResult started = server.start();
    EXPECT_FALSE(started);
    EXPECT_NE(std::string(started.message()).find("no Digest"), std::string::npos);
}

// --- Apache ---

TEST(ApacheServerTest, siteRulesApplyOnPortsChosenAtStart) {
    TempDir local;
    ApacheServer server;
    server.site().auth = {{"/digest/", "lab", HttpServer::Scheme::Digest, "u", "p"}};
    server.site().redirects = {{"/rel", "/new/a.txt", 301},
                               {"/abs", "http://127.0.0.1:{port}/new/a.txt", 302}};
    server.site().forbidden = {"/forbidden/"};
    server.site().clientCertPaths = {"/device/"};
    for (const char* path : {"/digest/a.txt", "/forbidden/a.txt", "/device/a.txt"}) {
        server.put(path, "x\n");
    }
    ASSERT_TRUE(server.start());
    EXPECT_NE(server.port(), 0u);
    EXPECT_NE(server.httpsPort(), 0u);

    CommandResult relative = wget(server.url("/rel"), local.file("r"));
    EXPECT_TRUE(has(relative, "301 Moved Permanently")) << relative.output;
    EXPECT_TRUE(has(relative, "  Location: /new/a.txt\n")) << relative.output;
    CommandResult absolute = wget(server.url("/abs"), local.file("a"));
    EXPECT_TRUE(has(absolute, "302 Found")) << absolute.output;
    EXPECT_TRUE(has(absolute, "  Location: " + server.url("/new/a.txt") + "\n")) << absolute.output;
    CommandResult digest =
        wget(server.url("/digest/a.txt"), local.file("g"), {"--user=u", "--password=p"});
    EXPECT_EQ(digest.exitStatus, 0) << digest.output;
    EXPECT_TRUE(has(digest, "WWW-Authenticate: Digest realm=\"lab\"")) << digest.output;
    EXPECT_TRUE(has(wget(server.url("/forbidden/a.txt"), local.file("f")), "403 Forbidden"));
    EXPECT_TRUE(has(wget(server.httpsUrl("/device/a.txt"), local.file("d"), trustTheTestCa()),
                    "403 Forbidden"));
    EXPECT_EQ(
        wget(server.httpsUrl("/device/a.txt"), local.file("d"), withClientCertificate()).exitStatus,
        0);
}

// --- BusyBox httpd ---

TEST(BusyboxHttpdTest, announcesItsRealmRefusesForbiddenPrefixesAndRedirectsFolders) {
    TempDir local;
    BusyboxHttpd server;
    server.options().realm = "box";
    server.options().auth = {{"/basic/", "box", HttpServer::Scheme::Basic, "u", "p"}};
    server.options().forbidden = {"/forbidden/"};
    for (const char* path : {"/basic/a.txt", "/forbidden/a.txt", "/folder/index.html"}) {
        server.put(path, "x\n");
    }
    ASSERT_TRUE(server.start());

    CommandResult challenged = wget(server.url("/basic/a.txt"), local.file("b"));
    EXPECT_EQ(challenged.exitStatus, 6);
    EXPECT_TRUE(has(challenged, "WWW-Authenticate: Basic realm=\"box\"")) << challenged.output;
    EXPECT_EQ(
        wget(server.url("/basic/a.txt"), local.file("b"), {"--user=u", "--password=p"}).exitStatus,
        0);
    EXPECT_TRUE(has(wget(server.url("/forbidden/a.txt"), local.file("f")), "403 Forbidden"));
    CommandResult folder = wget(server.url("/folder"), local.file("d"));
    EXPECT_TRUE(has(folder, "302 Found")) << folder.output;
    EXPECT_TRUE(has(folder, "  Location: /folder/\n")) << folder.output;
}

// --- python3 -m http.server ---

TEST(PythonHttpServerTest, servesOnTheAnnouncedPortAndRedirectsFolders) {
    TempDir local;
    PythonHttpServer server;
    server.put("/a.txt", "hello\n");
    server.put("/folder/index.html", "x\n");
    ASSERT_TRUE(server.start());
    EXPECT_NE(server.port(), 0u);

    CommandResult plain = wget(server.url("/a.txt"), local.file("1"));
    EXPECT_EQ(plain.exitStatus, 0) << plain.output;
    EXPECT_EQ(readFile(local.file("1")), "hello\n");
    EXPECT_TRUE(has(plain, "Server: SimpleHTTP/")) << plain.output;
    CommandResult folder = wget(server.url("/folder"), local.file("2"));
    EXPECT_TRUE(has(folder, "301 Moved Permanently")) << folder.output;
    EXPECT_TRUE(has(folder, "  Location: /folder/\n")) << folder.output;
}

// --- dnsmasq ---

// Moves this test's process into a network namespace of its own: under ctest each test runs in
// its own process; run together, the tests after it use the namespace's loopback interface.
TEST(DnsmasqTftpServerTest, servesFilesAndRefusesUploadsOnPort69OfItsOwnNetwork) {
    ASSERT_TRUE(enterOwnNetworkNamespace());
    TempDir local;
    DnsmasqTftpServer server;
    server.put("cfg/a.txt", "hello\n");
    ASSERT_TRUE(server.start());

    CommandResult get = runCommand(
        {"/bin/busybox", "tftp", "-g", "-l", local.file("a"), "-r", "cfg/a.txt", "127.0.0.1"});
    EXPECT_EQ(get.exitStatus, 0) << get.output;
    EXPECT_EQ(readFile(local.file("a")), "hello\n");
    CommandResult put = runCommand(
        {"/bin/busybox", "tftp", "-p", "-l", local.file("a"), "-r", "up.txt", "127.0.0.1"});
    EXPECT_EQ(put.exitStatus, 1);
    EXPECT_TRUE(has(put, "(4) unsupported request")) << put.output;
    EXPECT_FALSE(server.exists("up.txt"));
}
