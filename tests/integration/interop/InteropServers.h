#pragma once

// The servers of the interoperability matrix, each behind one interface: how it is set up to
// serve the same site as every other server of its protocol, where each scenario points, and
// why a scenario does not apply to it.

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "support/ApacheServer.h"
#include "support/BusyboxHttpd.h"
#include "support/DnsmasqTftpServer.h"
#include "support/HttpServer.h"
#include "support/NginxServer.h"
#include "support/PythonHttpServer.h"
#include "support/TftpServer.h"

namespace interop {

enum class HttpScenario {
    Plain,
    MovedAbsolute,
    MovedRelative,
    FoundAbsolute,
    FoundRelative,
    Basic,
    Digest,
    HttpsPrivateCa,
    HttpsClientCertificate,
    NotFound,
    Forbidden,
    LargeFile,
};

enum class TftpScenario { Download, MissingFile, LargeFile, Upload };

// The site every HTTP server serves.
namespace site {
const std::string FILE = "/files/unit.cfg";
const std::string BASIC = "/auth/basic/unit.cfg";
const std::string DIGEST = "/auth/digest/unit.cfg";
const std::string DEVICE = "/device/unit.cfg";
const std::string FORBIDDEN = "/forbidden/unit.cfg";
const std::string MISSING = "/missing/unit.cfg";
const std::string LARGE = "/large/firmware.tar";
// The one redirect of servers without redirects of their own: a folder without its trailing
// slash, sent to the folder, which names no file that a job could download.
const std::string FOLDER = "/folder";
const std::string FOLDER_TARGET = "/folder/";
const std::string BASIC_REALM = "interop-basic";
const std::string DIGEST_REALM = "interop-digest";
const std::string USER = "device-17";
const std::string PASSWORD = "pa55-Word";
}  // namespace site

// The path that answers a redirect scenario on servers that redirect as asked.
std::string redirectPath(HttpScenario scenario);

class HttpKind {
  public:
    virtual ~HttpKind() = default;
    virtual std::string name() const = 0;
    virtual std::string version() const = 0;
    // Empty when the server can do the scenario, else why not.
    virtual std::string cannot(HttpScenario) const { return ""; }
    // Publishes the site and starts the server.
    virtual ::testing::AssertionResult start() = 0;
    virtual std::string url(const std::string& path) const = 0;
    virtual std::string httpsUrl(const std::string& path) const { return url(path); }
    // Where a redirect scenario starts, and where the server sends the job.
    // True for servers whose only redirect sends a folder to its trailing slash: their redirect
    // scenarios start at a folder and end at it.
    virtual bool redirectsOnlyFolders() const { return false; }
    std::string redirectLocation(HttpScenario scenario) const {
        return url(redirectsOnlyFolders() ? site::FOLDER : redirectPath(scenario));
    }
    std::string redirectTarget(HttpScenario) const {
        return url(redirectsOnlyFolders() ? site::FOLDER_TARGET : site::FILE);
    }
};

class TftpKind {
  public:
    virtual ~TftpKind() = default;
    virtual std::string name() const = 0;
    virtual std::string version() const = 0;
    virtual std::string cannot(TftpScenario) const { return ""; }
    virtual ::testing::AssertionResult start() = 0;
    virtual std::string location(const std::string& path) const = 0;
    virtual std::string root() const = 0;
    // The error with which a read-only server refuses an upload, as tftp prints it; empty when
    // the server takes uploads.
    virtual std::string uploadRefusal() const { return ""; }
};

std::unique_ptr<HttpKind> makeLighttpd();
std::unique_ptr<HttpKind> makeNginx();
std::unique_ptr<HttpKind> makeApache();
std::unique_ptr<HttpKind> makePython();
std::unique_ptr<HttpKind> makeBusybox();
std::unique_ptr<TftpKind> makeTftpdHpa();
// `networkError`: why the process has no network namespace of its own (empty when it has one).
std::unique_ptr<TftpKind> makeDnsmasq(const std::string& networkError);

}  // namespace interop
