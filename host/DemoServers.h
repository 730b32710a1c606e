#pragma once

#include <utility>

#include "host/ServerProcess.h"
#include "platform/String.h"
#include "platform/XCode.h"

// The demo's own servers on loopback: tftpd-hpa and lighttpd, each started on a socket that this
// process binds on 127.0.0.1 with a port chosen by the kernel and hands over (inetd style for
// tftpd, socket activation for lighttpd), so no other process can take the port in between.
// Everything here runs on the calling thread; one object per server, owned by the demo.
namespace Provctl {

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
