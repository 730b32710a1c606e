#pragma once

#include <gtest/gtest.h>

#include <string>

#include "support/Process.h"
#include "support/TempDir.h"

namespace provtest {

// dnsmasq as a read-only TFTP server (DNS and DHCP off) serving a fresh temporary directory on
// 127.0.0.1. Its TFTP server listens on port 69 and nowhere else, so a test process that starts
// it first calls enterOwnNetworkNamespace(): there port 69 is free, and nothing else on the host
// sees the server. It answers a write request with the error "unsupported request".
class DnsmasqTftpServer {
  public:
    static constexpr unsigned int PORT = 69;

    DnsmasqTftpServer();
    ~DnsmasqTftpServer();
    DnsmasqTftpServer(const DnsmasqTftpServer&) = delete;
    DnsmasqTftpServer& operator=(const DnsmasqTftpServer&) = delete;

    // Starts dnsmasq and returns once its TFTP server has answered a read request.
    [[nodiscard]] ::testing::AssertionResult start();
    void stop();

    const std::string& root() const { return root_; }
    // Writes a file into the served directory (parents created).
    void put(const std::string& name, const std::string& content) const;
    bool exists(const std::string& name) const;
    // dnsmasq's log (standard error).
    std::string log() const;
    // "Dnsmasq version 2.90  Copyright (c) 2000-2024 Simon Kelley"
    static std::string version();

  private:
    std::string configPath() const { return dir_.file("dnsmasq.conf"); }

    TempDir dir_{"prov-dnsmasq"};
    std::string root_;
    ServerProcess process_;
};

// Moves this process into a network namespace of its own with its loopback interface up. Call
// it before the process has started any thread: a thread started earlier stays outside. Needs
// the right to make namespaces (root).
::testing::AssertionResult enterOwnNetworkNamespace();

}  // namespace provtest
