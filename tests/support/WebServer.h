#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "support/HttpServer.h"
#include "support/Process.h"
#include "support/TempDir.h"

namespace provtest {

// What a site asks of the web servers that serve HTTP and HTTPS side by side from one process
// (nginx, Apache): the same zones and redirects as HttpServer's, and prefixes that are refused.
struct WebSite {
    std::vector<HttpServer::AuthZone> auth;
    std::vector<HttpServer::Redirect> redirects;
    // Requests under these prefixes are answered 403.
    std::vector<std::string> forbidden;
    // HTTPS only: requests under these prefixes need a client certificate issued by the client
    // CA of Certificates::get() (others get 403); the rest of the server needs none.
    std::vector<std::string> clientCertPaths;
};

// Makes `path` a hard link to `existing` (parents created, an older file at `path` replaced): one
// large file served by several servers without a copy each.
[[nodiscard]] ::testing::AssertionResult linkFile(const std::string& existing,
                                                  const std::string& path);

// What the web servers of the interoperability tests share: a temporary directory holding the
// document root, the configuration and the server's log, and one child process that stop() and
// the destructor end. Each server listens on 127.0.0.1 only.
class WebServer {
  public:
    explicit WebServer(const std::string& prefix);
    virtual ~WebServer();
    WebServer(const WebServer&) = delete;
    WebServer& operator=(const WebServer&) = delete;

    // Starts the server and returns once it accepts connections; the log on failure.
    [[nodiscard]] virtual ::testing::AssertionResult start() = 0;
    void stop();
    bool running() const { return process_ && process_->running(); }

    // The plain HTTP port; 0 before start() for servers that are told a free port at start.
    unsigned int port() const { return port_; }
    // "http://127.0.0.1:<port><path>".
    std::string url(const std::string& path) const;
    // Writes a file under the document root (parents created).
    void put(const std::string& path, const std::string& content) const;
    // Makes `path` under the document root a hard link to `file` (see linkFile).
    [[nodiscard]] ::testing::AssertionResult link(const std::string& path,
                                                  const std::string& file) const;
    const std::string& docroot() const { return docroot_; }
    std::string log() const;
    // The first line that `argv` prints (standard output and error together), trimmed.
    static std::string firstLineOf(const std::vector<std::string>& argv);
    // A user line of an htpasswd file (apr1 hash), made with htpasswd.
    static std::string htpasswdLine(const std::string& user, const std::string& password);

  protected:
    std::string logPath() const { return dir_.file("server.log"); }
    // For servers whose workers drop root's rights: the directory (not only its owner) may
    // enter it and read what it holds.
    void openToWorkers() const;
    // A new child process in place of the last one (which is stopped first).
    ServerProcess& freshProcess();
    // Spawns `spec` (standard error into the log) in a fresh child process.
    [[nodiscard]] ::testing::AssertionResult spawn(SpawnSpec spec);
    // Fails with the server's log and how it ended, after stopping it.
    ::testing::AssertionResult didNotStart(const std::string& name,
                                           const ::testing::AssertionResult& why);
    // For servers that can only be told a port number: `count` ports that were free a moment
    // ago. Their sockets are closed before the server starts, so `launch` may lose a port to
    // another process; a launch whose log then says so is tried again with new ports.
    ::testing::AssertionResult startOnFreePorts(
        std::size_t count,
        const std::function<::testing::AssertionResult(const std::vector<unsigned int>&)>& launch);

    TempDir dir_;
    std::string docroot_;
    std::optional<ServerProcess> process_;
    unsigned int port_ = 0;
};

}  // namespace provtest
