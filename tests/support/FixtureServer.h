#pragma once

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "support/Process.h"
#include "support/TempDir.h"

namespace provtest {

// One scripted answer of the fixture server (fixture_server.py documents the fields).
struct FixtureResponse {
    int status = 200;
    std::string reason;  // empty: the usual phrase for the status
    std::vector<std::pair<std::string, std::string>> headers;  // "{port}" becomes the port
    std::string body;
    // "respond", "hang" (never answer), "close" (close without an answer), "truncate" (close
    // after half of the body), "slow" (body in chunkSize pieces, delayMs apart).
    std::string action = "respond";
    int contentLength = -2;  // -2: the body's length; -1: no Content-Length header
    int chunkSize = 1;
    int delayMs = 100;
    bool close = false;  // "Connection: close" and close after the answer

    static FixtureResponse ok(std::string body);
    static FixtureResponse withStatus(int code, std::string body = "");
    // `code` with "Location: <location>".
    static FixtureResponse redirect(int code, std::string location);
    // 401 with "WWW-Authenticate: <challenge>" as given, e.g. "Basic realm=dev" or "Basic".
    static FixtureResponse challenge(std::string challenge);
    static FixtureResponse hang();
    static FixtureResponse closeWithoutAnswer();
    static FixtureResponse truncated(std::string body);
    static FixtureResponse slow(std::string body, int chunkSize, int delayMs);
};

// A request as the fixture server received it.
struct RecordedRequest {
    std::string method;
    std::string path;  // as sent, query included
    std::string version;
    std::vector<std::pair<std::string, std::string>> headers;
    std::string body;

    // The value of the first header of that name (case ignored), or "".
    std::string header(const std::string& name) const;
    bool hasHeader(const std::string& name) const;
};

// The tests' own HTTP/1.1 server (tests/support/fixture_server.py under /usr/bin/python3) for
// answers a production server will not give on demand. It binds port 0 and reports the port when
// it listens. Routes may be set before or after start(); the server reads them at every request.
// Connections are served concurrently.
class FixtureServer {
  public:
    FixtureServer();
    ~FixtureServer();

    // The answers for `path`, given in turn; the last repeats. Setting a path again starts it
    // over. The path is matched with its query first, then without.
    void route(const std::string& path, std::vector<FixtureResponse> responses);

    [[nodiscard]] ::testing::AssertionResult start();
    void stop();
    bool running() const { return process_.running(); }

    unsigned int port() const { return port_; }
    std::string url(const std::string& path) const;
    // Every request received so far, in arrival order. A request is recorded before it is
    // answered, so a client that got its answer finds its request here.
    std::vector<RecordedRequest> requests() const;
    // The requests for `path` (query included, as sent).
    std::vector<RecordedRequest> requestsFor(const std::string& path) const;
    // The server's standard error (its access log and any traceback).
    std::string log() const;

  private:
    void writeRoutes() const;

    TempDir dir_{"prov-fixture"};
    std::vector<std::pair<std::string, std::vector<FixtureResponse>>> routes_;
    unsigned int port_ = 0;
    ServerProcess process_;
};

// "user:password" from a Basic Authorization header value (as a request recorded it), or ""
// when it is not one.
std::string decodeBasic(const std::string& header);

}  // namespace provtest
