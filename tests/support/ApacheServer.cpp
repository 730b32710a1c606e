#include "support/ApacheServer.h"

#include <sys/stat.h>
#include <unistd.h>

#include <set>
#include <sstream>

#include "support/Certificates.h"

namespace provtest {

namespace {

const char* const APACHE = "/usr/sbin/apache2";
const char* const MODULES = "/usr/lib/apache2/modules/";

std::string quoted(const std::string& text) {
    return "\"" + text + "\"";
}

// `path` as a regular expression matching exactly it.
std::string exactly(const std::string& path) {
    std::string pattern = "^";
    for (char c : path) {
        if (std::string(".[]()*+?{}|^$\\").find(c) != std::string::npos) {
            pattern += '\\';
        }
        pattern += c;
    }
    return pattern + "$";
}

// `text` with "{port}" replaced by the port.
std::string withPort(std::string text, unsigned int port) {
    const std::string placeholder = "{port}";
    for (std::size_t at = text.find(placeholder); at != std::string::npos;
         at = text.find(placeholder, at)) {
        text.replace(at, placeholder.size(), std::to_string(port));
    }
    return text;
}

std::string loadModules() {
    std::ostringstream conf;
    for (const char* module :
         {"mpm_prefork", "authn_core", "authn_file", "authz_core", "authz_user", "auth_basic",
          "auth_digest", "alias", "cgi", "mime", "ssl", "socache_shmcb"}) {
        conf << "LoadModule " << module << "_module " << MODULES << "mod_" << module << ".so\n";
    }
    return conf.str();
}

}  // namespace

ApacheServer::ApacheServer(WebSite site) : WebServer("prov-apache"), site_(std::move(site)) {
    openToWorkers();
}

std::string ApacheServer::httpsUrl(const std::string& path) const {
    return "https://127.0.0.1:" + std::to_string(httpsPort_) +
           (path.rfind('/', 0) == 0 ? "" : "/") + path;
}

std::string ApacheServer::version() {
    return firstLineOf({APACHE, "-v"});
}

std::string ApacheServer::authRules() const {
    std::ostringstream rules;
    std::set<std::string> done;
    for (const HttpServer::AuthZone& zone : site_.auth) {
        if (!done.insert(zone.path).second) {
            continue;
        }
        const bool basic = zone.scheme == HttpServer::Scheme::Basic;
        std::string users;
        for (const HttpServer::AuthZone& other : site_.auth) {
            if (other.path == zone.path) {
                users += (basic ? htpasswdLine(other.user, other.password)
                                : htdigestLine(other.user, zone.realm, other.password)) +
                         "\n";
            }
        }
        std::string file = dir_.file("users-" + std::to_string(done.size()));
        writeFile(file, users);
        rules << "<Location " << quoted(zone.path) << ">\n"
              << "    AuthType " << (basic ? "Basic" : "Digest") << "\n"
              << "    AuthName " << quoted(zone.realm) << "\n"
              << "    " << (basic ? "AuthBasicProvider" : "AuthDigestProvider") << " file\n"
              << "    AuthUserFile " << quoted(file) << "\n"
              << "    Require valid-user\n"
              << "</Location>\n";
    }
    return rules.str();
}

std::string ApacheServer::redirectRules() const {
    std::ostringstream rules;
    int scripts = 0;
    for (const HttpServer::Redirect& redirect : site_.redirects) {
        if (redirect.to.rfind('/', 0) != 0) {
            rules << "RedirectMatch " << redirect.code << " " << quoted(exactly(redirect.from))
                  << " " << quoted(withPort(redirect.to, port_)) << "\n";
            continue;
        }
        std::string script = dir_.file("cgi/redirect-" + std::to_string(++scripts));
        writeFile(script, "#!/bin/sh\nprintf 'Status: " + std::to_string(redirect.code) +
                              "\\r\\nLocation: " + redirect.to + "\\r\\n\\r\\n'\n");
        ::chmod(script.c_str(), 0755);
        rules << "ScriptAliasMatch " << quoted(exactly(redirect.from)) << " " << quoted(script)
              << "\n";
    }
    if (scripts > 0) {
        rules << "<Directory " << quoted(dir_.file("cgi")) << ">\n"
              << "    Require all granted\n"
              << "</Directory>\n";
    }
    return rules.str();
}

std::string ApacheServer::tlsHost() const {
    const Certificates& certificates = Certificates::get();
    std::ostringstream conf;
    conf << "<VirtualHost 127.0.0.1:" << httpsPort_ << ">\n"
         << "    SSLEngine on\n"
         << "    SSLCertificateFile " << quoted(certificates.serverChain()) << "\n"
         << "    SSLCertificateKeyFile " << quoted(certificates.serverKey()) << "\n";
    if (!site_.clientCertPaths.empty()) {
        conf << "    SSLCACertificateFile " << quoted(certificates.clientCa()) << "\n"
             << "    SSLVerifyClient optional\n"
             << "    SSLVerifyDepth 2\n";
    }
    for (const std::string& path : site_.clientCertPaths) {
        conf << "    <Location " << quoted(path) << ">\n"
             << "        Require expr %{SSL_CLIENT_VERIFY} == 'SUCCESS'\n"
             << "    </Location>\n";
    }
    conf << "</VirtualHost>\n";
    return conf.str();
}

std::string ApacheServer::makeConfig() const {
    std::ostringstream conf;
    conf << "ServerRoot " << quoted(dir_.path()) << "\n"
         << "ServerName 127.0.0.1\n"
         << "PidFile " << quoted(dir_.file("httpd.pid")) << "\n"
         << "DefaultRuntimeDir " << quoted(dir_.path()) << "\n"
         << "ErrorLog /dev/stderr\nLogLevel warn\n"
         << "StartServers 2\nMinSpareServers 1\nMaxSpareServers 4\n"
         << loadModules();
    if (::geteuid() == 0) {
        // Apache refuses to serve as root.
        conf << "User www-data\nGroup www-data\n";
    }
    conf << "TypesConfig /dev/null\n"
         << "Listen 127.0.0.1:" << port_ << "\nListen 127.0.0.1:" << httpsPort_ << "\n"
         << "SSLSessionCache " << quoted("shmcb:" + dir_.file("ssl-cache") + "(65536)") << "\n"
         << "DocumentRoot " << quoted(docroot_) << "\n"
         << "<Directory " << quoted(docroot_) << ">\n    Require all granted\n</Directory>\n"
         << redirectRules() << authRules();
    for (const std::string& path : site_.forbidden) {
        conf << "<Location " << quoted(path) << ">\n    Require all denied\n</Location>\n";
    }
    conf << tlsHost();
    return conf.str();
}

::testing::AssertionResult ApacheServer::launch(const std::vector<unsigned int>& ports) {
    port_ = ports.at(0);
    httpsPort_ = ports.at(1);
    writeFile(configPath(), makeConfig());
    SpawnSpec spec;
    spec.argv = {APACHE, "-f", configPath(), "-DFOREGROUND"};
    ::testing::AssertionResult started = spawn(spec);
    if (!started) {
        return started;
    }
    for (unsigned int port : ports) {
        ::testing::AssertionResult ready = waitForTcpListener(port, *process_, DEFAULT_DEADLINE);
        if (!ready) {
            return didNotStart("apache", ready);
        }
    }
    return ::testing::AssertionSuccess();
}

::testing::AssertionResult ApacheServer::start() {
    const Certificates& certificates = Certificates::get();
    if (!certificates.ok()) {
        return ::testing::AssertionFailure() << certificates.error();
    }
    return startOnFreePorts(
        2, [this](const std::vector<unsigned int>& ports) { return launch(ports); });
}

}  // namespace provtest
