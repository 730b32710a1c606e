// The test servers, driven by the real clients the device uses: busybox tftp and GNU wget.

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/Certificates.h"
#include "support/FixtureServer.h"
#include "support/HttpServer.h"
#include "support/Process.h"
#include "support/TempDir.h"
#include "support/TftpServer.h"

using namespace provtest;

namespace {

const char* const BUSYBOX = "/bin/busybox";
const char* const WGET = "/usr/bin/wget";

// wget with the options the tests need around it: headers printed, body to `out`, no retries.
CommandResult wget(const std::string& url, const std::string& out,
                   std::vector<std::string> options = {}) {
    std::vector<std::string> argv = {WGET, "-S", "--tries=1", "--timeout=20", "-O", out};
    argv.insert(argv.end(), options.begin(), options.end());
    argv.push_back(url);
    return runCommand(argv);
}

CommandResult tftp(const char* direction, const std::string& local, const std::string& remote,
                   unsigned int port, const std::string& host = "127.0.0.1") {
    return runCommand(
        {BUSYBOX, "tftp", direction, "-l", local, "-r", remote, host, std::to_string(port)});
}

}  // namespace

// --- TFTP ---

TEST(TftpServerTest, servesAFileToBusyboxTftp) {
    TempDir local;
    TftpServer server;
    server.put("cfg/device.cfg", "hostname gw\n");
    ASSERT_TRUE(server.start());

    CommandResult result = tftp("-g", local.file("out"), "cfg/device.cfg", server.port());

    EXPECT_EQ(0, result.exitStatus) << result.output;
    EXPECT_EQ("hostname gw\n", readFile(local.file("out")));
}

TEST(TftpServerTest, acceptsAnUploadFromBusyboxTftp) {
    TempDir local;
    writeFile(local.file("startup"), "interface eth0\n");
    TftpServer server;
    ASSERT_TRUE(server.start());

    CommandResult result = tftp("-p", local.file("startup"), "uploaded.cfg", server.port());

    EXPECT_EQ(0, result.exitStatus) << result.output;
    EXPECT_EQ("interface eth0\n", server.received("uploaded.cfg", 15));
}

TEST(TftpServerTest, missingFileMakesBusyboxTftpFail) {
    TempDir local;
    TftpServer server;
    ASSERT_TRUE(server.start());

    CommandResult result = tftp("-g", local.file("out"), "absent.cfg", server.port());

    EXPECT_NE(0, result.exitStatus);
    EXPECT_NE(std::string::npos, result.output.find("File not found")) << result.output;
}

TEST(TftpServerTest, refusesNewFilesWithoutCreate) {
    TempDir local;
    writeFile(local.file("startup"), "x\n");
    TftpServer::Options options;
    options.allowCreate = false;
    TftpServer server(options);
    ASSERT_TRUE(server.start());

    CommandResult result = tftp("-p", local.file("startup"), "new.cfg", server.port());

    EXPECT_NE(0, result.exitStatus) << result.output;
    EXPECT_FALSE(server.exists("new.cfg"));
}

TEST(TftpServerTest, portIsKnownBeforeStartAndServersDoNotShareIt) {
    TftpServer first;
    TftpServer second;
    EXPECT_NE(0u, first.port());
    EXPECT_NE(first.port(), second.port());
    ASSERT_TRUE(first.start());
    ASSERT_TRUE(second.start());
}

TEST(TftpServerTest, stopsTheDaemon) {
    TftpServer server;
    ASSERT_TRUE(server.start());
    EXPECT_TRUE(server.running());

    server.stop();

    EXPECT_FALSE(server.running());
}

// BusyBox tftp takes an IPv6 address with or without the brackets of a URI.
TEST(TftpServerTest, servesBusyboxTftpOnIpv6Loopback) {
    TempDir local;
    TftpServer::Options options;
    options.ipv6 = true;
    TftpServer server(options);
    server.put("v6.cfg", "six\n");
    ASSERT_TRUE(server.start());
    ASSERT_EQ("[::1]", server.host());

    CommandResult bracketed = tftp("-g", local.file("1"), "v6.cfg", server.port(), "[::1]");
    CommandResult bare = tftp("-g", local.file("2"), "v6.cfg", server.port(), "::1");
    writeFile(local.file("up"), "up\n");
    CommandResult upload = tftp("-p", local.file("up"), "up.cfg", server.port(), "[::1]");

    EXPECT_EQ(0, bracketed.exitStatus) << bracketed.output;
    EXPECT_EQ("six\n", readFile(local.file("1")));
    EXPECT_EQ(0, bare.exitStatus) << bare.output;
    EXPECT_EQ("six\n", readFile(local.file("2")));
    EXPECT_EQ(0, upload.exitStatus) << upload.output;
    EXPECT_EQ("up\n", server.received("up.cfg", 3));
}

