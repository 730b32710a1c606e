#include "host/ServerProcess.h"

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

#include "host/StopSignals.h"

namespace Provctl {

namespace {

using Clock = std::chrono::steady_clock;

// How long a server has to end after SIGTERM before its group is killed.
constexpr std::chrono::seconds STOP_GRACE{5};
// Interval of the TFTP readiness probe's resends.
constexpr std::chrono::milliseconds PROBE_RESEND{200};

XCode systemError(const char* what) {
    const int error = errno;
    return XCode::fromErrno(error).setStringF("%s: %s", what, std::strerror(error));
}

int remainingMs(Clock::time_point deadline) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    return left.count() < 0 ? 0 : static_cast<int>(left.count());
}

sockaddr_in loopback(unsigned int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

// Only async-signal-safe calls between fork() and exec: the platform's reactor thread may run.
[[noreturn]] void execChild(char* const* argv, char* const* envp, char* listenPidSlot,
                            const std::vector<std::pair<int, int>>& fds, int errorFd,
                            pid_t parent) {
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
    // Every source is moved above the targets first, so that no dup2 overwrites a later source.
    constexpr std::size_t MAX_FDS = 8;
    int moved[MAX_FDS];
    int highest = 2;
    const std::size_t count = fds.size() < MAX_FDS ? fds.size() : MAX_FDS;
    for (std::size_t i = 0; i < count; ++i) {
        moved[i] = ::fcntl(fds[i].second, F_DUPFD_CLOEXEC, 64);
        if (fds[i].first > highest) {
            highest = fds[i].first;
        }
    }
    for (std::size_t i = 0; i < count; ++i) {
        if (moved[i] < 0 || ::dup2(moved[i], fds[i].first) < 0) {
            const int error = errno;
            static_cast<void>(!::write(errorFd, &error, sizeof error));
            ::_exit(127);
        }
    }
    ::close_range(static_cast<unsigned int>(highest + 1), ~0U, CLOSE_RANGE_CLOEXEC);
    if (listenPidSlot != nullptr) {
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
    const int error = errno;
    static_cast<void>(!::write(errorFd, &error, sizeof error));
    ::_exit(127);
}

}  // namespace

// --- Readiness probes ---

// Waits for the first packet that comes back on `fd` (any TFTP answer, an ERROR included),
// resending `request` every PROBE_RESEND.
XCode PROBE_TFTP(unsigned int port, ServerProcess& process) {
    const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return systemError("socket");
    }
    const sockaddr_in server = loopback(port);
    // RRQ: opcode 1, file name, NUL, mode, NUL.
    std::string request("\0\1", 2);
    request += "provctl-demo-readiness-probe";
    request.push_back('\0');
    request += "octet";
    request.push_back('\0');
    const Clock::time_point deadline = Clock::now() + SERVER_START_DEADLINE;
    XCode result = XCode::FAILURE("in.tftpd did not answer in time");
    while (Clock::now() < deadline && STOP_SIGNAL() == 0 && process.running()) {
        ::sendto(fd, request.data(), request.size(), 0, reinterpret_cast<const sockaddr*>(&server),
                 sizeof server);
        // The answer comes from the transfer's own port: the socket stays unconnected.
        const Clock::time_point resend = std::min(deadline, Clock::now() + PROBE_RESEND);
        pollfd readable{fd, POLLIN, 0};
        if (::poll(&readable, 1, remainingMs(resend)) > 0) {
            char buffer[600];
            if (::recv(fd, buffer, sizeof buffer, 0) >= 4) {
                result = XCode(XCode::SUCCESS);
                break;
            }
        }
    }
    ::close(fd);
    if (result.isErr() && !process.running()) {
        result = XCode::FAILURE("in.tftpd ended at start");
    }
    return result;
}

// Connects, sends a request and waits for any answer. A socket handed over by socket activation
// queues connections before the server runs, so only an answer shows that it serves.
XCode PROBE_HTTP(unsigned int port, ServerProcess& process) {
    const Clock::time_point deadline = Clock::now() + SERVER_START_DEADLINE;
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return systemError("socket");
    }
    const sockaddr_in server = loopback(port);
    const char request[] = "GET / HTTP/1.0\r\n\r\n";
    XCode result = XCode::FAILURE("lighttpd did not answer in time");
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&server), sizeof server) != 0) {
        result = systemError("connect");
    } else if (::send(fd, request, sizeof request - 1, MSG_NOSIGNAL) < 0) {
        result = systemError("send");
    } else {
        while (Clock::now() < deadline && STOP_SIGNAL() == 0 && process.running()) {
            pollfd readable{fd, POLLIN, 0};
            // Short slices: the server's exit and a stop signal are noticed between them.
            if (::poll(&readable, 1, std::min(remainingMs(deadline), 100)) > 0) {
                char byte;
                result = ::recv(fd, &byte, 1, 0) > 0
                             ? XCode(XCode::SUCCESS)
                             : XCode::FAILURE("lighttpd closed the connection");
                break;
            }
        }
    }
    ::close(fd);
    if (result.isErr() && !process.running()) {
        result = XCode::FAILURE("lighttpd ended at start");
    }
    return result;
}

