#include "support/BusyboxHttpd.h"

namespace provtest {

namespace {

const char* const BUSYBOX = "/bin/busybox";

}  // namespace

BusyboxHttpd::BusyboxHttpd() : BusyboxHttpd(Options()) {}

BusyboxHttpd::BusyboxHttpd(Options options)
    : WebServer("prov-busybox-httpd"), options_(std::move(options)) {}

std::string BusyboxHttpd::version() {
    return firstLineOf({BUSYBOX});
}

::testing::AssertionResult BusyboxHttpd::launch(unsigned int port) {
    port_ = port;
    SpawnSpec spec;
    // In the foreground (-f), on 127.0.0.1 only, asking for credentials of the one realm (-r).
    spec.argv = {BUSYBOX, "httpd", "-f", "-p", "127.0.0.1:" + std::to_string(port)};
    spec.argv.insert(spec.argv.end(), {"-h", docroot_, "-c", configPath(), "-r", options_.realm});
    ::testing::AssertionResult started = spawn(spec);
    if (!started) {
        return started;
    }
    ::testing::AssertionResult ready = waitForTcpListener(port, *process_, DEFAULT_DEADLINE);
    if (!ready) {
        return didNotStart("busybox httpd", ready);
    }
    return ::testing::AssertionSuccess();
}

::testing::AssertionResult BusyboxHttpd::start() {
    std::string config;
    for (const HttpServer::AuthZone& zone : options_.auth) {
        if (zone.scheme != HttpServer::Scheme::Basic || zone.realm != options_.realm) {
            return ::testing::AssertionFailure()
                   << "busybox httpd asks for Basic credentials of its one realm only";
        }
        std::string path = zone.path;
        while (path.size() > 1 && path.back() == '/') {
            path.pop_back();
        }
        config += path + ":" + zone.user + ":" + zone.password + "\n";
    }
    writeFile(configPath(), config);
    for (const std::string& path : options_.forbidden) {
        // A configuration file in a served directory applies to what lies below it.
        put(path + (path.back() == '/' ? "" : "/") + "httpd.conf", "D:*\n");
    }
    return startOnFreePorts(
        1, [this](const std::vector<unsigned int>& ports) { return launch(ports.at(0)); });
}

}  // namespace provtest
