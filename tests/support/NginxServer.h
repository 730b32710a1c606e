#pragma once

#include <string>

#include "support/WebServer.h"

namespace provtest {

// nginx serving one document root over HTTP and HTTPS (Certificates::get()'s server chain) from
// one master process with one worker. Both listening sockets are made at construction and handed
// over the way nginx hands them to its own new binary (the NGINX environment variable), so the
// ports are known before start() and no other process can take them.
//
// nginx-light has Basic authentication only: a site with a Digest zone does not start.
class NginxServer : public WebServer {
  public:
    explicit NginxServer(WebSite site = {});

    [[nodiscard]] ::testing::AssertionResult start() override;

    WebSite& site() { return site_; }
    unsigned int httpsPort() const { return httpsSocket_.port(); }
    // "https://127.0.0.1:<https port><path>".
    std::string httpsUrl(const std::string& path) const;
    // "nginx version: nginx/1.22.1"
    static std::string version();

  private:
    std::string makeConfig(std::string& error) const;
    std::string siteRules(bool https, std::string& error) const;
    std::string configPath() const { return dir_.file("nginx.conf"); }

    WebSite site_;
    LoopbackSocket httpSocket_;
    LoopbackSocket httpsSocket_;
};

}  // namespace provtest
