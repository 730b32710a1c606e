#include "support/FixtureServer.h"

#include <stdio.h>

#include <cctype>
#include <fstream>
#include <nlohmann/json.hpp>

namespace provtest {

namespace {

const char* const PYTHON = "/usr/bin/python3";

bool equalsIgnoringCase(const std::string& a, const std::string& b) {
    if (a.size() != b.size()) {
        return false;
    }
    for (std::size_t i = 0; i < a.size(); ++i) {
        if (std::tolower(static_cast<unsigned char>(a[i])) !=
            std::tolower(static_cast<unsigned char>(b[i]))) {
            return false;
        }
    }
    return true;
}

nlohmann::json toJson(const FixtureResponse& response) {
    nlohmann::json headers = nlohmann::json::array();
    for (const auto& header : response.headers) {
        headers.push_back({header.first, header.second});
    }
    nlohmann::json result = {{"status", response.status},       {"headers", headers},
                             {"body", response.body},           {"action", response.action},
                             {"chunkSize", response.chunkSize}, {"delayMs", response.delayMs},
                             {"close", response.close}};
    if (!response.reason.empty()) {
        result["reason"] = response.reason;
    }
    if (response.contentLength != -2) {
        result["contentLength"] = response.contentLength;
    }
    return result;
}

}  // namespace

FixtureResponse FixtureResponse::ok(std::string body) {
    FixtureResponse response;
    response.body = std::move(body);
    return response;
}

FixtureResponse FixtureResponse::withStatus(int code, std::string body) {
    FixtureResponse response;
    response.status = code;
    response.body = std::move(body);
    return response;
}

FixtureResponse FixtureResponse::redirect(int code, std::string location) {
    FixtureResponse response;
    response.status = code;
    response.headers.emplace_back("Location", std::move(location));
    return response;
}

FixtureResponse FixtureResponse::challenge(std::string challenge) {
    FixtureResponse response;
    response.status = 401;
    response.headers.emplace_back("WWW-Authenticate", std::move(challenge));
    response.body = "authentication required\n";
    return response;
}

FixtureResponse FixtureResponse::hang() {
    FixtureResponse response;
    response.action = "hang";
    return response;
}

FixtureResponse FixtureResponse::closeWithoutAnswer() {
    FixtureResponse response;
    response.action = "close";
    return response;
}

FixtureResponse FixtureResponse::truncated(std::string body) {
    FixtureResponse response;
    response.action = "truncate";
    response.body = std::move(body);
    return response;
}

FixtureResponse FixtureResponse::slow(std::string body, int chunkSize, int delayMs) {
    FixtureResponse response;
    response.action = "slow";
    response.body = std::move(body);
    response.chunkSize = chunkSize;
    response.delayMs = delayMs;
    return response;
}

std::string RecordedRequest::header(const std::string& name) const {
    for (const auto& entry : headers) {
        if (equalsIgnoringCase(entry.first, name)) {
            return entry.second;
        }
    }
    return "";
}

bool RecordedRequest::hasHeader(const std::string& name) const {
    for (const auto& entry : headers) {
        if (equalsIgnoringCase(entry.first, name)) {
            return true;
        }
    }
    return false;
}

FixtureServer::FixtureServer() {
    writeRoutes();
}

FixtureServer::~FixtureServer() {
    stop();
}

void FixtureServer::route(const std::string& path, std::vector<FixtureResponse> responses) {
    bool replaced = false;
    for (auto& entry : routes_) {
        if (entry.first == path) {
            entry.second = std::move(responses);
            replaced = true;
            break;
        }
    }
    if (!replaced) {
        routes_.emplace_back(path, std::move(responses));
    }
    writeRoutes();
}

void FixtureServer::writeRoutes() const {
    nlohmann::json routes = nlohmann::json::object();
    for (const auto& entry : routes_) {
        nlohmann::json list = nlohmann::json::array();
        for (const FixtureResponse& response : entry.second) {
            list.push_back(toJson(response));
        }
        routes[entry.first] = list;
    }
    // Replaced in one rename: the server may be reading the file right now.
    std::string temporary = dir_.file("routes.json.new");
    writeFile(temporary, routes.dump(2));
    if (::rename(temporary.c_str(), dir_.file("routes.json").c_str()) != 0) {
        ADD_FAILURE() << "cannot replace " << dir_.file("routes.json");
    }
}

::testing::AssertionResult FixtureServer::start() {
    SpawnSpec spec;
    spec.argv = {PYTHON,
                 "-I",
                 "-u",
                 std::string(PROV_SOURCE_DIR) + "/tests/support/fixture_server.py",
                 dir_.file("routes.json"),
                 dir_.file("requests.jsonl")};
    spec.env = {"LC_ALL=C.UTF-8"};
    spec.logPath = dir_.file("server.log");
    spec.captureStdout = true;
    ::testing::AssertionResult started = process_.spawn(spec);
    if (!started) {
        return started;
    }
    std::string line;
    if (!process_.readLine(line) || line.empty() ||
        line.find_first_not_of("0123456789") != std::string::npos) {
        process_.stop();
        return ::testing::AssertionFailure() << "fixture server did not report its port ("
                                             << process_.describeExit() << "): " << log();
    }
    port_ = static_cast<unsigned int>(std::stoul(line));
    return ::testing::AssertionSuccess();
}

void FixtureServer::stop() {
    process_.stop();
}

std::string FixtureServer::url(const std::string& path) const {
    std::string result = "http://127.0.0.1:" + std::to_string(port_);
    if (!path.empty() && path.front() != '/') {
        result += "/";
    }
    return result + path;
}

std::vector<RecordedRequest> FixtureServer::requests() const {
    std::vector<RecordedRequest> result;
    std::ifstream in(dir_.file("requests.jsonl"));
    std::string line;
    while (std::getline(in, line)) {
        nlohmann::json entry = nlohmann::json::parse(line, nullptr, false);
        if (entry.is_discarded()) {
            continue;  // a line still being written
        }
        RecordedRequest request;
        request.method = entry.value("method", "");
        request.path = entry.value("path", "");
        request.version = entry.value("version", "");
        request.body = entry.value("body", "");
        for (const auto& header : entry["headers"]) {
            request.headers.emplace_back(header[0].get<std::string>(),
                                         header[1].get<std::string>());
        }
        result.push_back(std::move(request));
    }
    return result;
}

std::vector<RecordedRequest> FixtureServer::requestsFor(const std::string& path) const {
    std::vector<RecordedRequest> result;
    for (RecordedRequest& request : requests()) {
        if (request.path == path) {
            result.push_back(std::move(request));
        }
    }
    return result;
}

std::string FixtureServer::log() const {
    std::string path = dir_.file("server.log");
    return fileExists(path) ? readFile(path) : "";
}

std::string decodeBasic(const std::string& header) {
    const std::string prefix = "Basic ";
    if (header.compare(0, prefix.size(), prefix) != 0) {
        return "";
    }
    static const std::string ALPHABET =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string decoded;
    unsigned int bits = 0;
    int count = 0;
    for (std::size_t i = prefix.size(); i < header.size() && header[i] != '='; ++i) {
        std::size_t value = ALPHABET.find(header[i]);
        if (value == std::string::npos) {
            return "";
        }
        bits = (bits << 6) | static_cast<unsigned int>(value);
        count += 6;
        if (count >= 8) {
            count -= 8;
            decoded.push_back(static_cast<char>((bits >> count) & 0xFF));
        }
    }
    return decoded;
}

}  // namespace provtest
