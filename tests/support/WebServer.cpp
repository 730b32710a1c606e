#include "support/WebServer.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace provtest {

namespace {

// Attempts at a start on free ports; only a lost port makes another one.
constexpr int FREE_PORT_ATTEMPTS = 3;

std::string parentOf(const std::string& path) {
    std::size_t slash = path.rfind('/');
    return slash == std::string::npos ? std::string(".") : path.substr(0, slash);
}

std::string trimmed(const std::string& text) {
    const char* blanks = " \t\r\n";
    std::size_t first = text.find_first_not_of(blanks);
    if (first == std::string::npos) {
        return "";
    }
    return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

}  // namespace

WebServer::WebServer(const std::string& prefix) : dir_(prefix), docroot_(dir_.file("docroot")) {
    makeDirs(docroot_);
}

WebServer::~WebServer() {
    stop();
}

void WebServer::stop() {
    if (process_) {
        process_->stop();
    }
}

void WebServer::openToWorkers() const {
    ::chmod(dir_.path().c_str(), 0755);
}

ServerProcess& WebServer::freshProcess() {
    process_.reset();
    return process_.emplace();
}

::testing::AssertionResult WebServer::spawn(SpawnSpec spec) {
    spec.logPath = logPath();
    return freshProcess().spawn(spec);
}

::testing::AssertionResult WebServer::didNotStart(const std::string& name,
                                                  const ::testing::AssertionResult& why) {
    stop();
    std::string ended = process_ ? process_->describeExit() : "not started";
    return ::testing::AssertionFailure()
           << name << " did not come up (" << why.message() << ", " << ended << "): " << log();
}

std::string WebServer::url(const std::string& path) const {
    return "http://127.0.0.1:" + std::to_string(port_) + (path.rfind('/', 0) == 0 ? "" : "/") +
           path;
}

void WebServer::put(const std::string& path, const std::string& content) const {
    writeFile(docroot_ + (path.rfind('/', 0) == 0 ? "" : "/") + path, content);
}

::testing::AssertionResult linkFile(const std::string& existing, const std::string& path) {
    makeDirs(parentOf(path));
    ::unlink(path.c_str());
    if (::link(existing.c_str(), path.c_str()) != 0) {
        return ::testing::AssertionFailure()
               << "link " << existing << " -> " << path << ": " << std::strerror(errno);
    }
    return ::testing::AssertionSuccess();
}

::testing::AssertionResult WebServer::link(const std::string& path, const std::string& file) const {
    return linkFile(file, docroot_ + (path.rfind('/', 0) == 0 ? "" : "/") + path);
}

std::string WebServer::log() const {
    return fileExists(logPath()) ? readFile(logPath()) : "";
}

std::string WebServer::firstLineOf(const std::vector<std::string>& argv) {
    CommandResult result = runCommand(argv);
    return trimmed(result.output.substr(0, result.output.find('\n')));
}

std::string WebServer::htpasswdLine(const std::string& user, const std::string& password) {
    return firstLineOf({"/usr/bin/htpasswd", "-nb", user, password});
}

::testing::AssertionResult WebServer::startOnFreePorts(
    std::size_t count,
    const std::function<::testing::AssertionResult(const std::vector<unsigned int>&)>& launch) {
    ::testing::AssertionResult result = ::testing::AssertionFailure() << "not started";
    for (int attempt = 0; attempt < FREE_PORT_ATTEMPTS; ++attempt) {
        std::vector<unsigned int> ports;
        {
            // All held at once, so that the kernel hands out different ports.
            std::vector<LoopbackSocket> sockets;
            for (std::size_t i = 0; i < count; ++i) {
                sockets.push_back(LoopbackSocket::tcpListener());
                if (!sockets.back().valid()) {
                    return ::testing::AssertionFailure() << "free port: " << sockets.back().error();
                }
                ports.push_back(sockets.back().port());
            }
        }
        std::size_t logBefore = log().size();
        result = launch(ports);
        if (result) {
            return result;
        }
        stop();
        std::string attemptLog = log().substr(logBefore);
        if (attemptLog.find("in use") == std::string::npos) {
            break;
        }
    }
    return result;
}

}  // namespace provtest
