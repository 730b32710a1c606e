#include "support/HttpServer.h"

#include <iomanip>
#include <set>
#include <sstream>

#include "support/Certificates.h"

namespace provtest {

namespace {

const char* const LIGHTTPD = "/usr/sbin/lighttpd";

// The hex MD5 of `text`, for the htdigest user file.
std::string md5Hex(const std::string& text) {
    // RFC 1321, compact; the tests never hash more than a user line.
    static const uint32_t K[64] = {
        0xd76aa478, 0xe8c7b756, 0x242070db, 0xc1bdceee, 0xf57c0faf, 0x4787c62a, 0xa8304613,
        0xfd469501, 0x698098d8, 0x8b44f7af, 0xffff5bb1, 0x895cd7be, 0x6b901122, 0xfd987193,
        0xa679438e, 0x49b40821, 0xf61e2562, 0xc040b340, 0x265e5a51, 0xe9b6c7aa, 0xd62f105d,
        0x02441453, 0xd8a1e681, 0xe7d3fbc8, 0x21e1cde6, 0xc33707d6, 0xf4d50d87, 0x455a14ed,
        0xa9e3e905, 0xfcefa3f8, 0x676f02d9, 0x8d2a4c8a, 0xfffa3942, 0x8771f681, 0x6d9d6122,
        0xfde5380c, 0xa4beea44, 0x4bdecfa9, 0xf6bb4b60, 0xbebfbc70, 0x289b7ec6, 0xeaa127fa,
        0xd4ef3085, 0x04881d05, 0xd9d4d039, 0xe6db99e5, 0x1fa27cf8, 0xc4ac5665, 0xf4292244,
        0x432aff97, 0xab9423a7, 0xfc93a039, 0x655b59c3, 0x8f0ccc92, 0xffeff47d, 0x85845dd1,
        0x6fa87e4f, 0xfe2ce6e0, 0xa3014314, 0x4e0811a1, 0xf7537e82, 0xbd3af235, 0x2ad7d2bb,
        0xeb86d391};
    static const int R[64] = {7, 12, 17, 22, 7, 12, 17, 22, 7, 12, 17, 22, 7, 12, 17, 22,
                              5, 9,  14, 20, 5, 9,  14, 20, 5, 9,  14, 20, 5, 9,  14, 20,
                              4, 11, 16, 23, 4, 11, 16, 23, 4, 11, 16, 23, 4, 11, 16, 23,
                              6, 10, 15, 21, 6, 10, 15, 21, 6, 10, 15, 21, 6, 10, 15, 21};
    std::string message = text;
    uint64_t bits = static_cast<uint64_t>(text.size()) * 8;
    message.push_back(static_cast<char>(0x80));
    while (message.size() % 64 != 56) {
        message.push_back('\0');
    }
    for (int i = 0; i < 8; ++i) {
        message.push_back(static_cast<char>((bits >> (8 * i)) & 0xff));
    }
    uint32_t h[4] = {0x67452301, 0xefcdab89, 0x98badcfe, 0x10325476};
    for (std::size_t chunk = 0; chunk < message.size(); chunk += 64) {
        uint32_t w[16];
        for (int i = 0; i < 16; ++i) {
            const auto* p = reinterpret_cast<const unsigned char*>(message.data() + chunk + 4 * i);
            w[i] = static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
                   static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24;
        }
        uint32_t a = h[0], b = h[1], c = h[2], d = h[3];
        for (int i = 0; i < 64; ++i) {
            uint32_t f;
            int g;
            if (i < 16) {
                f = (b & c) | (~b & d);
                g = i;
            } else if (i < 32) {
                f = (d & b) | (~d & c);
                g = (5 * i + 1) % 16;
            } else if (i < 48) {
                f = b ^ c ^ d;
                g = (3 * i + 5) % 16;
            } else {
                f = c ^ (b | ~d);
                g = (7 * i) % 16;
            }
            uint32_t rotated = a + f + K[i] + w[g];
            a = d;
            d = c;
            c = b;
            b = b + ((rotated << R[i]) | (rotated >> (32 - R[i])));
        }
        h[0] += a;
        h[1] += b;
        h[2] += c;
        h[3] += d;
    }
    std::ostringstream hex;
    for (uint32_t word : h) {
        for (int i = 0; i < 4; ++i) {
            hex << std::hex << std::setw(2) << std::setfill('0') << ((word >> (8 * i)) & 0xff);
        }
    }
    return hex.str();
}

std::string quoted(const std::string& text) {
    return "\"" + text + "\"";
}

}  // namespace

std::string htdigestLine(const std::string& user, const std::string& realm,
                         const std::string& password) {
    return user + ":" + realm + ":" + md5Hex(user + ":" + realm + ":" + password);
}

HttpServer::HttpServer() : HttpServer(Options()) {}

HttpServer::HttpServer(Options options)
    : options_(std::move(options)),
      docroot_(dir_.file("docroot")),
      socket_(LoopbackSocket::tcpListener(options_.ipv6)) {
    makeDirs(docroot_);
    port_ = socket_.port();
}

HttpServer::~HttpServer() {
    stop();
}

std::string HttpServer::url(const std::string& path) const {
    std::string result = std::string(options_.https ? "https://" : "http://") +
                         (options_.ipv6 ? "[::1]:" : "127.0.0.1:") + std::to_string(port_);
    if (!path.empty() && path.front() != '/') {
        result += "/";
    }
    return result + path;
}

void HttpServer::put(const std::string& path, const std::string& content) const {
    writeFile(docroot_ + (!path.empty() && path.front() == '/' ? "" : "/") + path, content);
}

std::string HttpServer::log() const {
    std::string path = dir_.file("server.log");
    return fileExists(path) ? readFile(path) : "";
}

std::string HttpServer::makeConfig(std::string& error) const {
    std::ostringstream conf;
    conf
        << "server.document-root = " << quoted(docroot_) << "\n"
        << "server.bind = \"" << (options_.ipv6 ? "[::1]" : "127.0.0.1") << "\"\n"
        << "server.port = " << port_ << "\n"
        << "server.systemd-socket-activation = \"enable\"\n"
        << "server.modules = (\"mod_access\", \"mod_auth\", \"mod_authn_file\", \"mod_redirect\""
        << (options_.https ? ", \"mod_openssl\"" : "")
        << ")\n"
        // Files change between requests of a test; lighttpd must not serve a cached stat.
        << "server.stat-cache-engine = \"disable\"\n"
        // lighttpd slows down answers to wrong credentials by default; tests want them at once.
        << "server.feature-flags = (\"auth.delay-invalid-creds\" => \"disable\")\n"
        << "mimetype.assign = (\".txt\" => \"text/plain\", \"\" => \"application/octet-stream\")\n";

    std::vector<std::string> rules;
    std::set<std::string> paths;
    if (!options_.auth.empty()) {
        std::string users;
        for (const AuthZone& zone : options_.auth) {
            users += htdigestLine(zone.user, zone.realm, zone.password) + "\n";
            if (paths.insert(zone.path).second) {
                rules.push_back(quoted(zone.path) + " => (\"method\" => " +
                                (zone.scheme == Scheme::Basic ? "\"basic\"" : "\"digest\"") +
                                ", \"realm\" => " + quoted(zone.realm) +
                                ", \"require\" => \"valid-user\")");
            }
        }
        writeFile(dir_.file("users.htdigest"), users);
        conf << "auth.backend = \"htdigest\"\n"
             << "auth.backend.htdigest.userfile = " << quoted(dir_.file("users.htdigest")) << "\n";
    }
    if (options_.https) {
        const Certificates& certificates = Certificates::get();
        if (!certificates.ok()) {
            error = certificates.error();
            return "";
        }
        conf << "ssl.engine = \"enable\"\n"
             << "ssl.pemfile = " << quoted(certificates.serverChain()) << "\n"
             << "ssl.privkey = " << quoted(certificates.serverKey()) << "\n";
        if (options_.requireClientCert || !options_.clientCertPaths.empty()) {
            conf << "ssl.verifyclient.activate = \"enable\"\n"
                 << "ssl.verifyclient.enforce = "
                 << (options_.requireClientCert ? "\"enable\"" : "\"disable\"") << "\n"
                 << "ssl.verifyclient.ca-file = " << quoted(certificates.clientCa()) << "\n"
                 << "ssl.verifyclient.username = \"SSL_CLIENT_S_DN_CN\"\n";
        }
        for (const std::string& path : options_.clientCertPaths) {
            if (paths.insert(path).second) {
                rules.push_back(quoted(path) +
                                " => (\"method\" => \"extern\", \"realm\" => \"certificate\", "
                                "\"require\" => \"valid-user\")");
            }
        }
    } else if (options_.requireClientCert || !options_.clientCertPaths.empty()) {
        error = "client certificates need https";
        return "";
    }
    if (!rules.empty()) {
        conf << "auth.require = (";
        for (std::size_t i = 0; i < rules.size(); ++i) {
            conf << (i == 0 ? "\n    " : ",\n    ") << rules[i];
        }
        conf << "\n)\n";
    }
    for (const std::string& path : options_.forbidden) {
        conf << "$HTTP[\"url\"] =^ " << quoted(path) << " {\n"
             << "    url.access-deny = (\"\")\n"
             << "}\n";
    }
    for (const Redirect& redirect : options_.redirects) {
        conf << "$HTTP[\"url\"] == " << quoted(redirect.from) << " {\n"
             << "    url.redirect = (\"\" => " << quoted(redirect.to) << ")\n"
             << "    url.redirect-code = " << redirect.code << "\n"
             << "}\n";
    }
    return conf.str();
}

::testing::AssertionResult HttpServer::start() {
    if (!socket_.valid()) {
        return ::testing::AssertionFailure() << "http socket: " << socket_.error();
    }
    std::string error;
    std::string config = makeConfig(error);
    if (!error.empty()) {
        return ::testing::AssertionFailure() << error;
    }
    writeFile(configPath(), config);
    SpawnSpec spec;
    spec.argv = {LIGHTTPD, "-D", "-f", configPath()};
    spec.env = {"LISTEN_FDS=1"};
    spec.listenPid = true;
    spec.fds = {{3, socket_.fd()}};
    spec.logPath = dir_.file("server.log");
    ::testing::AssertionResult started = process_.spawn(spec);
    socket_.close();
    if (!started) {
        return started;
    }
    // Plain HTTP gets an answer; an HTTPS server closes the connection on it. Either shows that
    // lighttpd has taken the socket; one that failed to start resets the queued connection.
    ::testing::AssertionResult ready = waitForTcpAnswer(port_, "GET / HTTP/1.0\r\n\r\n", process_,
                                                        DEFAULT_DEADLINE, options_.ipv6);
    if (!ready || !process_.running()) {
        process_.stop();
        return ::testing::AssertionFailure()
               << "lighttpd did not come up (" << ready.message() << ", " << process_.describeExit()
               << "): " << log() << "\nconfiguration:\n"
               << config;
    }
    return ::testing::AssertionSuccess();
}

void HttpServer::stop() {
    process_.stop();
}

}  // namespace provtest
