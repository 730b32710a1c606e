#pragma once

#include <sys/types.h>

#include <chrono>
#include <utility>
#include <vector>

#include "platform/String.h"
#include "platform/XCode.h"

// The demo's own servers on loopback: tftpd-hpa and lighttpd, each started on a socket that this
// process binds on 127.0.0.1 with a port chosen by the kernel and hands over (inetd style for
// tftpd, socket activation for lighttpd), so no other process can take the port in between.
// Everything here runs on the calling thread; one object per server, owned by the demo.
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

// tftpd-hpa serving `root` (secure mode: chrooted there; uploads may create files).
class DemoTftpServer {
  public:
    explicit DemoTftpServer(String root) : root_(std::move(root)) {}
    // Starts the daemon and returns once it has answered a request; `logPath` receives its
    // standard error. Needs root: the daemon chroots into the served directory.
    [[nodiscard]] XCode start(const String& logPath);
    void stop() { process_.stop(); }
    unsigned int port() const { return port_; }
    const String& root() const { return root_; }

  private:
    String root_;
    unsigned int port_ = 0;
    ServerProcess process_;
};

// lighttpd serving `docroot` with one Basic-auth zone and one redirect.
class DemoHttpServer {
  public:
    struct Zone {
        String path;  // prefix, e.g. "/secure/"
        String realm;
        String user;
        String password;
    };
    struct Redirect {
        String from;  // exact path
        String to;    // sent as the Location, as it stands
        int code = 302;
    };

    DemoHttpServer(String directory, String docroot)
        : directory_(std::move(directory)), docroot_(std::move(docroot)) {}

    // Binds the socket: port() is valid from here on, so redirects can name the server itself.
    [[nodiscard]] XCode bind();
    // Writes the configuration and the user file into the directory, starts lighttpd and returns
    // once it has answered a request.
    [[nodiscard]] XCode start(const Zone& zone, const Redirect& redirect);
    void stop() { process_.stop(); }
    unsigned int port() const { return socket_.port(); }
    String url(const String& path) const;
    // The generated lighttpd.conf (for tests and error messages).
    static String CONFIGURATION(const String& docroot, unsigned int port, const String& userFile,
                                const Zone& zone, const Redirect& redirect);

  private:
    String directory_;
    String docroot_;
    LoopbackSocket socket_;
    ServerProcess process_;
};

}  // namespace Provctl
