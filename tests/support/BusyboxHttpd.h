#pragma once

#include <string>
#include <vector>

#include "support/WebServer.h"

namespace provtest {

// BusyBox's httpd serving one document root over plain HTTP (it has no TLS). It binds its port
// itself: the port is chosen free at start() and known from then on.
//
// What it can be asked for: Basic authentication of path prefixes, all in the one realm that the
// server announces, and prefixes that it answers 403 (a "D:*" configuration file in that
// directory). It has no Digest authentication and no redirects of its own: it only sends a
// folder asked for without its trailing slash there, with 302 and a relative Location.
class BusyboxHttpd : public WebServer {
  public:
    struct Options {
        std::string realm = "busybox";
        // Users of the realm, each for a path prefix.
        std::vector<HttpServer::AuthZone> auth;
        std::vector<std::string> forbidden;
    };

    BusyboxHttpd();
    explicit BusyboxHttpd(Options options);

    [[nodiscard]] ::testing::AssertionResult start() override;

    Options& options() { return options_; }
    // "BusyBox v1.35.0 (...) multi-call binary."
    static std::string version();

  private:
    ::testing::AssertionResult launch(unsigned int port);
    std::string configPath() const { return dir_.file("httpd.conf"); }

    Options options_;
};

}  // namespace provtest
