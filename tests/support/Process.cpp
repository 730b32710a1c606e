#include "support/Process.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace provtest {

namespace {

using Clock = std::chrono::steady_clock;

std::string errnoText(const char* what) {
    return std::string(what) + ": " + std::strerror(errno);
}

int remainingMs(Clock::time_point deadline) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    return left.count() < 0 ? 0 : static_cast<int>(left.count());
}

// Waits until `fd` is readable, the deadline passes (0) or, when `exitFd` is given, the child
// exits first (-1).
int pollReadable(int fd, int exitFd, Clock::time_point deadline) {
    for (;;) {
        pollfd fds[2] = {{fd, POLLIN, 0}, {exitFd, POLLIN, 0}};
        int n = ::poll(fds, exitFd >= 0 ? 2 : 1, remainingMs(deadline));
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return 0;
        }
        if (fds[0].revents != 0) {
            return 1;
        }
        return -1;
    }
}

// Only async-signal-safe calls between fork() and exec: this process may have threads.
[[noreturn]] void execChild(char* const* argv, char* const* envp, char* listenPidSlot,
                            const std::vector<std::pair<int, int>>& fds, int errorFd, pid_t parent,
                            const char* workDir) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (::getppid() != parent) {
        ::_exit(127);
    }
    ::setpgid(0, 0);
    sigset_t none;
    sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);
    for (int sig : {SIGPIPE, SIGTERM, SIGINT, SIGHUP, SIGCHLD}) {
        ::signal(sig, SIG_DFL);
    }
    // Move every source above the targets first, so that no dup2 overwrites a later source.
    int highest = 2;
    int moved[16];
    std::size_t count = fds.size() < 16 ? fds.size() : 16;
    for (std::size_t i = 0; i < count; ++i) {
        moved[i] = ::fcntl(fds[i].second, F_DUPFD_CLOEXEC, 64);
        if (fds[i].first > highest) {
            highest = fds[i].first;
        }
    }
    for (std::size_t i = 0; i < count; ++i) {
        if (moved[i] < 0 || ::dup2(moved[i], fds[i].first) < 0) {
            int error = errno;
            (void)!::write(errorFd, &error, sizeof error);
            ::_exit(127);
        }
    }
    // Everything else this process holds stays out of the child.
    ::close_range(static_cast<unsigned>(highest + 1), ~0U, CLOSE_RANGE_CLOEXEC);
    if (workDir != nullptr && ::chdir(workDir) != 0) {
        int error = errno;
        (void)!::write(errorFd, &error, sizeof error);
        ::_exit(127);
    }
    if (listenPidSlot != nullptr) {
        // Writes the decimal pid behind "LISTEN_PID=".
        char digits[24];
        int n = 0;
        for (pid_t pid = ::getpid(); pid > 0; pid /= 10) {
            digits[n++] = static_cast<char>('0' + pid % 10);
        }
        char* out = listenPidSlot + std::strlen("LISTEN_PID=");
        while (n > 0) {
            *out++ = digits[--n];
        }
        *out = '\0';
    }
    ::execve(argv[0], argv, envp);
    int error = errno;
    (void)!::write(errorFd, &error, sizeof error);
    ::_exit(127);
}

}  // namespace

// --- LoopbackAddress ---

LoopbackAddress::LoopbackAddress(unsigned int port, bool ipv6) {
    if (ipv6) {
        auto* address = reinterpret_cast<sockaddr_in6*>(&storage);
        address->sin6_family = AF_INET6;
        address->sin6_port = htons(static_cast<uint16_t>(port));
        address->sin6_addr = in6addr_loopback;
        length = sizeof(sockaddr_in6);
    } else {
        auto* address = reinterpret_cast<sockaddr_in*>(&storage);
        address->sin_family = AF_INET;
        address->sin_port = htons(static_cast<uint16_t>(port));
        address->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        length = sizeof(sockaddr_in);
    }
}

// --- LoopbackSocket ---