// --- lighttpd over HTTP ---

TEST(HttpServerTest, servesAFileToWget) {
    TempDir local;
    HttpServer server;
    server.put("/cfg/device.cfg", "hostname gw\n");
    ASSERT_TRUE(server.start());

    CommandResult result = wget(server.url("/cfg/device.cfg"), local.file("out"));

    EXPECT_EQ(0, result.exitStatus) << result.output;
    EXPECT_EQ("hostname gw\n", readFile(local.file("out")));
    EXPECT_NE(std::string::npos, result.output.find("HTTP/1.1 200 OK")) << result.output;
}

// wget takes the address in the brackets of a URI; lighttpd serves a file whatever the query.
TEST(HttpServerTest, servesWgetOnIpv6LoopbackAndIgnoresTheQuery) {
    TempDir local;
    HttpServer::Options options;
    options.ipv6 = true;
    HttpServer server(options);
    server.put("/cfg/device.cfg", "six\n");
    ASSERT_TRUE(server.start());
    ASSERT_EQ(0u, server.url("/x").find("http://[::1]:"));

    CommandResult result = wget(server.url("/cfg/device.cfg?mac=001122"), local.file("out"));

    EXPECT_EQ(0, result.exitStatus) << result.output;
    EXPECT_EQ("six\n", readFile(local.file("out")));
}

TEST(HttpServerTest, missingFileIs404WithExitStatus8) {
    TempDir local;
    HttpServer server;
    ASSERT_TRUE(server.start());

    CommandResult result = wget(server.url("/absent"), local.file("out"));

    EXPECT_EQ(8, result.exitStatus) << result.output;
    EXPECT_NE(std::string::npos, result.output.find("HTTP/1.1 404 Not Found")) << result.output;
}

class HttpAuthTest : public ::testing::TestWithParam<HttpServer::Scheme> {};

TEST_P(HttpAuthTest, rightCredentialsPassAndWrongOnesGiveExitStatus6) {
    TempDir local;
    HttpServer server;
    server.options().auth.push_back({"/secure/", "dev", GetParam(), "alice", "s3cret"});
    server.put("/secure/cfg.txt", "secret config\n");
    server.put("/open.txt", "open\n");
    ASSERT_TRUE(server.start());
    const char* scheme = GetParam() == HttpServer::Scheme::Basic ? "Basic" : "Digest";

    CommandResult none = wget(server.url("/secure/cfg.txt"), local.file("none"));
    EXPECT_EQ(6, none.exitStatus) << none.output;
    EXPECT_NE(std::string::npos, none.output.find("HTTP/1.1 401 Unauthorized")) << none.output;
    EXPECT_NE(std::string::npos,
              none.output.find(std::string("WWW-Authenticate: ") + scheme + " realm=\"dev\""))
        << none.output;

    CommandResult right = wget(server.url("/secure/cfg.txt"), local.file("right"),
                               {"--user=alice", "--password=s3cret"});
    EXPECT_EQ(0, right.exitStatus) << right.output;
    EXPECT_EQ("secret config\n", readFile(local.file("right")));

    CommandResult wrong = wget(server.url("/secure/cfg.txt"), local.file("wrong"),
                               {"--user=alice", "--password=guess"});
    EXPECT_EQ(6, wrong.exitStatus) << wrong.output;

    CommandResult open = wget(server.url("/open.txt"), local.file("open"));
    EXPECT_EQ(0, open.exitStatus) << open.output;
}

INSTANTIATE_TEST_SUITE_P(Schemes, HttpAuthTest,
                         ::testing::Values(HttpServer::Scheme::Basic, HttpServer::Scheme::Digest),
                         [](const ::testing::TestParamInfo<HttpServer::Scheme>& param) {
                             return param.param == HttpServer::Scheme::Basic ? "Basic" : "Digest";
                         });

