#include "support/PythonHttpServer.h"

#include <cstdlib>

namespace provtest {

namespace {

const char* const PYTHON = "/usr/bin/python3";

// The port out of "Serving HTTP on 127.0.0.1 port 41234 (http://127.0.0.1:41234/) ...", 0 when
// the line says none.
unsigned int announcedPort(const std::string& line) {
    const std::string marker = " port ";
    std::size_t at = line.find(marker);
    if (at == std::string::npos) {
        return 0;
    }
    unsigned long port = std::strtoul(line.c_str() + at + marker.size(), nullptr, 10);
    return port <= 65535 ? static_cast<unsigned int>(port) : 0;
}

}  // namespace

PythonHttpServer::PythonHttpServer() : WebServer("prov-python-http") {}

std::string PythonHttpServer::version() {
    return firstLineOf({PYTHON, "--version"});
}

::testing::AssertionResult PythonHttpServer::start() {
    SpawnSpec spec;
    spec.argv = {PYTHON, "-m", "http.server", "0", "--bind", "127.0.0.1", "--directory", docroot_};
    // Unbuffered, so that the line naming the port arrives while the server runs; the handler
    // itself stays as it ships.
    spec.env = {"PYTHONUNBUFFERED=1", "LC_ALL=C"};
    spec.captureStdout = true;
    ::testing::AssertionResult started = spawn(spec);
    if (!started) {
        return started;
    }
    std::string line;
    port_ = process_->readLine(line) ? announcedPort(line) : 0;
    if (port_ == 0) {
        return didNotStart("python3 -m http.server", ::testing::AssertionFailure()
                                                         << "no port announced: " << line);
    }
    ::testing::AssertionResult ready = waitForTcpListener(port_, *process_, DEFAULT_DEADLINE);
    if (!ready) {
        return didNotStart("python3 -m http.server", ready);
    }
    return ::testing::AssertionSuccess();
}

}  // namespace provtest
