#include "InteropServers.h"

#include <functional>

#include "InteropCells.h"

namespace interop {

namespace {

using Put = std::function<void(const std::string& path, const std::string& content)>;
using Link =
    std::function<::testing::AssertionResult(const std::string& path, const std::string& file)>;

// The site's files, the same on every server. A missing firmware archive fails the large-file
// cell, not the server.
::testing::AssertionResult publish(const Put& put, const Link& link) {
    for (const std::string& path :
         {site::FILE, site::BASIC, site::DIGEST, site::DEVICE, site::FORBIDDEN}) {
        put(path, CONFIG);
    }
    put("/folder/index.html", CONFIG);
    const LargeFirmware& firmware = LargeFirmware::get();
    return firmware.ok() ? link(site::LARGE, firmware.archive) : ::testing::AssertionSuccess();
}

template <typename Server>
::testing::AssertionResult publishOn(Server& server) {
    return publish([&server](const std::string& path,
                             const std::string& content) { server.put(path, content); },
                   [&server](const std::string& path, const std::string& file) {
                       return provtest::linkFile(file, server.docroot() + path);
                   });
}

::testing::AssertionResult publishIn(const std::string& root) {
    return publish(
        [&root](const std::string& path, const std::string& content) {
            provtest::writeFile(root + path, content);
        },
        [&root](const std::string& path, const std::string& file) {
            return provtest::linkFile(file, root + path);
        });
}

provtest::HttpServer::AuthZone basicZone() {
    return {"/auth/basic/", site::BASIC_REALM, provtest::HttpServer::Scheme::Basic, site::USER,
            site::PASSWORD};
}

provtest::HttpServer::AuthZone digestZone() {
    return {"/auth/digest/", site::DIGEST_REALM, provtest::HttpServer::Scheme::Digest, site::USER,
            site::PASSWORD};
}

std::vector<provtest::HttpServer::Redirect> redirects(const std::string& absoluteTarget) {
    return {{redirectPath(HttpScenario::MovedAbsolute), absoluteTarget, 301},
            {redirectPath(HttpScenario::MovedRelative), site::FILE, 301},
            {redirectPath(HttpScenario::FoundAbsolute), absoluteTarget, 302},
            {redirectPath(HttpScenario::FoundRelative), site::FILE, 302}};
}

provtest::WebSite fullSite(const std::string& absoluteTarget, bool digest) {
    provtest::WebSite site;
    site.auth = {basicZone()};
    if (digest) {
        site.auth.push_back(digestZone());
    }
    site.redirects = redirects(absoluteTarget);
    site.forbidden = {"/forbidden/"};
    site.clientCertPaths = {"/device/"};
    return site;
}

const char* const NO_TLS = "no TLS";

// lighttpd: one server for HTTP and one for HTTPS, the tests' own HttpServer.
class Lighttpd : public HttpKind {
  public:
    std::string name() const override { return "lighttpd"; }
    std::string version() const override {
        return provtest::WebServer::firstLineOf({"/usr/sbin/lighttpd", "-v"});
    }
    ::testing::AssertionResult start() override {
        plain_.options().auth = {basicZone(), digestZone()};
        plain_.options().redirects = redirects(plain_.url(site::FILE));
        plain_.options().forbidden = {"/forbidden/"};
        tls_.options().https = true;
        tls_.options().clientCertPaths = {"/device/"};
        for (provtest::HttpServer* server : {&plain_, &tls_}) {
            ::testing::AssertionResult published = publishOn(*server);
            if (!published) {
                return published;
            }
            ::testing::AssertionResult started = server->start();
            if (!started) {
                return started;
            }
        }
        return ::testing::AssertionSuccess();
    }
    std::string url(const std::string& path) const override { return plain_.url(path); }
    std::string httpsUrl(const std::string& path) const override { return tls_.url(path); }

  private:
    provtest::HttpServer plain_;
    provtest::HttpServer tls_;
};

class Nginx : public HttpKind {
  public:
    std::string name() const override { return "nginx"; }
    std::string version() const override { return provtest::NginxServer::version(); }
    std::string cannot(HttpScenario scenario) const override {
        return scenario == HttpScenario::Digest
                   ? "nginx-light has Basic authentication only (no Digest module)"
                   : "";
    }
    ::testing::AssertionResult start() override {
        server_.site() = fullSite(server_.url(site::FILE), false);
        ::testing::AssertionResult published = publishOn(server_);
        return published ? server_.start() : published;
    }
    std::string url(const std::string& path) const override { return server_.url(path); }
    std::string httpsUrl(const std::string& path) const override { return server_.httpsUrl(path); }

  private:
    provtest::NginxServer server_;
};

class Apache : public HttpKind {
  public:
    std::string name() const override { return "Apache httpd"; }
    std::string version() const override { return provtest::ApacheServer::version(); }
    ::testing::AssertionResult start() override {
        server_.site() = fullSite("http://127.0.0.1:{port}" + site::FILE, true);
        ::testing::AssertionResult published = publishOn(server_);
        return published ? server_.start() : published;
    }
    std::string url(const std::string& path) const override { return server_.url(path); }
    std::string httpsUrl(const std::string& path) const override { return server_.httpsUrl(path); }