TEST(HttpServerTest, realmsKeepTheirOwnUsers) {
    TempDir local;
    HttpServer server;
    server.options().auth.push_back({"/a/", "alpha", HttpServer::Scheme::Digest, "u", "one"});
    server.options().auth.push_back({"/b/", "beta", HttpServer::Scheme::Basic, "u", "two"});
    server.put("/a/f", "a");
    server.put("/b/f", "b");
    ASSERT_TRUE(server.start());

    EXPECT_EQ(0,
              wget(server.url("/a/f"), local.file("1"), {"--user=u", "--password=one"}).exitStatus);
    EXPECT_EQ(6,
              wget(server.url("/a/f"), local.file("2"), {"--user=u", "--password=two"}).exitStatus);
    EXPECT_EQ(0,
              wget(server.url("/b/f"), local.file("3"), {"--user=u", "--password=two"}).exitStatus);
    EXPECT_EQ(6,
              wget(server.url("/b/f"), local.file("4"), {"--user=u", "--password=one"}).exitStatus);
}

TEST(HttpServerTest, redirectsWith301And302AndRelativeOrAbsoluteLocation) {
    TempDir local;
    HttpServer server;
    server.options().redirects.push_back({"/moved", "/new/cfg.txt", 301});
    server.options().redirects.push_back({"/found", server.url("/new/cfg.txt"), 302});
    server.put("/new/cfg.txt", "new\n");
    ASSERT_TRUE(server.start());

    CommandResult moved = wget(server.url("/moved"), local.file("1"), {"--max-redirect=0"});
    EXPECT_EQ(8, moved.exitStatus) << moved.output;
    EXPECT_NE(std::string::npos, moved.output.find("HTTP/1.1 301 Moved Permanently"))
        << moved.output;
    EXPECT_NE(std::string::npos, moved.output.find("  Location: /new/cfg.txt\n")) << moved.output;

    CommandResult found = wget(server.url("/found"), local.file("2"), {"--max-redirect=0"});
    EXPECT_EQ(8, found.exitStatus) << found.output;
    EXPECT_NE(std::string::npos, found.output.find("HTTP/1.1 302 Found")) << found.output;
    EXPECT_NE(std::string::npos,
              found.output.find("  Location: " + server.url("/new/cfg.txt") + "\n"))
        << found.output;

    CommandResult followed = wget(server.url("/moved"), local.file("3"));
    EXPECT_EQ(0, followed.exitStatus) << followed.output;
    EXPECT_EQ("new\n", readFile(local.file("3")));
}

TEST(HttpServerTest, filesChangedAfterStartAreServedFresh) {
    TempDir local;
    HttpServer server;
    server.put("/f", "one");
    ASSERT_TRUE(server.start());
    ASSERT_EQ(0, wget(server.url("/f"), local.file("1")).exitStatus);
    server.put("/f", "second");

    ASSERT_EQ(0, wget(server.url("/f"), local.file("2")).exitStatus);
    EXPECT_EQ("second", readFile(local.file("2")));
}

TEST(HttpServerTest, badConfigurationFailsStartWithTheLog) {
    HttpServer server;
    server.options().redirects.push_back({"/x\" {", "/y", 302});

    ::testing::AssertionResult started = server.start();

    EXPECT_FALSE(started);
    EXPECT_NE(std::string::npos, std::string(started.message()).find("configuration"))
        << started.message();
}

// --- lighttpd over HTTPS ---

TEST(CertificatesTest, serverChainVerifiesAgainstTheRootAndClientAgainstTheClientCa) {
    const Certificates& certs = Certificates::get();
    ASSERT_TRUE(certs.ok()) << certs.error();

    CommandResult server = runCommand({"/usr/bin/openssl", "verify", "-CAfile", certs.rootCa(),
                                       "-untrusted", certs.intermediateCa(), certs.serverCert()});
    EXPECT_EQ(0, server.exitStatus) << server.output;
    CommandResult client =
        runCommand({"/usr/bin/openssl", "verify", "-CAfile", certs.clientCa(), certs.clientCert()});
    EXPECT_EQ(0, client.exitStatus) << client.output;
    CommandResult stranger = runCommand(
        {"/usr/bin/openssl", "verify", "-CAfile", certs.clientCa(), certs.strangerCert()});
    EXPECT_NE(0, stranger.exitStatus) << stranger.output;
    CommandResult names = runCommand({"/usr/bin/openssl", "x509", "-in", certs.serverCert(),
                                      "-noout", "-ext", "subjectAltName"});
    EXPECT_NE(std::string::npos, names.output.find("IP Address:127.0.0.1")) << names.output;
    EXPECT_NE(std::string::npos, names.output.find("DNS:localhost")) << names.output;
    EXPECT_EQ(&certs, &Certificates::get());
}

