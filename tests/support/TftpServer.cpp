#include "support/TftpServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

namespace provtest {

namespace {
const char* const TFTPD = "/usr/sbin/in.tftpd";
}

TftpServer::TftpServer() : TftpServer(Options()) {}

TftpServer::TftpServer(Options options)
    : options_(options), root_(dir_.file("root")), socket_(LoopbackSocket::udp(options.ipv6)) {
    makeDirs(root_);
    port_ = socket_.port();
}

TftpServer::~TftpServer() {
    stop();
}

::testing::AssertionResult TftpServer::start() {
    if (!socket_.valid()) {
        return ::testing::AssertionFailure() << "tftp socket: " << socket_.error();
    }
    SpawnSpec spec;
    // Without -l the daemon takes the socket on its standard input (inetd mode) and serves it
    // until -t seconds pass without a request.
    spec.argv = {TFTPD, "--secure", "--permissive", "--user", "root", "--timeout", "3600"};
    if (options_.allowCreate) {
        spec.argv.push_back("--create");
    }
    spec.argv.push_back(root_);
    spec.fds = {{0, socket_.fd()}};
    spec.logPath = dir_.file("server.log");
    ::testing::AssertionResult started = process_.spawn(spec);
    socket_.close();
    if (!started) {
        return started;
    }
    std::string reply;
    ::testing::AssertionResult ready =
        tftpProbe(port_, "prov-readiness-probe", reply, &process_, DEFAULT_DEADLINE, options_.ipv6);
    if (!ready) {
        process_.stop();
        return ::testing::AssertionFailure() << "tftpd did not answer (" << ready.message() << ", "
                                             << process_.describeExit() << "): " << log();
    }
    return ::testing::AssertionSuccess();
}

void TftpServer::stop() {
    process_.stop();
}

void TftpServer::put(const std::string& name, const std::string& content) const {
    writeFile(root_ + "/" + name, content);
}

std::string TftpServer::read(const std::string& name) const {
    return readFile(root_ + "/" + name);
}

std::string TftpServer::received(const std::string& name, std::size_t size) const {
    return readUpload(root_ + "/" + name, size);
}

std::string readUpload(const std::string& path, std::size_t size) {
    const auto deadline = std::chrono::steady_clock::now() + DEFAULT_DEADLINE;
    struct stat status {};
    while (
        std::chrono::steady_clock::now() < deadline &&
        !(::stat(path.c_str(), &status) == 0 && static_cast<std::size_t>(status.st_size) >= size)) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return fileExists(path) ? readFile(path) : std::string();
}

bool TftpServer::exists(const std::string& name) const {
    return fileExists(root_ + "/" + name);
}

std::string TftpServer::log() const {
    std::string path = dir_.file("server.log");
    return fileExists(path) ? readFile(path) : "";
}

::testing::AssertionResult tftpProbe(unsigned int port, const std::string& name, std::string& reply,
                                     const ServerProcess* process,
                                     std::chrono::milliseconds timeout, bool ipv6) {
    using Clock = std::chrono::steady_clock;
    LoopbackAddress server(port, ipv6);
    int fd = ::socket(server.family(), SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return ::testing::AssertionFailure() << "socket: " << std::strerror(errno);
    }
    // RRQ: opcode 1, file name, NUL, mode, NUL.
    std::string request("\0\1", 2);
    request += name;
    request.push_back('\0');
    request += "octet";
    request.push_back('\0');
    Clock::time_point deadline = Clock::now() + timeout;
    ::testing::AssertionResult result = ::testing::AssertionFailure() << "no answer in time";
    while (Clock::now() < deadline) {
        ::sendto(fd, request.data(), request.size(), 0, server.get(), server.length);
        // The answer comes from the transfer's own port, so the socket stays unconnected.
        Clock::time_point resend =
            std::min(deadline, Clock::now() + std::chrono::milliseconds(200));
        pollfd fds[2] = {{fd, POLLIN, 0}, {process != nullptr ? process->exitFd() : -1, POLLIN, 0}};
        int left = static_cast<int>(
            std::chrono::duration_cast<std::chrono::milliseconds>(resend - Clock::now()).count());
        int n = ::poll(fds, 2, left < 0 ? 0 : left);
        if (n < 0 && errno != EINTR) {
            result = ::testing::AssertionFailure() << "poll: " << std::strerror(errno);
            break;
        }
        if (n > 0 && fds[0].revents != 0) {
            char buffer[1024];
            ssize_t got = ::recv(fd, buffer, sizeof buffer, 0);
            if (got >= 4) {
                reply.assign(buffer, static_cast<std::size_t>(got));
                result = ::testing::AssertionSuccess();
                break;
            }
        } else if (n > 0 && fds[1].revents != 0) {
            result = ::testing::AssertionFailure() << "the server exited";
            break;
        }
    }
    ::close(fd);
    return result;
}

}  // namespace provtest
