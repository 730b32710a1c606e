#pragma once

#include <sys/types.h>

#include <chrono>
#include <utility>
#include <vector>

#include "platform/String.h"
#include "platform/XCode.h"

// What the demo's servers are built from: a socket on loopback that this process binds and hands
// over to a server, the supervised server process, and the probes that wait for a server's first
// answer. Everything here runs on the calling thread.
namespace Provctl {

// How long a server may take to answer its first request.
constexpr std::chrono::seconds SERVER_START_DEADLINE{10};

// A socket on 127.0.0.1, port chosen by the kernel; closed by the destructor.
class LoopbackSocket {
  public:
    enum class Kind { Udp, TcpListener };

    LoopbackSocket() = default;
    ~LoopbackSocket();
    LoopbackSocket(const LoopbackSocket&) = delete;
    LoopbackSocket& operator=(const LoopbackSocket&) = delete;

    [[nodiscard]] XCode open(Kind kind);
    void close();
    int fd() const { return fd_; }
    unsigned int port() const { return port_; }

  private:
    int fd_ = -1;
    unsigned int port_ = 0;
};

// One server process: started from an argument list (never through a shell) in a process group
// of its own, so that a Ctrl-C on the terminal reaches provctl only; killed by the kernel if
// provctl dies; terminated with its group and reaped by stop() and the destructor.
class ServerProcess {
  public:
    struct Spec {
        std::vector<String> argv;  // argv[0] is the program's full path
        std::vector<String> env;   // the whole environment
        // (target descriptor in the child, descriptor of this process); 0, 1 and 2 default to
        // /dev/null, the log file and the log file.
        std::vector<std::pair<int, int>> fds;
        String logPath;          // standard output and standard error
        bool listenPid = false;  // adds LISTEN_PID=<the child's pid> (socket activation)
    };

    ServerProcess() = default;
    ~ServerProcess();
    ServerProcess(const ServerProcess&) = delete;
    ServerProcess& operator=(const ServerProcess&) = delete;

    [[nodiscard]] XCode spawn(const Spec& spec);
    // False once the process has ended (it is reaped then).
    bool running();
    // SIGTERM to the group, SIGKILL after a grace period, then reaped. Idempotent.
    void stop();
    pid_t pid() const { return pid_; }

  private:
    pid_t pid_ = -1;
    int pidFd_ = -1;
};

// Readiness probes: each succeeds once the server on 127.0.0.1:`port` has answered a request (any
// answer), and fails when SERVER_START_DEADLINE passes, a stop signal arrives or `process` ends
// first.
[[nodiscard]] XCode PROBE_TFTP(unsigned int port, ServerProcess& process);
[[nodiscard]] XCode PROBE_HTTP(unsigned int port, ServerProcess& process);

}  // namespace Provctl