TEST(HttpsServerTest, trustedWithTheRootCaAndRejectedWithoutIt) {
    TempDir local;
    HttpServer::Options options;
    options.https = true;
    HttpServer server(options);
    server.put("/cfg.txt", "tls\n");
    ASSERT_TRUE(server.start());
    ASSERT_EQ(0u, server.url("/cfg.txt").find("https://127.0.0.1:"));
    const Certificates& certs = Certificates::get();

    CommandResult trusted =
        wget(server.url("/cfg.txt"), local.file("1"), {"--ca-certificate=" + certs.rootCa()});
    EXPECT_EQ(0, trusted.exitStatus) << trusted.output;
    EXPECT_EQ("tls\n", readFile(local.file("1")));

    std::string byName = "https://localhost:" + std::to_string(server.port()) + "/cfg.txt";
    CommandResult named = wget(byName, local.file("2"), {"--ca-certificate=" + certs.rootCa()});
    EXPECT_EQ(0, named.exitStatus) << named.output;

    CommandResult untrusted = wget(server.url("/cfg.txt"), local.file("3"));
    EXPECT_EQ(5, untrusted.exitStatus) << untrusted.output;
}

TEST(HttpsServerTest, servesOnIpv6LoopbackWithACertificateForIt) {
    TempDir local;
    HttpServer::Options options;
    options.https = true;
    options.ipv6 = true;
    HttpServer server(options);
    server.put("/cfg.txt", "tls6\n");
    ASSERT_TRUE(server.start());
    ASSERT_EQ(0u, server.url("/cfg.txt").find("https://[::1]:"));

    CommandResult trusted = wget(server.url("/cfg.txt"), local.file("1"),
                                 {"--ca-certificate=" + Certificates::get().rootCa()});

    EXPECT_EQ(0, trusted.exitStatus) << trusted.output;
    EXPECT_EQ("tls6\n", readFile(local.file("1")));
}

TEST(HttpsServerTest, clientCertificateLocationNeedsTheClientCertificate) {
    TempDir local;
    HttpServer::Options options;
    options.https = true;
    options.clientCertPaths = {"/device/"};
    HttpServer server(options);
    server.put("/device/cfg.txt", "mutual\n");
    server.put("/open.txt", "open\n");
    ASSERT_TRUE(server.start());
    const Certificates& certs = Certificates::get();
    std::string ca = "--ca-certificate=" + certs.rootCa();

    CommandResult without = wget(server.url("/device/cfg.txt"), local.file("1"), {ca});
    EXPECT_EQ(6, without.exitStatus) << without.output;
    EXPECT_NE(std::string::npos, without.output.find("401")) << without.output;

    CommandResult with =
        wget(server.url("/device/cfg.txt"), local.file("2"),
             {ca, "--certificate=" + certs.clientCert(), "--private-key=" + certs.clientKey()});
    EXPECT_EQ(0, with.exitStatus) << with.output;
    EXPECT_EQ("mutual\n", readFile(local.file("2")));

    CommandResult stranger =
        wget(server.url("/device/cfg.txt"), local.file("3"),
             {ca, "--certificate=" + certs.strangerCert(), "--private-key=" + certs.strangerKey()});
    EXPECT_EQ(6, stranger.exitStatus) << stranger.output;

    CommandResult open = wget(server.url("/open.txt"), local.file("4"), {ca});
    EXPECT_EQ(0, open.exitStatus) << open.output;
}

TEST(HttpsServerTest, requiredClientCertificateFailsTheHandshakeWithoutOne) {
    TempDir local;
    HttpServer::Options options;
    options.https = true;
    options.requireClientCert = true;
    HttpServer server(options);
    server.put("/cfg.txt", "mutual\n");
    ASSERT_TRUE(server.start());
    const Certificates& certs = Certificates::get();
    std::string ca = "--ca-certificate=" + certs.rootCa();

    CommandResult without = wget(server.url("/cfg.txt"), local.file("1"), {ca});
    EXPECT_NE(0, without.exitStatus) << without.output;
    EXPECT_FALSE(fileExists(local.file("1")) && readFile(local.file("1")) == "mutual\n");

    CommandResult with =
        wget(server.url("/cfg.txt"), local.file("2"),
             {ca, "--certificate=" + certs.clientCert(), "--private-key=" + certs.clientKey()});
    EXPECT_EQ(0, with.exitStatus) << with.output;
    EXPECT_EQ("mutual\n", readFile(local.file("2")));
}

