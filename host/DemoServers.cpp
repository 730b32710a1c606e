#include "host/DemoServers.h"

#include <unistd.h>

#include "platform/KtFile.h"

namespace Provctl {

namespace {

const char* const TFTPD = "/usr/sbin/in.tftpd";
const char* const LIGHTTPD = "/usr/sbin/lighttpd";

}  // namespace

// --- DemoTftpServer ---

XCode DemoTftpServer::start(const String& logPath) {
    if (::geteuid() != 0) {
        return XCode::FAILURE(
            "the TFTP server (in.tftpd) must be started by root: it chroots into the "
            "served directory; run the demo as root or with sudo");
    }
    LoopbackSocket socket;
    XCode result = socket.open(LoopbackSocket::Kind::Udp);
    if (result.isErr()) {
        return result;
    }
    port_ = socket.port();
    ServerProcess::Spec spec;
    // Without --listen the daemon serves the socket on its standard input (inetd mode) until
    // --timeout seconds pass without a request.
    spec.argv = {TFTPD,  "--secure",  "--permissive", "--create", "--user",
                 "root", "--timeout", "3600",         root_};
    spec.env = {"PATH=/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL=C"};
    spec.fds = {{0, socket.fd()}};
    spec.logPath = logPath;
    result = process_.spawn(spec);
    socket.close();
    if (result.isErr()) {
        return result;
    }
    result = PROBE_TFTP(port_, process_);
    if (result.isErr()) {
        process_.stop();
    }
    return result;
}

// --- DemoHttpServer ---

XCode DemoHttpServer::bind() {
    return socket_.open(LoopbackSocket::Kind::TcpListener);
}

String DemoHttpServer::url(const String& path) const {
    return String::format("http://127.0.0.1:%u%s", port(), path.c_str());
}

String DemoHttpServer::CONFIGURATION(const String& docroot, unsigned int port,
                                     const String& userFile, const Zone& zone,
                                     const Redirect& redirect) {
    String conf;
    conf.concatf("server.document-root = \"%s\"\n", docroot.c_str());
    conf += "server.bind = \"127.0.0.1\"\n";
    conf.concatf("server.port = %u\n", port);
    conf += "server.systemd-socket-activation = \"enable\"\n";
    conf += "server.modules = (\"mod_auth\", \"mod_authn_file\", \"mod_redirect\")\n";
    // Files are written just before they are served.
    conf += "server.stat-cache-engine = \"disable\"\n";
    conf +=
        "mimetype.assign = (\".txt\" => \"text/plain\", \"\" => \"application/octet-stream\")\n";
    conf += "auth.backend = \"plain\"\n";
    conf.concatf("auth.backend.plain.userfile = \"%s\"\n", userFile.c_str());
    conf.concatf(
        "auth.require = (\"%s\" => (\"method\" => \"basic\", \"realm\" => \"%s\", "
        "\"require\" => \"valid-user\"))\n",
        zone.path.c_str(), zone.realm.c_str());
    conf.concatf("$HTTP[\"url\"] == \"%s\" {\n", redirect.from.c_str());
    conf.concatf("    url.redirect = (\"\" => \"%s\")\n", redirect.to.c_str());
    conf.concatf("    url.redirect-code = %d\n}\n", redirect.code);
    return conf;
}

XCode DemoHttpServer::start(const Zone& zone, const Redirect& redirect) {
    if (socket_.fd() < 0) {
        XCode bound = bind();
        if (bound.isErr()) {
            return bound;
        }
    }
    const String userFile = directory_ + "/users";
    const String configPath = directory_ + "/lighttpd.conf";
    XCode result = KtFile::WRITE_TEXT_FILE(userFile, zone.user + ":" + zone.password + "\n", false);
    if (result.isSuccess()) {
        result = KtFile::WRITE_TEXT_FILE(
            configPath, CONFIGURATION(docroot_, port(), userFile, zone, redirect), false);
    }
    if (result.isErr()) {
        return result;
    }
    ServerProcess::Spec spec;
    spec.argv = {LIGHTTPD, "-D", "-f", configPath};
    spec.env = {"PATH=/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL=C", "LISTEN_FDS=1"};
    spec.listenPid = true;
    spec.fds = {{3, socket_.fd()}};
    spec.logPath = directory_ + "/lighttpd.log";
    result = process_.spawn(spec);
    socket_.close();
    if (result.isErr()) {
        return result;
    }
    result = PROBE_HTTP(port(), process_);
    if (result.isErr()) {
        process_.stop();
    }
    return result;
}

}  // namespace Provctl
