#pragma once

#include <string>

#include "support/WebServer.h"

namespace provtest {

// `python3 -m http.server`, the standard library's stock handler, untouched, serving one
// document root over plain HTTP. It binds port 0 and says which port it got; port() is known
// after start().
//
// The stock handler has no authentication, no TLS and no redirects of its own: it only sends a
// folder asked for without its trailing slash there, with 301 and a relative Location. A file it
// cannot read is "404 File not found", never 403.
class PythonHttpServer : public WebServer {
  public:
    PythonHttpServer();

    [[nodiscard]] ::testing::AssertionResult start() override;

    // "Python 3.11.2"
    static std::string version();
};

}  // namespace provtest
