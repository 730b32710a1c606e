#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/Process.h"
#include "support/TempDir.h"

namespace provtest {

// lighttpd on 127.0.0.1 (or ::1) with a generated configuration, serving a fresh document root. The
// listening socket is made at construction (port() and url() are valid from then on, so that
// redirects can name the server itself) and handed to lighttpd by socket activation.
//
//   HttpServer server;
//   server.options().auth.push_back({"/secure/", "dev", HttpServer::Scheme::Digest, "u", "p"});
//   server.options().redirects.push_back({"/old", server.url("/new"), 301});
//   server.put("/secure/cfg.txt", "...");
//   ASSERT_TRUE(server.start());
class HttpServer {
  public:
    enum class Scheme { Basic, Digest };

    // Requests under `path` (a prefix such as "/secure/") need the user and password of the
    // realm, asked for with the scheme. Several zones may share a path to admit several users;
    // the first one's realm and scheme count.
    struct AuthZone {
        std::string path;
        std::string realm;
        Scheme scheme = Scheme::Basic;
        std::string user;
        std::string password;
    };

    // A request for exactly `from` (the path, without query) is answered with `code` (301, 302,
    // ...) and "Location: <to>", `to` sent as it stands: absolute or relative. `$` and `%`
    // followed by a digit or `{` are lighttpd substitutions; avoid them.
    struct Redirect {
        std::string from;
        std::string to;
        int code = 302;
    };

    struct Options {
        // Serve HTTPS with Certificates::get()'s server chain instead of HTTP.
        bool https = false;
        std::vector<AuthZone> auth;
        std::vector<Redirect> redirects;
        // HTTPS only: requests under these prefixes need a client certificate issued by the
        // client CA (others get 401 without a challenge); the rest of the server needs none.
        std::vector<std::string> clientCertPaths;
        // HTTPS only: the TLS handshake itself fails without such a client certificate.
        bool requireClientCert = false;
        // Requests under these prefixes are answered 403.
        std::vector<std::string> forbidden;
        // Listen on ::1 instead of 127.0.0.1; read at construction, when the socket is made.
        bool ipv6 = false;
    };

    HttpServer();
    explicit HttpServer(Options options);
    ~HttpServer();

    // Changes take effect at start().
    Options& options() { return options_; }

    // Writes the configuration, starts lighttpd and returns once it has answered a request.
    [[nodiscard]] ::testing::AssertionResult start();
    void stop();
    bool running() const { return process_.running(); }

    unsigned int port() const { return port_; }
    // "http://127.0.0.1:<port><path>" ("https://..." when serving HTTPS, "[::1]" on ::1).
    std::string url(const std::string& path) const;
    // Writes a file under the document root (parents created), e.g. put("/cfg/a.txt", "...").
    void put(const std::string& path, const std::string& content) const;
    const std::string& docroot() const { return docroot_; }
    // lighttpd's error log.
    std::string log() const;
    // The generated configuration.
    std::string configPath() const { return dir_.file("lighttpd.conf"); }

  private:
    std::string makeConfig(std::string& error) const;

    Options options_;
    TempDir dir_{"prov-http"};
    std::string docroot_;
    LoopbackSocket socket_;
    unsigned int port_ = 0;
    ServerProcess process_;
};

// A user line of an htdigest file (lighttpd, Apache): "user:realm:" followed by the hex MD5 of
// "user:realm:password", without the line end.
std::string htdigestLine(const std::string& user, const std::string& realm,
                         const std::string& password);

}  // namespace provtest