// --- fixture server ---

TEST(FixtureServerTest, givesScriptedResponsesInTurnAndRepeatsTheLast) {
    TempDir local;
    FixtureServer server;
    server.route("/cfg", {FixtureResponse::withStatus(201, "created body\n"),
                          FixtureResponse::withStatus(204)});
    ASSERT_TRUE(server.start());

    CommandResult first = wget(server.url("/cfg"), local.file("1"));
    EXPECT_EQ(0, first.exitStatus) << first.output;
    EXPECT_NE(std::string::npos, first.output.find("HTTP/1.1 201 Created")) << first.output;
    EXPECT_EQ("created body\n", readFile(local.file("1")));

    for (const char* name : {"2", "3"}) {
        CommandResult next = wget(server.url("/cfg"), local.file(name));
        EXPECT_EQ(0, next.exitStatus) << next.output;
        EXPECT_NE(std::string::npos, next.output.find("HTTP/1.1 204 No Content")) << next.output;
    }
    EXPECT_EQ(3u, server.requestsFor("/cfg").size());
}

TEST(FixtureServerTest, recordsMethodPathAndHeadersIncludingAuthorization) {
    TempDir local;
    FixtureServer server;
    server.route("/secure",
                 {FixtureResponse::challenge("Basic realm=dev"), FixtureResponse::withStatus(403)});
    ASSERT_TRUE(server.start());

    CommandResult result = wget(server.url("/secure?x=1"), local.file("out"),
                                {"--user=alice", "--password=pw", "--header=X-Test: yes"});

    EXPECT_EQ(8, result.exitStatus) << result.output;
    EXPECT_NE(std::string::npos, result.output.find("WWW-Authenticate: Basic realm=dev\n"))
        << result.output;
    EXPECT_NE(std::string::npos, result.output.find("HTTP/1.1 403 Forbidden")) << result.output;
    std::vector<RecordedRequest> requests = server.requests();
    ASSERT_EQ(2u, requests.size()) << server.log();
    EXPECT_EQ("GET", requests[0].method);
    EXPECT_EQ("/secure?x=1", requests[0].path);
    EXPECT_EQ("yes", requests[0].header("x-test"));
    EXPECT_FALSE(requests[0].hasHeader("Authorization"));
    // alice:pw
    EXPECT_EQ("Basic YWxpY2U6cHc=", requests[1].header("Authorization"));
}

TEST(FixtureServerTest, challengeWithOnlyASchemeIsSentAsItIs) {
    TempDir local;
    FixtureServer server;
    server.route("/f", {FixtureResponse::challenge("Basic")});
    ASSERT_TRUE(server.start());

    CommandResult result = wget(server.url("/f"), local.file("out"));

    EXPECT_EQ(6, result.exitStatus) << result.output;
    EXPECT_NE(std::string::npos, result.output.find("  WWW-Authenticate: Basic\n"))
        << result.output;
}

TEST(FixtureServerTest, redirectToItselfNamesItsOwnPort) {
    TempDir local;
    FixtureServer server;
    server.route("/loop", {FixtureResponse::redirect(302, "http://127.0.0.1:{port}/loop")});
    ASSERT_TRUE(server.start());

    CommandResult result = wget(server.url("/loop"), local.file("out"), {"--max-redirect=3"});

    EXPECT_NE(0, result.exitStatus);
    EXPECT_NE(std::string::npos, result.output.find("Location: " + server.url("/loop")))
        << result.output;
    EXPECT_EQ(4u, server.requestsFor("/loop").size());
}

TEST(FixtureServerTest, routesChangedAfterStartApply) {
    TempDir local;
    FixtureServer server;
    ASSERT_TRUE(server.start());
    EXPECT_EQ(8, wget(server.url("/late"), local.file("1")).exitStatus);

    server.route("/late", {FixtureResponse::ok("now\n")});

    EXPECT_EQ(0, wget(server.url("/late"), local.file("2")).exitStatus);
    EXPECT_EQ("now\n", readFile(local.file("2")));
}

