#pragma once

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/types.h>

#include <chrono>
#include <string>
#include <utility>
#include <vector>

namespace provtest {

// How long a fixture waits for a server to come up, for a command to end, or for a stopped server
// to exit. Generous: it only matters when something is broken.
constexpr std::chrono::milliseconds DEFAULT_DEADLINE{20000};

// The loopback address 127.0.0.1, or ::1 when `ipv6`, with a port, as the socket calls take it.
struct LoopbackAddress {
    LoopbackAddress(unsigned int port, bool ipv6);
    sockaddr* get() { return reinterpret_cast<sockaddr*>(&storage); }
    int family() const { return storage.ss_family; }
    sockaddr_storage storage{};
    socklen_t length = 0;
};

// A socket bound to 127.0.0.1 (or ::1) on a port the kernel chose. The servers get it as an
// inherited descriptor, so the port is known before they start and no other process can take it
// in between.
class LoopbackSocket {
  public:
    // A TCP socket that listens.
    static LoopbackSocket tcpListener(bool ipv6 = false);
    // A TCP socket that is bound but does not listen: connections to its port are refused for as
    // long as it lives.
    static LoopbackSocket tcpRefusing();
    static LoopbackSocket udp(bool ipv6 = false);

    LoopbackSocket() = default;
    LoopbackSocket(LoopbackSocket&& other) noexcept;
    LoopbackSocket& operator=(LoopbackSocket&& other) noexcept;
    LoopbackSocket(const LoopbackSocket&) = delete;
    LoopbackSocket& operator=(const LoopbackSocket&) = delete;
    ~LoopbackSocket();

    bool valid() const { return fd_ >= 0; }
    int fd() const { return fd_; }
    unsigned int port() const { return port_; }
    // The text of the error when the socket could not be made.
    const std::string& error() const { return error_; }
    void close();

  private:
    static LoopbackSocket make(int type, bool listen, bool ipv6);

    int fd_ = -1;
    unsigned int port_ = 0;
    std::string error_;
};

// What to start: the program and its arguments, its environment, the descriptors it inherits
// and where its output goes.
struct SpawnSpec {
    std::vector<std::string> argv;  // argv[0] is the program's path
    std::vector<std::string> env;   // NAME=value
    // {descriptor number in the child, descriptor of this process}; inherited by the child.
    std::vector<std::pair<int, int>> fds;
    // Standard error, and standard output unless captured, are appended here.
    std::string logPath;
    // Standard output goes to a pipe that readLine() reads.
    bool captureStdout = false;
    // Adds LISTEN_PID=<the child's pid> to the environment (socket activation).
    bool listenPid = false;
    std::string workDir;
};

// One child process of a test: its own process group, no descriptors but the ones asked for,
// killed with the test process if that dies first. stop() and the destructor terminate the whole
// group and reap the child. Not thread-safe; start it from the thread that outlives it (the
// kernel's parent-death signal follows the starting thread).
class ServerProcess {
  public:
    ServerProcess() = default;
    ServerProcess(const ServerProcess&) = delete;
    ServerProcess& operator=(const ServerProcess&) = delete;
    ~ServerProcess();

    // Fails when the program could not be executed at all.
    [[nodiscard]] ::testing::AssertionResult spawn(const SpawnSpec& spec);
    pid_t pid() const { return pid_; }
    // A descriptor that becomes readable when the child has exited (a pidfd), or -1.
    int exitFd() const { return pidFd_; }
    bool running() const;
    // One line of the captured standard output, without its newline. False at the end of the
    // output or when the deadline passed.
    bool readLine(std::string& line, std::chrono::milliseconds timeout = DEFAULT_DEADLINE);
    // Terminates the process group (SIGTERM, then SIGKILL after the deadline) and reaps the child.
    void stop();
    // Waits for the child to end by itself and reaps it. False (child left running) on timeout.
    bool waitExit(std::chrono::milliseconds timeout);
    // "exited with status N", "killed by signal N" or "running"; only after stop() or waitExit().
    std::string describeExit() const;
    // The exit status, or -1 when the child did not exit normally.
    int exitStatus() const;

  private:
    void reap();

    pid_t pid_ = -1;
    int pidFd_ = -1;
    int stdoutFd_ = -1;
    std::string stdoutBuffer_;
    bool reaped_ = false;
    int waitStatus_ = 0;
};

struct CommandResult {
    // The exit status; -1 when the program could not start, was killed or ran past the deadline.
    int exitStatus = -1;
    // Standard output and standard error, interleaved as written.
    std::string output;
};

// Runs a program to its end, without a shell, with standard input from /dev/null.
CommandResult runCommand(const std::vector<std::string>& argv,
                         std::chrono::milliseconds timeout = DEFAULT_DEADLINE);

// Connects to 127.0.0.1:port (::1 when `ipv6`), sends `request` and waits until the server answers
// anything or closes the connection cleanly. Fails when the connection is refused or reset, when
// `process` exits, or at the deadline. A listening socket handed to a server queues connections
// before the server runs, so a connect alone proves nothing; an answer does.
::testing::AssertionResult waitForTcpAnswer(unsigned int port, const std::string& request,
                                            const ServerProcess& process,
                                            std::chrono::milliseconds timeout, bool ipv6 = false);

// For a server that binds its port itself: connects to 127.0.0.1:port until a connection is
// accepted. A refused connection is tried again (every 20 ms) until `process` exits or the
// deadline passes.
::testing::AssertionResult waitForTcpListener(unsigned int port, const ServerProcess& process,
                                              std::chrono::milliseconds timeout);

}  // namespace provtest