// --- LoopbackSocket ---

LoopbackSocket::~LoopbackSocket() {
    close();
}

XCode LoopbackSocket::open(Kind kind) {
    close();
    const int fd =
        ::socket(AF_INET, (kind == Kind::Udp ? SOCK_DGRAM : SOCK_STREAM) | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return systemError("socket");
    }
    sockaddr_in address = loopback(0);
    socklen_t length = sizeof address;
    if (::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        (kind == Kind::TcpListener && ::listen(fd, 64) != 0) ||
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        XCode error = systemError("cannot bind a socket on 127.0.0.1");
        ::close(fd);
        return error;
    }
    fd_ = fd;
    port_ = ntohs(address.sin_port);
    return XCode(XCode::SUCCESS);
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

XCode ServerProcess::spawn(const Spec& spec) {
    if (pid_ > 0 || spec.argv.empty()) {
        return XCode::FAILURE("server process already started or without program");
    }
    // Everything the child needs is built here: after fork() it may not allocate.
    std::vector<std::string> env;
    for (const String& entry : spec.env) {
        env.push_back(entry.str());
    }
    if (spec.listenPid) {
        env.push_back("LISTEN_PID=" + std::string(24, ' '));
    }
    std::vector<std::string> args;
    for (const String& arg : spec.argv) {
        args.push_back(arg.str());
    }
    std::vector<char*> argv;
    for (std::string& arg : args) {
        argv.push_back(arg.data());
    }
    argv.push_back(nullptr);
    std::vector<char*> envp;
    for (std::string& entry : env) {
        envp.push_back(entry.data());
    }
    envp.push_back(nullptr);
    char* listenPidSlot = spec.listenPid ? env.back().data() : nullptr;

    const int devNull = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    const int logFd = ::open(spec.logPath.isEmpty() ? "/dev/null" : spec.logPath.c_str(),
                             O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    int errorPipe[2] = {-1, -1};
    if (devNull < 0 || logFd < 0 || ::pipe2(errorPipe, O_CLOEXEC) != 0) {
        XCode error = systemError("cannot prepare a server's descriptors");
        for (int fd : {devNull, logFd}) {
            if (fd >= 0) {
                ::close(fd);
            }
        }
        return error;
    }
    std::vector<std::pair<int, int>> fds = {{0, devNull}, {1, logFd}, {2, logFd}};
    for (const auto& mapping : spec.fds) {
        bool replaced = false;
        for (auto& existing : fds) {
            if (existing.first == mapping.first) {
                existing.second = mapping.second;
                replaced = true;
            }
        }
        if (!replaced) {
            fds.push_back(mapping);
        }
    }
    const pid_t parent = ::getpid();
    const pid_t pid = ::fork();
    if (pid == 0) {
        execChild(argv.data(), envp.data(), listenPidSlot, fds, errorPipe[1], parent);
    }
    XCode result(XCode::SUCCESS);
    if (pid < 0) {
        result = systemError("fork");
    }
    ::close(errorPipe[1]);
    ::close(devNull);
    ::close(logFd);
    if (pid > 0) {
        pid_ = pid;
        pidFd_ = static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
        // The pipe closes on exec; an errno arrives only when the child could not get there.
        int childErrno = 0;
        ssize_t n;
        do {
            n = ::read(errorPipe[0], &childErrno, sizeof childErrno);
        } while (n < 0 && errno == EINTR);
        if (n > 0) {
            stop();
            result = XCode::fromErrno(childErrno)
                         .setStringF("CANNOT START %s: %s", spec.argv.front().c_str(),
                                     std::strerror(childErrno));
        }
    }
    ::close(errorPipe[0]);
    return result;
}

bool ServerProcess::running() {
    if (pid_ <= 0) {
        return false;
    }
    siginfo_t info{};
    if (::waitid(P_PID, static_cast<id_t>(pid_), &info, WEXITED | WNOHANG | WNOWAIT) != 0) {
        return false;
    }
    return info.si_pid == 0;
}

void ServerProcess::stop() {
    if (pid_ <= 0) {
        return;
    }
    ::kill(-pid_, SIGTERM);
    bool ended = false;
    if (pidFd_ >= 0) {
        const Clock::time_point deadline = Clock::now() + STOP_GRACE;
        for (;;) {
            pollfd exited{pidFd_, POLLIN, 0};
            const int n = ::poll(&exited, 1, remainingMs(deadline));
            if (n < 0 && errno == EINTR) {
                continue;  // a stop signal of provctl itself: keep waiting for the server
            }
            ended = n > 0;
            break;
        }
    }
    if (!ended) {
        ::kill(-pid_, SIGKILL);
    }
    // Leftovers of the group go too. The leader is not reaped yet, so its group id is not reused.
    ::kill(-pid_, SIGKILL);
    int status = 0;
    while (::waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
    }
    pid_ = -1;
    if (pidFd_ >= 0) {
        ::close(pidFd_);
        pidFd_ = -1;
    }
}

}  // namespace Provctl
