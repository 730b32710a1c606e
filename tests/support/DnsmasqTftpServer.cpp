#include "support/DnsmasqTftpServer.h"

#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "support/TftpServer.h"
#include "support/WebServer.h"

namespace provtest {

namespace {

const char* const DNSMASQ = "/usr/sbin/dnsmasq";

std::string errnoText(const char* what) {
    return std::string(what) + ": " + std::strerror(errno);
}

}  // namespace

DnsmasqTftpServer::DnsmasqTftpServer() : root_(dir_.file("root")) {
    makeDirs(root_);
}

DnsmasqTftpServer::~DnsmasqTftpServer() {
    stop();
}

std::string DnsmasqTftpServer::version() {
    return WebServer::firstLineOf({DNSMASQ, "--version"});
}

::testing::AssertionResult DnsmasqTftpServer::start() {
    std::string config =
        "port=0\n"  // no DNS
        "enable-tftp\n"
        "tftp-root=" +
        root_ +
        "\n"
        "listen-address=127.0.0.1\n"
        "bind-interfaces\n"
        "pid-file=\n"
        "log-facility=-\n"
        "no-resolv\n"
        "no-hosts\n";
    if (::geteuid() == 0) {
        // Otherwise dnsmasq serves as nobody, who may not enter the temporary directory.
        config += "user=root\ngroup=root\n";
    }
    writeFile(configPath(), config);
    SpawnSpec spec;
    spec.argv = {DNSMASQ, "--keep-in-foreground", "--conf-file=" + configPath()};
    spec.logPath = dir_.file("server.log");
    ::testing::AssertionResult started = process_.spawn(spec);
    if (!started) {
        return started;
    }
    std::string reply;
    ::testing::AssertionResult ready =
        tftpProbe(PORT, "prov-readiness-probe", reply, &process_, DEFAULT_DEADLINE);
    if (!ready) {
        process_.stop();
        return ::testing::AssertionFailure() << "dnsmasq did not answer (" << ready.message()
                                             << ", " << process_.describeExit() << "): " << log();
    }
    return ::testing::AssertionSuccess();
}

void DnsmasqTftpServer::stop() {
    process_.stop();
}

void DnsmasqTftpServer::put(const std::string& name, const std::string& content) const {
    writeFile(root_ + "/" + name, content);
}

bool DnsmasqTftpServer::exists(const std::string& name) const {
    return fileExists(root_ + "/" + name);
}

std::string DnsmasqTftpServer::log() const {
    std::string path = dir_.file("server.log");
    return fileExists(path) ? readFile(path) : "";
}

::testing::AssertionResult enterOwnNetworkNamespace() {
    if (::unshare(CLONE_NEWNET) != 0) {
        return ::testing::AssertionFailure() << errnoText("unshare(CLONE_NEWNET)");
    }
    int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return ::testing::AssertionFailure() << errnoText("socket");
    }
    ifreq request{};
    std::strncpy(request.ifr_name, "lo", IFNAMSIZ - 1);
    bool up = ::ioctl(fd, SIOCGIFFLAGS, &request) == 0;
    request.ifr_flags = static_cast<short>(request.ifr_flags | IFF_UP);
    up = up && ::ioctl(fd, SIOCSIFFLAGS, &request) == 0;
    std::string error = up ? "" : errnoText("loopback interface up");
    ::close(fd);
    if (!up) {
        return ::testing::AssertionFailure() << error;
    }
    return ::testing::AssertionSuccess();
}

}  // namespace provtest