LoopbackSocket LoopbackSocket::make(int type, bool listen, bool ipv6) {
    LoopbackSocket result;
    LoopbackAddress address(0, ipv6);
    int fd = ::socket(address.family(), type | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        result.error_ = errnoText("socket");
        return result;
    }
    socklen_t length = address.length;
    if (::bind(fd, address.get(), address.length) != 0 || (listen && ::listen(fd, 128) != 0) ||
        ::getsockname(fd, address.get(), &length) != 0) {
        result.error_ = errnoText("bind/listen");
        ::close(fd);
        return result;
    }
    result.fd_ = fd;
    result.port_ = ipv6 ? ntohs(reinterpret_cast<sockaddr_in6*>(address.get())->sin6_port)
                        : ntohs(reinterpret_cast<sockaddr_in*>(address.get())->sin_port);
    return result;
}

LoopbackSocket LoopbackSocket::tcpListener(bool ipv6) {
    return make(SOCK_STREAM, true, ipv6);
}
LoopbackSocket LoopbackSocket::tcpRefusing() {
    return make(SOCK_STREAM, false, false);
}
LoopbackSocket LoopbackSocket::udp(bool ipv6) {
    return make(SOCK_DGRAM, false, ipv6);
}

LoopbackSocket::LoopbackSocket(LoopbackSocket&& other) noexcept
    : fd_(other.fd_), port_(other.port_), error_(std::move(other.error_)) {
    other.fd_ = -1;
}

LoopbackSocket& LoopbackSocket::operator=(LoopbackSocket&& other) noexcept {
    if (this != &other) {
        close();
        fd_ = other.fd_;
        port_ = other.port_;
        error_ = std::move(other.error_);
        other.fd_ = -1;
    }
    return *this;
}

LoopbackSocket::~LoopbackSocket() {
    close();
}

void LoopbackSocket::close() {
    if (fd_ >= 0) {
        ::close(fd_);
        fd_ = -1;
    }
}

// --- ServerProcess ---

ServerProcess::~ServerProcess() {
    stop();
}

::testing::AssertionResult ServerProcess::spawn(const SpawnSpec& spec) {
    if (pid_ > 0) {
        return ::testing::AssertionFailure() << "process already started";
    }
    if (spec.argv.empty()) {
        return ::testing::AssertionFailure() << "no program";
    }
    // Everything the child needs is built here: after fork() it may not allocate.
    std::vector<std::string> env = spec.env;
    if (spec.listenPid) {
        env.push_back("LISTEN_PID=" + std::string(24, ' '));
    }
    std::vector<char*> argv;
    for (const std::string& arg : spec.argv) {
        argv.push_back(const_cast<char*>(arg.c_str()));
    }
    argv.push_back(nullptr);
    std::vector<char*> envp;
    for (std::string& entry : env) {
        envp.push_back(entry.data());
    }
    envp.push_back(nullptr);
    char* listenPidSlot = spec.listenPid ? env.back().data() : nullptr;

    int devNull = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    int logFd = spec.logPath.empty()
                    ? ::open("/dev/null", O_WRONLY | O_CLOEXEC)
                    : ::open(spec.logPath.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    int outPipe[2] = {-1, -1};
    int errorPipe[2] = {-1, -1};
    auto closeAll = [&] {
        for (int fd : {devNull, logFd, outPipe[0], outPipe[1], errorPipe[0], errorPipe[1]}) {
            if (fd >= 0) {
                ::close(fd);
            }
        }
    };
    if (devNull < 0 || logFd < 0 || ::pipe2(errorPipe, O_CLOEXEC) != 0 ||
        (spec.captureStdout && ::pipe2(outPipe, O_CLOEXEC) != 0)) {
        std::string error = errnoText("cannot prepare the child's descriptors");
        closeAll();
        return ::testing::AssertionFailure() << error;
    }
    std::vector<std::pair<int, int>> fds = {
        {0, devNull}, {1, spec.captureStdout ? outPipe[1] : logFd}, {2, logFd}};
    fds.insert(fds.end(), spec.fds.begin(), spec.fds.end());
    const char* workDir = spec.workDir.empty() ? nullptr : spec.workDir.c_str();
    pid_t parent = ::getpid();

    pid_t pid = ::fork();
    if (pid < 0) {
        std::string error = errnoText("fork");
        closeAll();
        return ::testing::AssertionFailure() << error;
    }
    if (pid == 0) {
        execChild(argv.data(), envp.data(), listenPidSlot, fds, errorPipe[1], parent, workDir);
    }
    pid_ = pid;
    reaped_ = false;
    pidFd_ = static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
    ::close(errorPipe[1]);
    errorPipe[1] = -1;
    if (spec.captureStdout) {
        ::close(outPipe[1]);
        outPipe[1] = -1;
        stdoutFd_ = outPipe[0];
        outPipe[0] = -1;
    }
    // The error pipe closes on exec; an errno arrives only when the child could not get there.
    int childErrno = 0;
    ssize_t n;
    do {
        n = ::read(errorPipe[0], &childErrno, sizeof childErrno);
    } while (n < 0 && errno == EINTR);
    closeAll();
    if (n > 0) {
        reap();
        pid_ = -1;
        return ::testing::AssertionFailure()
               << "cannot execute " << spec.argv[0] << ": " << std::strerror(childErrno);
    }
    return ::testing::AssertionSuccess();
}

bool ServerProcess::running() const {
    if (pid_ <= 0 || reaped_) {
        return false;
    }
    siginfo_t info{};
    if (::waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT) != 0) {
        return false;
    }
    return info.si_pid == 0;
}

