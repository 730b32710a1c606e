#pragma once

#include <gtest/gtest.h>

#include <string>

#include "support/Process.h"
#include "support/TempDir.h"

namespace provtest {

// tftpd-hpa serving a fresh temporary directory on 127.0.0.1 (or ::1). The UDP socket is bound
// here, on a port the kernel chose, and handed to the daemon as its inetd socket, so port() is
// valid from construction on. The daemon runs as root in secure mode (chrooted into root()),
// permissive (no world-readable checks), and by default accepts uploads of new files.
class TftpServer {
  public:
    struct Options {
        // --create: an upload may create a file that does not exist yet.
        bool allowCreate = true;
        // Serve on ::1 instead of 127.0.0.1.
        bool ipv6 = false;
    };

    TftpServer();
    explicit TftpServer(Options options);
    ~TftpServer();

    // Starts the daemon and returns once it has answered a read request.
    [[nodiscard]] ::testing::AssertionResult start();
    void stop();
    bool running() const { return process_.running(); }

    unsigned int port() const { return port_; }
    // "127.0.0.1", or "[::1]" when serving on ::1: the host as a location writes it.
    std::string host() const { return options_.ipv6 ? "[::1]" : "127.0.0.1"; }
    // The served directory.
    const std::string& root() const { return root_; }
    // Writes a file into the served directory (parents created).
    void put(const std::string& name, const std::string& content) const;
    std::string read(const std::string& name) const;
    // An uploaded file, read once it holds `size` bytes (see readUpload).
    std::string received(const std::string& name, std::size_t size) const;
    bool exists(const std::string& name) const;
    // The daemon's standard error.
    std::string log() const;

  private:
    Options options_;
    TempDir dir_{"prov-tftp"};
    std::string root_;
    LoopbackSocket socket_;
    unsigned int port_ = 0;
    ServerProcess process_;
};

// An uploaded file once it holds `size` bytes, or as it is after DEFAULT_DEADLINE; empty when it
// does not exist. tftpd-hpa acknowledges the last block before it closes the file, and only the
// close writes out its buffered bytes: the client can be through while the file is still short.
std::string readUpload(const std::string& path, std::size_t size);

// Sends a read request for `name` to 127.0.0.1:port (::1 when `ipv6`) and waits for the first
// packet that comes back (DATA or ERROR), resending the request every 200 ms until the deadline.
// The packet is returned in `reply`.
::testing::AssertionResult tftpProbe(unsigned int port, const std::string& name, std::string& reply,
                                     const ServerProcess* process,
                                     std::chrono::milliseconds timeout = DEFAULT_DEADLINE,
                                     bool ipv6 = false);

}  // namespace provtest