TEST(FixtureServerTest, serverThatNeverAnswersTimesWgetOut) {
    TempDir local;
    FixtureServer server;
    server.route("/hang", {FixtureResponse::hang()});
    server.route("/ok", {FixtureResponse::ok("fine")});
    ASSERT_TRUE(server.start());

    CommandResult hung = runCommand(
        {WGET, "-S", "--tries=1", "--read-timeout=1", "-O", local.file("1"), server.url("/hang")});
    // Another connection is served while the first one hangs.
    CommandResult other = wget(server.url("/ok"), local.file("2"));

    EXPECT_EQ(4, hung.exitStatus) << hung.output;
    EXPECT_EQ(0, other.exitStatus) << other.output;
    EXPECT_EQ(1u, server.requestsFor("/hang").size());
}

TEST(FixtureServerTest, connectionClosedMidBodyFailsWget) {
    TempDir local;
    FixtureServer server;
    server.route("/cut", {FixtureResponse::truncated(std::string(4000, 'x'))});
    ASSERT_TRUE(server.start());

    CommandResult result = wget(server.url("/cut"), local.file("out"));

    EXPECT_EQ(4, result.exitStatus) << result.output;
    EXPECT_NE(std::string::npos, result.output.find("Content-Length: 4000")) << result.output;
}

TEST(FixtureServerTest, closeWithoutAnswerFailsWget) {
    TempDir local;
    FixtureServer server;
    server.route("/drop", {FixtureResponse::closeWithoutAnswer()});
    ASSERT_TRUE(server.start());

    CommandResult result = wget(server.url("/drop"), local.file("out"));

    EXPECT_EQ(4, result.exitStatus) << result.output;
}

TEST(FixtureServerTest, slowBodyArrivesWhole) {
    TempDir local;
    FixtureServer server;
    server.route("/slow", {FixtureResponse::slow("0123456789", 3, 20)});
    ASSERT_TRUE(server.start());

    CommandResult result = wget(server.url("/slow"), local.file("out"));

    EXPECT_EQ(0, result.exitStatus) << result.output;
    EXPECT_EQ("0123456789", readFile(local.file("out")));
}

TEST(FixtureServerTest, unroutedPathIs404AndReasonAndHeadersAreAsGiven) {
    TempDir local;
    FixtureServer server;
    FixtureResponse odd = FixtureResponse::ok("odd");
    odd.reason = "Fine Thanks";
    odd.headers.emplace_back("X-One", "1");
    odd.headers.emplace_back("X-One", "2");
    server.route("/odd", {odd});
    ASSERT_TRUE(server.start());

    CommandResult missing = wget(server.url("/nothing"), local.file("1"));
    CommandResult result = wget(server.url("/odd"), local.file("2"));

    EXPECT_EQ(8, missing.exitStatus) << missing.output;
    EXPECT_NE(std::string::npos, missing.output.find("HTTP/1.1 404 Not Found")) << missing.output;
    EXPECT_EQ(0, result.exitStatus) << result.output;
    EXPECT_NE(std::string::npos,
              result.output.find("HTTP/1.1 200 Fine Thanks\n  X-One: 1\n  X-One: 2\n"))
        << result.output;
}

// --- helpers ---

TEST(ProcessTest, refusingPortRefusesWget) {
    TempDir local;
    LoopbackSocket refusing = LoopbackSocket::tcpRefusing();
    ASSERT_TRUE(refusing.valid()) << refusing.error();

    CommandResult result =
        wget("http://127.0.0.1:" + std::to_string(refusing.port()) + "/f", local.file("out"));

    EXPECT_EQ(4, result.exitStatus) << result.output;
    EXPECT_NE(std::string::npos, result.output.find("Connection refused")) << result.output;
}

TEST(ProcessTest, runCommandReportsExitStatusOutputAndMissingPrograms) {
    CommandResult ok = runCommand({"/bin/sh", "-c", "echo out; echo err >&2; exit 3"});
    EXPECT_EQ(3, ok.exitStatus);
    EXPECT_NE(std::string::npos, ok.output.find("out\n"));
    EXPECT_NE(std::string::npos, ok.output.find("err\n"));

    CommandResult missing = runCommand({"/nonexistent/program"});
    EXPECT_EQ(-1, missing.exitStatus);
    EXPECT_NE(std::string::npos, missing.output.find("cannot execute")) << missing.output;
}

TEST(ProcessTest, stopTerminatesAndReapsTheChild) {
    ServerProcess process;
    SpawnSpec spec;
    spec.argv = {"/bin/sleep", "600"};
    ASSERT_TRUE(process.spawn(spec));
    EXPECT_TRUE(process.running());

    process.stop();

    EXPECT_FALSE(process.running());
    EXPECT_EQ("killed by signal 15", process.describeExit());
}