bool ServerProcess::readLine(std::string& line, std::chrono::milliseconds timeout) {
    Clock::time_point deadline = Clock::now() + timeout;
    for (;;) {
        std::size_t newline = stdoutBuffer_.find('\n');
        if (newline != std::string::npos) {
            line = stdoutBuffer_.substr(0, newline);
            stdoutBuffer_.erase(0, newline + 1);
            return true;
        }
        if (stdoutFd_ < 0 || pollReadable(stdoutFd_, -1, deadline) <= 0) {
            return false;
        }
        char buffer[512];
        ssize_t n = ::read(stdoutFd_, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            return false;
        }
        stdoutBuffer_.append(buffer, static_cast<std::size_t>(n));
    }
}

bool ServerProcess::waitExit(std::chrono::milliseconds timeout) {
    if (pid_ <= 0 || reaped_) {
        return true;
    }
    if (pidFd_ >= 0) {
        Clock::time_point deadline = Clock::now() + timeout;
        if (pollReadable(pidFd_, -1, deadline) <= 0) {
            return false;
        }
    }
    reap();
    return true;
}

void ServerProcess::stop() {
    if (pid_ <= 0) {
        return;
    }
    if (!reaped_) {
        ::kill(-pid_, SIGTERM);
        if (pidFd_ < 0 || pollReadable(pidFd_, -1, Clock::now() + DEFAULT_DEADLINE) <= 0) {
            ::kill(-pid_, SIGKILL);
        }
        // Leftovers of the group (children of the server) go too. The leader is not reaped yet,
        // so the group id cannot have been reused.
        ::kill(-pid_, SIGKILL);
        reap();
    }
    if (pidFd_ >= 0) {
        ::close(pidFd_);
        pidFd_ = -1;
    }
    if (stdoutFd_ >= 0) {
        ::close(stdoutFd_);
        stdoutFd_ = -1;
    }
}

void ServerProcess::reap() {
    if (reaped_ || pid_ <= 0) {
        return;
    }
    int status = 0;
    pid_t result;
    do {
        result = ::waitpid(pid_, &status, 0);
    } while (result < 0 && errno == EINTR);
    waitStatus_ = status;
    reaped_ = true;
}

std::string ServerProcess::describeExit() const {
    if (!reaped_) {
        return "running";
    }
    if (WIFEXITED(waitStatus_)) {
        return "exited with status " + std::to_string(WEXITSTATUS(waitStatus_));
    }
    if (WIFSIGNALED(waitStatus_)) {
        return "killed by signal " + std::to_string(WTERMSIG(waitStatus_));
    }
    return "ended abnormally";
}

int ServerProcess::exitStatus() const {
    return reaped_ && WIFEXITED(waitStatus_) ? WEXITSTATUS(waitStatus_) : -1;
}

// --- runCommand ---