  private:
    provtest::ApacheServer server_;
};

class Python : public HttpKind {
  public:
    std::string name() const override { return "python3 -m http.server"; }
    std::string version() const override { return provtest::PythonHttpServer::version(); }
    std::string cannot(HttpScenario scenario) const override {
        switch (scenario) {
            case HttpScenario::MovedAbsolute:
                return "its only redirect (a folder without its trailing slash) sends a relative "
                       "Location";
            case HttpScenario::FoundAbsolute:
            case HttpScenario::FoundRelative:
                return "never answers 302: its only redirect is a 301";
            case HttpScenario::Basic:
            case HttpScenario::Digest:
                return "the stock handler has no authentication";
            case HttpScenario::HttpsPrivateCa:
            case HttpScenario::HttpsClientCertificate:
                return "the stock handler has no TLS";
            case HttpScenario::Forbidden:
                return "answers a file it cannot read with 404 \"File not found\", never 403";
            default:
                return "";
        }
    }
    ::testing::AssertionResult start() override {
        ::testing::AssertionResult published = publishOn(server_);
        return published ? server_.start() : published;
    }
    std::string url(const std::string& path) const override { return server_.url(path); }
    bool redirectsOnlyFolders() const override { return true; }

  private:
    provtest::PythonHttpServer server_;
};

class Busybox : public HttpKind {
  public:
    std::string name() const override { return "BusyBox httpd"; }
    std::string version() const override { return provtest::BusyboxHttpd::version(); }
    std::string cannot(HttpScenario scenario) const override {
        switch (scenario) {
            case HttpScenario::MovedAbsolute:
            case HttpScenario::MovedRelative:
                return "never answers 301: its only redirect (a folder without its trailing "
                       "slash) is a 302";
            case HttpScenario::FoundAbsolute:
                return "its only redirect sends a relative Location";
            case HttpScenario::Digest:
                return "Basic authentication only";
            case HttpScenario::HttpsPrivateCa:
            case HttpScenario::HttpsClientCertificate:
                return NO_TLS;
            default:
                return "";
        }
    }
    ::testing::AssertionResult start() override {
        server_.options().realm = site::BASIC_REALM;
        server_.options().auth = {basicZone()};
        server_.options().forbidden = {"/forbidden/"};
        ::testing::AssertionResult published = publishOn(server_);
        return published ? server_.start() : published;
    }
    std::string url(const std::string& path) const override { return server_.url(path); }
    bool redirectsOnlyFolders() const override { return true; }

  private:
    provtest::BusyboxHttpd server_;
};

class TftpdHpa : public TftpKind {
  public:
    std::string name() const override { return "tftpd-hpa"; }
    std::string version() const override {
        return provtest::WebServer::firstLineOf({"/usr/sbin/in.tftpd", "-V"});
    }
    ::testing::AssertionResult start() override {
        provtest::makeDirs(server_.root() + "/uploads");
        ::testing::AssertionResult published = publishIn(server_.root());
        return published ? server_.start() : published;
    }
    std::string location(const std::string& path) const override {
        return "tftp://127.0.0.1:" + std::to_string(server_.port()) + path;
    }
    std::string root() const override { return server_.root(); }

  private:
    provtest::TftpServer server_;
};

class Dnsmasq : public TftpKind {
  public:
    explicit Dnsmasq(std::string networkError) : networkError_(std::move(networkError)) {}
    std::string name() const override { return "dnsmasq"; }
    std::string version() const override { return provtest::DnsmasqTftpServer::version(); }
    ::testing::AssertionResult start() override {
        if (!networkError_.empty()) {
            return ::testing::AssertionFailure()
                   << "no network namespace of its own for port 69: " << networkError_;
        }
        ::testing::AssertionResult published = publishIn(server_.root());
        return published ? server_.start() : published;
    }
    // No port: the device's tftp goes to port 69 by default.
    std::string location(const std::string& path) const override {
        return "tftp://127.0.0.1" + path;
    }
    std::string root() const override { return server_.root(); }
    std::string uploadRefusal() const override { return "(4) unsupported request"; }

  private:
    std::string networkError_;
    provtest::DnsmasqTftpServer server_;
};

}  // namespace

std::string redirectPath(HttpScenario scenario) {
    switch (scenario) {
        case HttpScenario::MovedAbsolute:
            return "/moved/permanently-absolute";
        case HttpScenario::MovedRelative:
            return "/moved/permanently-relative";
        case HttpScenario::FoundAbsolute:
            return "/moved/found-absolute";
        default:
            return "/moved/found-relative";
    }
}

std::unique_ptr<HttpKind> makeLighttpd() {
    return std::make_unique<Lighttpd>();
}
std::unique_ptr<HttpKind> makeNginx() {
    return std::make_unique<Nginx>();
}
std::unique_ptr<HttpKind> makeApache() {
    return std::make_unique<Apache>();
}
std::unique_ptr<HttpKind> makePython() {
    return std::make_unique<Python>();
}
std::unique_ptr<HttpKind> makeBusybox() {
    return std::make_unique<Busybox>();
}
std::unique_ptr<TftpKind> makeTftpdHpa() {
    return std::make_unique<TftpdHpa>();
}
std::unique_ptr<TftpKind> makeDnsmasq(const std::string& networkError) {
    return std::make_unique<Dnsmasq>(networkError);
}

}  // namespace interop
