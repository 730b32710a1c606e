#pragma once

#include <string>

#include "support/WebServer.h"

namespace provtest {

// Apache httpd (prefork) serving one document root over HTTP and, in a virtual host, HTTPS with
// Certificates::get()'s server chain. Apache binds its ports itself: they are chosen free at
// start() and known from then on. Run as root, its children serve as www-data.
//
// A redirect's target may name "{port}", replaced by the HTTP port when Apache starts. mod_alias
// and mod_rewrite turn every target into an absolute URL; a redirect whose target is a path is
// answered by a small CGI program instead, as an application behind Apache would answer it.
class ApacheServer : public WebServer {
  public:
    explicit ApacheServer(WebSite site = {});

    [[nodiscard]] ::testing::AssertionResult start() override;

    WebSite& site() { return site_; }
    unsigned int httpsPort() const { return httpsPort_; }
    // "https://127.0.0.1:<https port><path>".
    std::string httpsUrl(const std::string& path) const;
    // "Server version: Apache/2.4.x (Debian)"
    static std::string version();

  private:
    ::testing::AssertionResult launch(const std::vector<unsigned int>& ports);
    std::string makeConfig() const;
    std::string authRules() const;
    std::string redirectRules() const;
    std::string tlsHost() const;
    std::string configPath() const { return dir_.file("httpd.conf"); }

    WebSite site_;
    unsigned int httpsPort_ = 0;
};

}  // namespace provtest