CommandResult runCommand(const std::vector<std::string>& argv, std::chrono::milliseconds timeout) {
    CommandResult result;
    int outPipe[2];
    if (::pipe2(outPipe, O_CLOEXEC) != 0) {
        result.output = errnoText("pipe");
        return result;
    }
    ServerProcess process;
    SpawnSpec spec;
    spec.argv = argv;
    spec.env = {"PATH=/usr/local/bin:/usr/bin:/bin:/usr/sbin:/sbin", "LC_ALL=C", "HOME=/tmp"};
    spec.fds = {{1, outPipe[1]}, {2, outPipe[1]}};
    ::testing::AssertionResult started = process.spawn(spec);
    ::close(outPipe[1]);
    if (!started) {
        ::close(outPipe[0]);
        result.output = started.message();
        return result;
    }
    Clock::time_point deadline = Clock::now() + timeout;
    bool timedOut = false;
    for (;;) {
        if (pollReadable(outPipe[0], -1, deadline) <= 0) {
            timedOut = true;
            break;
        }
        char buffer[4096];
        ssize_t n = ::read(outPipe[0], buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            break;
        }
        result.output.append(buffer, static_cast<std::size_t>(n));
    }
    ::close(outPipe[0]);
    if (timedOut || !process.waitExit(std::chrono::milliseconds(remainingMs(deadline)))) {
        process.stop();
        result.output += "\n[runCommand: deadline passed, command terminated]\n";
        return result;
    }
    process.stop();
    result.exitStatus = process.exitStatus();
    return result;
}

// --- readiness ---

::testing::AssertionResult waitForTcpAnswer(unsigned int port, const std::string& request,
                                            const ServerProcess& process,
                                            std::chrono::milliseconds timeout, bool ipv6) {
    Clock::time_point deadline = Clock::now() + timeout;
    LoopbackAddress address(port, ipv6);
    int fd = ::socket(address.family(), SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return ::testing::AssertionFailure() << errnoText("socket");
    }
    if (::connect(fd, address.get(), address.length) != 0) {
        std::string error = errnoText("connect");
        ::close(fd);
        return ::testing::AssertionFailure() << error;
    }
    if (!request.empty() && ::send(fd, request.data(), request.size(), MSG_NOSIGNAL) < 0) {
        std::string error = errnoText("send");
        ::close(fd);
        return ::testing::AssertionFailure() << error;
    }
    int ready = pollReadable(fd, process.exitFd(), deadline);
    char byte;
    ssize_t n = ready > 0 ? ::recv(fd, &byte, 1, 0) : -1;
    std::string error = n < 0 ? errnoText("recv") : "";
    ::close(fd);
    if (ready == 0) {
        return ::testing::AssertionFailure() << "no answer on port " << port << " in time";
    }
    if (ready < 0) {
        return ::testing::AssertionFailure() << "the server exited";
    }
    if (n < 0) {
        return ::testing::AssertionFailure() << error;
    }
    return ::testing::AssertionSuccess();
}

namespace {

// Waits until `until` and tells whether the process has exited by then; an exit ends the wait.
bool exitsBefore(const ServerProcess& process, Clock::time_point until) {
    if (process.exitFd() >= 0) {
        return pollReadable(process.exitFd(), -1, until) > 0;
    }
    ::poll(nullptr, 0, remainingMs(until));
    return !process.running();
}

}  // namespace

::testing::AssertionResult waitForTcpListener(unsigned int port, const ServerProcess& process,
                                              std::chrono::milliseconds timeout) {
    Clock::time_point deadline = Clock::now() + timeout;
    for (;;) {
        LoopbackAddress address(port, false);
        int fd = ::socket(address.family(), SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (fd < 0) {
            return ::testing::AssertionFailure() << errnoText("socket");
        }
        int connected = ::connect(fd, address.get(), address.length);
        std::string error = connected != 0 ? errnoText("connect") : "";
        ::close(fd);
        if (connected == 0) {
            return ::testing::AssertionSuccess();
        }
        // The pause before the next attempt ends early when the server exits.
        Clock::time_point retry = std::min(deadline, Clock::now() + std::chrono::milliseconds(20));
        if (exitsBefore(process, retry)) {
            return ::testing::AssertionFailure() << "the server exited (" << error << ")";
        }
        if (Clock::now() >= deadline) {
            return ::testing::AssertionFailure()
                   << "nothing listens on port " << port << " in time (" << error << ")";
        }
    }
}

}  // namespace provtest
