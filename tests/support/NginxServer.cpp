#include "support/NginxServer.h"

#include <set>
#include <sstream>

#include "support/Certificates.h"

namespace provtest {

namespace {

const char* const NGINX = "/usr/sbin/nginx";

std::string quoted(const std::string& text) {
    return "\"" + text + "\"";
}

// One htpasswd file per protected prefix; the first zone of a prefix names realm and scheme.
std::string authRules(const WebSite& site, const TempDir& dir, std::string& error) {
    std::ostringstream rules;
    std::set<std::string> done;
    for (const HttpServer::AuthZone& zone : site.auth) {
        if (zone.scheme != HttpServer::Scheme::Basic) {
            error = "nginx has no Digest authentication";
            return "";
        }
        if (!done.insert(zone.path).second) {
            continue;
        }
        std::string users;
        for (const HttpServer::AuthZone& other : site.auth) {
            if (other.path == zone.path) {
                users += WebServer::htpasswdLine(other.user, other.password) + "\n";
            }
        }
        std::string file = dir.file("users-" + std::to_string(done.size()) + ".htpasswd");
        writeFile(file, users);
        rules << "        location ^~ " << zone.path << " {\n"
              << "            auth_basic " << quoted(zone.realm) << ";\n"
              << "            auth_basic_user_file " << quoted(file) << ";\n"
              << "        }\n";
    }
    return rules.str();
}

std::string redirectRules(const WebSite& site) {
    std::ostringstream rules;
    for (const HttpServer::Redirect& redirect : site.redirects) {
        rules << "        location = " << redirect.from << " {\n";
        if (redirect.to.rfind('/', 0) == 0) {
            // Otherwise nginx would put its own scheme, name and port in front.
            rules << "            absolute_redirect off;\n";
        }
        rules << "            return " << redirect.code << " " << quoted(redirect.to) << ";\n"
              << "        }\n";
    }
    return rules.str();
}

}  // namespace

NginxServer::NginxServer(WebSite site)
    : WebServer("prov-nginx"),
      site_(std::move(site)),
      httpSocket_(LoopbackSocket::tcpListener()),
      httpsSocket_(LoopbackSocket::tcpListener()) {
    port_ = httpSocket_.port();
    openToWorkers();
}

std::string NginxServer::httpsUrl(const std::string& path) const {
    return "https://127.0.0.1:" + std::to_string(httpsPort()) +
           (path.rfind('/', 0) == 0 ? "" : "/") + path;
}

std::string NginxServer::version() {
    return firstLineOf({NGINX, "-v"});
}

std::string NginxServer::siteRules(bool https, std::string& error) const {
    std::ostringstream rules;
    rules << "        root " << quoted(docroot_) << ";\n"
          << redirectRules(site_) << authRules(site_, dir_, error);
    for (const std::string& path : site_.forbidden) {
        rules << "        location ^~ " << path << " { deny all; }\n";
    }
    for (const std::string& path : https ? site_.clientCertPaths : std::vector<std::string>()) {
        rules << "        location ^~ " << path << " {\n"
              << "            if ($ssl_client_verify != SUCCESS) { return 403; }\n"
              << "        }\n";
    }
    return rules.str();
}

std::string NginxServer::makeConfig(std::string& error) const {
    const Certificates& certificates = Certificates::get();
    if (!certificates.ok()) {
        error = certificates.error();
        return "";
    }
    std::ostringstream conf;
    conf << "daemon off;\nmaster_process on;\nworker_processes 1;\n"
         << "pid " << quoted(dir_.file("nginx.pid")) << ";\n"
         << "error_log stderr warn;\n"
         << "events { worker_connections 64; }\n"
         << "http {\n"
         << "    access_log off;\n"
         << "    default_type application/octet-stream;\n";
    // Away from the package's /var/lib/nginx, which need not exist or be writable.
    for (const char* temp : {"client_body", "proxy", "fastcgi", "uwsgi", "scgi"}) {
        conf << "    " << temp << "_temp_path " << quoted(dir_.file(std::string("tmp-") + temp))
             << ";\n";
    }
    conf << "    server {\n        listen 127.0.0.1:" << port_ << ";\n"
         << siteRules(false, error) << "    }\n"
         << "    server {\n        listen 127.0.0.1:" << httpsPort() << " ssl;\n"
         << "        ssl_certificate " << quoted(certificates.serverChain()) << ";\n"
         << "        ssl_certificate_key " << quoted(certificates.serverKey()) << ";\n";
    if (!site_.clientCertPaths.empty()) {
        conf << "        ssl_client_certificate " << quoted(certificates.clientCa()) << ";\n"
             << "        ssl_verify_client optional;\n";
    }
    conf << siteRules(true, error) << "    }\n}\n";
    return conf.str();
}

::testing::AssertionResult NginxServer::start() {
    if (!httpSocket_.valid() || !httpsSocket_.valid()) {
        return ::testing::AssertionFailure()
               << "nginx sockets: " << httpSocket_.error() << httpsSocket_.error();
    }
    std::string error;
    std::string config = makeConfig(error);
    if (!error.empty()) {
        return ::testing::AssertionFailure() << error;
    }
    writeFile(configPath(), config);
    SpawnSpec spec;
    spec.argv = {NGINX, "-p", dir_.path() + "/", "-c", configPath(), "-e", "stderr"};
    spec.env = {"NGINX=3;4;"};
    spec.fds = {{3, httpSocket_.fd()}, {4, httpsSocket_.fd()}};
    ::testing::AssertionResult started = spawn(spec);
    httpSocket_.close();
    httpsSocket_.close();
    if (!started) {
        return started;
    }
    ::testing::AssertionResult ready =
        waitForTcpAnswer(port_, "GET / HTTP/1.0\r\n\r\n", *process_, DEFAULT_DEADLINE);
    if (!ready || !process_->running()) {
        return didNotStart("nginx", ready);
    }
    return ::testing::AssertionSuccess();
}

}  // namespace provtest
