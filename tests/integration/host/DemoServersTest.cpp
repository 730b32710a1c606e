// The demo's own server launchers with the real clients: busybox tftp and GNU wget.
#include "host/DemoServers.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "support/Process.h"
#include "support/TempDir.h"

namespace {

using provtest::runCommand;

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

// Whether a TCP connection to 127.0.0.1:port is refused.
bool refused(unsigned int port) {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const bool result = ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 &&
                        errno == ECONNREFUSED;
    ::close(fd);
    return result;
}

// Processes of the group that have not ended (a zombie waiting for its reaper has ended).
int livingMembers(pid_t group) {
    int count = 0;
    for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
        std::ifstream stat(entry.path() / "stat");
        std::string line;
        if (!std::getline(stat, line)) {
            continue;
        }
        // pid (comm) state ppid pgrp ...; comm may hold blanks, so read behind its ')'.
        std::istringstream fields(line.substr(line.rfind(')') + 1));
        std::string state;
        long parent = 0;
        long pgrp = 0;
        fields >> state >> parent >> pgrp;
        if (pgrp == group && state != "Z" && state != "X") {
            ++count;
        }
    }
    return count;
}

TEST(DemoServersTest, tftpServerServesAndAcceptsFiles) {
    provtest::TempDir dir("prov-demo-tftp");
    provtest::writeFile(dir.file("root/a/b.txt"), "served\n");
    provtest::makeDirs(dir.file("root/up"));
    Provctl::DemoTftpServer server(dir.file("root"));
    XCode started = server.start(dir.file("tftpd.log"));
    ASSERT_TRUE(started.isSuccess()) << started.toString().str();
    const std::string port = std::to_string(server.port());

    provtest::CommandResult got = runCommand({"/usr/bin/busybox", "tftp", "-g", "-r", "a/b.txt",
                                              "-l", dir.file("got.txt"), "127.0.0.1", port});
    EXPECT_EQ(got.exitStatus, 0) << got.output;
    EXPECT_EQ(provtest::readFile(dir.file("got.txt")), "served\n");

    provtest::writeFile(dir.file("put.txt"), "uploaded\n");
    provtest::CommandResult put =
        runCommand({"/usr/bin/busybox", "tftp", "-p", "-l", dir.file("put.txt"), "-r", "up/new.txt",
                    "127.0.0.1", port});
    EXPECT_EQ(put.exitStatus, 0) << put.output;
    EXPECT_EQ(provtest::readFile(dir.file("root/up/new.txt")), "uploaded\n");
    server.stop();
}

class DemoHttpServerTest : public ::testing::Test {
  protected:
    void SetUp() override {
        provtest::writeFile(dir_.file("docroot/new/plan.txt"), "plan\n");
        provtest::writeFile(dir_.file("docroot/secure/key"), "key\n");
        ASSERT_TRUE(server_.bind().isSuccess());
        XCode started = server_.start({"/secure/", "provisioning", "admin", "secret"},
                                      {"/old/plan.txt", server_.url("/new/plan.txt"), 302});
        ASSERT_TRUE(started.isSuccess()) << started.toString().str();
    }

    provtest::CommandResult wget(const std::string& path, const std::vector<std::string>& extra) {
        std::vector<std::string> argv = {
            "/usr/bin/wget",  "-q", "-S", "--no-config", "--tries=1", "--max-redirect=0", "-O",
            dir_.file("body")};
        argv.insert(argv.end(), extra.begin(), extra.end());
        argv.push_back(server_.url(path).str());
        return runCommand(argv);
    }

    provtest::TempDir dir_{"prov-demo-http"};
    Provctl::DemoHttpServer server_{dir_.path().c_str(), dir_.file("docroot").c_str()};
};

TEST_F(DemoHttpServerTest, servesTheDocumentRoot) {
    provtest::CommandResult result = wget("/new/plan.txt", {});
    EXPECT_EQ(result.exitStatus, 0) << result.output;
    EXPECT_EQ(provtest::readFile(dir_.file("body")), "plan\n");
}

TEST_F(DemoHttpServerTest, redirectAnswers302WithTheAbsoluteTarget) {
    provtest::CommandResult result = wget("/old/plan.txt", {});
    EXPECT_EQ(result.exitStatus, 8) << result.output;
    EXPECT_TRUE(contains(result.output, "HTTP/1.1 302")) << result.output;
    EXPECT_TRUE(contains(result.output, "Location: " + server_.url("/new/plan.txt").str()))
        << result.output;
}

TEST_F(DemoHttpServerTest, zoneChallengesWithBasicAndTheRealm) {
    provtest::CommandResult result = wget("/secure/key", {});
    EXPECT_EQ(result.exitStatus, 6) << result.output;
    EXPECT_TRUE(contains(result.output, "HTTP/1.1 401")) << result.output;
    EXPECT_TRUE(contains(result.output, "WWW-Authenticate: Basic realm=\"provisioning\""))
        << result.output;
}

TEST_F(DemoHttpServerTest, zoneAdmitsTheUser) {
    provtest::CommandResult result = wget("/secure/key", {"--user=admin", "--password=secret"});
    EXPECT_EQ(result.exitStatus, 0) << result.output;
    EXPECT_EQ(provtest::readFile(dir_.file("body")), "key\n");
}

TEST_F(DemoHttpServerTest, stoppedServerRefusesConnections) {
    const unsigned int port = server_.port();
    server_.stop();
    EXPECT_TRUE(refused(port));
}

TEST(DemoServersTest, configurationHasTheZoneAndTheRedirect) {
    const String conf = Provctl::DemoHttpServer::CONFIGURATION(
        "/srv/doc", 8080, "/srv/users", {"/secure/", "provisioning", "u", "p"},
        {"/old", "http://127.0.0.1:8080/new", 302});
    EXPECT_GE(conf.indexOf("server.document-root = \"/srv/doc\"\n"), 0);
    EXPECT_GE(conf.indexOf("server.systemd-socket-activation = \"enable\"\n"), 0);
    EXPECT_GE(conf.indexOf("auth.require = (\"/secure/\" => (\"method\" => \"basic\", \"realm\" "
                           "=> \"provisioning\", \"require\" => \"valid-user\"))\n"),
              0);
    EXPECT_GE(conf.indexOf("$HTTP[\"url\"] == \"/old\" {\n"
                           "    url.redirect = (\"\" => \"http://127.0.0.1:8080/new\")\n"
                           "    url.redirect-code = 302\n}\n"),
              0);
}

TEST(DemoServersTest, missingProgramCannotBeStarted) {
    Provctl::ServerProcess process;
    Provctl::ServerProcess::Spec spec;
    spec.argv = {"/nonexistent/server"};
    XCode result = process.spawn(spec);
    EXPECT_TRUE(result.isErr());
    EXPECT_EQ(result.getString(), "CANNOT START /nonexistent/server: No such file or directory");
    EXPECT_FALSE(process.running());
}

TEST(DemoServersTest, stopEndsTheServersWholeProcessGroup) {
    Provctl::ServerProcess process;
    Provctl::ServerProcess::Spec spec;
    // A shell that leaves a child behind in its group.
    spec.argv = {"/bin/sh", "-c", "sleep 600 & exec sleep 600"};
    spec.env = {"PATH=/usr/bin:/bin"};
    ASSERT_TRUE(process.spawn(spec).isSuccess());
    const pid_t group = process.pid();
    EXPECT_TRUE(process.running());
    process.stop();
    EXPECT_FALSE(process.running());
    EXPECT_EQ(livingMembers(group), 0);
}

}  // namespace
