// Text from a hostile server (a TFTP error message that busybox tftp prints as it came, a
// manifest, the realm of a challenge, a Location header) carries escape sequences and carriage
// returns that would retitle, clear or overwrite the terminal that shows the log. Every monitor
// line, and everything provctl prints, holds them escaped as "\xHH". A configuration executed on
// the running system is refused whole when a line holds one: running-config is shown to people.
#include <gtest/gtest.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "integration/hardening/HardeningSupport.h"
#include "jobs/content/ConfigProvisioningJob.h"
#include "support/FixtureServer.h"
#include "support/ProvctlRun.h"

namespace provtest::hardening {
namespace {

// Retitles the terminal window, clears the screen, goes back to the start of the line and uses
// the one-byte (C1) and the UTF-8 form of the control sequence introducer.
const std::string HOSTILE =
    "\x1b]0;pwned\x07\x1b[2Jgone\rfake\x9b"
    "31m\xc2\x9b"
    "1m";
const std::string HOSTILE_ESCAPED = "\\x1B]0;pwned\\x07\\x1B[2Jgone\\x0Dfake\\x9B31m\\xC2\\x9B1m";
// The same in valid UTF-8, as an HTTP server's headers and body carry it.
const std::string HOSTILE_UTF8 =
    "\x1b]0;pwned\x07\x1b[2Jgone\rfake\xc2\x9b"
    "1m";
const std::string HOSTILE_UTF8_ESCAPED = "\\x1B]0;pwned\\x07\\x1B[2Jgone\\x0Dfake\\xC2\\x9B1m";

// The first byte that is neither printable ASCII nor a line end, described; empty when none.
std::string firstRawControl(const std::string& text) {
    for (std::size_t i = 0; i < text.size(); ++i) {
        const auto c = static_cast<unsigned char>(text[i]);
        if (c != '\n' && (c < 0x20 || c >= 0x7F)) {
            char hex[8];
            std::snprintf(hex, sizeof hex, "0x%02X", c);
            return std::string("raw byte ") + hex + " at " + std::to_string(i) +
                   " in: " + oneLine(text.substr(i < 40 ? 0 : i - 40, 80));
        }
    }
    return std::string();
}

std::string toHex(const std::string& bytes) {
    std::string hex;
    for (char c : bytes) {
        char pair[3];
        std::snprintf(pair, sizeof pair, "%02x", static_cast<unsigned char>(c));
        hex += pair;
    }
    return hex;
}

// A TFTP server that answers every request with an ERROR packet carrying `message`.
class TftpErrorServer {
  public:
    ::testing::AssertionResult start(const std::string& message) {
        SpawnSpec spec;
        spec.argv = {"/usr/bin/python3",
                     std::string(PROV_TEST_DATA_DIR) + "/hardening/tftp_error_server.py",
                     toHex(message)};
        spec.captureStdout = true;
        spec.logPath = dir_.file("server.log");
        ::testing::AssertionResult started = process_.spawn(spec);
        if (!started) {
            return started;
        }
        std::string line;
        if (!process_.readLine(line)) {
            return ::testing::AssertionFailure() << "no port from the TFTP error server";
        }
        port_ = static_cast<unsigned int>(std::stoul(line));
        return ::testing::AssertionSuccess();
    }
    std::string url(const std::string& name) const {
        return "tftp://127.0.0.1:" + std::to_string(port_) + "/" + name;
    }

  private:
    TempDir dir_{"prov-tftperr"};
    ServerProcess process_;
    unsigned int port_ = 0;
};

class TerminalInjectionTest : public DeviceTest {
  protected:
    ::testing::AssertionResult noRawControlLogged() const {
        for (const CaptureMonitor* monitor : {&prov, &xfer, &event}) {
            for (const std::string& line : monitor->lines()) {
                std::string found = firstRawControl(line);
                if (!found.empty()) {
                    return ::testing::AssertionFailure() << found;
                }
            }
        }
        return ::testing::AssertionSuccess();
    }
    static ::testing::AssertionResult noRawControlPrinted(const ProvctlOutcome& run) {
        for (const std::string* stream : {&run.out, &run.err}) {
            std::string found = firstRawControl(*stream);
            if (!found.empty()) {
                return ::testing::AssertionFailure() << found;
            }
        }
        return ::testing::AssertionSuccess();
    }
    std::string provctlDevice() const { return device.file("provctl-device"); }

    TempDir runs{"prov-termrun"};
};

TEST_F(TerminalInjectionTest, tftpErrorTextIsLoggedEscaped) {
    TftpErrorServer server;
    ASSERT_TRUE(server.start(HOSTILE));
    ConfigProvisioningJob job(loop, "term", ProvisioningJob::None, false,
                              {server.url(remote(".cfg")).c_str()}, credentials, resolver, handler);
    ASSERT_TRUE(job.execute().isSuccess()) << prov.dump();
    ASSERT_TRUE(runToEnd());
    EXPECT_TRUE(told().isErr());
    // busybox printed the server's message; the log holds it escaped.
    EXPECT_GE(prov.find("[TFTP] tftp: server error: (1) " + HOSTILE_ESCAPED), 0) << prov.dump();
    EXPECT_TRUE(noRawControlLogged());
}

TEST_F(TerminalInjectionTest, provctlPrintsTftpErrorTextEscaped) {
    TftpErrorServer server;
    ASSERT_TRUE(server.start(HOSTILE));
    for (bool json : {false, true}) {
        SCOPED_TRACE(json ? "--json" : "text");
        std::vector<std::string> args = {
            "config", "-v", "6", "--device", provctlDevice(), server.url(remote(".cfg"))};
        if (json) {
            args.insert(args.begin() + 1, "--json");
        }
        ProvctlOutcome run = runProvctl(runs, args);
        EXPECT_EQ(run.status, 1) << run.err;
        EXPECT_NE(run.err.find("PROV 6 [TFTP] tftp: server error: (1) " + HOSTILE_ESCAPED),
                  std::string::npos)
            << run.err;
        EXPECT_TRUE(noRawControlPrinted(run));
    }
}

TEST_F(TerminalInjectionTest, provctlPrintsManifestRealmAndLocationEscaped) {
    FixtureServer server;
    const std::string base = "/" + unique;
    // A bare manifest, its work file named after the test (removed by the fixture).
    const std::string manifest = "/" + remote(".manifest");
    // The firmware job logs a manifest's content.
    server.route(manifest, {FixtureResponse::ok("sw_type=X" + HOSTILE_UTF8 +
                                                "\nsw_version=1.2\nsw_build_num=7\n")});
    server.route(base + "/auth.cfg",
                 {FixtureResponse::challenge("Basic realm=\"" + HOSTILE_UTF8 + "\"")});
    server.route(
        base + "/moved.cfg",
        {FixtureResponse::redirect(302, "http://127.0.0.1:{port}" + base + "/x" + HOSTILE_UTF8)});
    ASSERT_TRUE(server.start());

    ProvctlOutcome firmware = runProvctl(
        runs, {"firmware", "-v", "6", "--device", provctlDevice(), server.url(manifest)});
    EXPECT_NE(firmware.err.find("sw_type=X" + HOSTILE_UTF8_ESCAPED), std::string::npos)
        << firmware.err;
    EXPECT_TRUE(noRawControlPrinted(firmware));
    // The result quotes the manifest line that the running system refused, escaped by it; as
    // JSON too it reaches the terminal escaped.
    ProvctlOutcome json =
        runProvctl(runs, {"firmware", "--json", "--device", provctlDevice(), server.url(manifest)});
    EXPECT_NE(json.out.find("\"ok\""), std::string::npos) << json.out;
    EXPECT_NE(json.out.find("sw_type=X\\\\x1B]0;pwned"), std::string::npos) << json.out;
    EXPECT_TRUE(noRawControlPrinted(json));

    ProvctlOutcome config =
        runProvctl(runs, {"config", "-v", "6", "--device", provctlDevice(),
                          server.url(base + "/auth.cfg"), server.url(base + "/moved.cfg")});
    EXPECT_EQ(config.status, 1) << config.err;
    EXPECT_NE(config.err.find("WWW-Authenticate"), std::string::npos) << config.err;
    EXPECT_NE(config.err.find("Redirected: "), std::string::npos) << config.err;
    // The realm and the redirect target, both the server's text, were shown.
    EXPECT_NE(config.err.find("]   Realm:  "), std::string::npos) << config.err;
    EXPECT_NE(config.err.find(base + "/x"), std::string::npos) << config.err;
    EXPECT_TRUE(noRawControlPrinted(config));
}

TEST_F(TerminalInjectionTest, createdConfigurationWithControlsIsRefusedAndNotRecorded) {
    FixtureServer server;
    const std::string path = "/" + remote(".cfg");
    server.route(path, {FixtureResponse::withStatus(
                           201, "hostname gw\ninterface eth0\n  description " + HOSTILE_UTF8 +
                                    "\n  ipaddress 10.0.0.1 255.0.0.0\n")});
    ASSERT_TRUE(server.start());
    auto job = configJob(server.url(path).c_str(), "term");
    ASSERT_TRUE(job->execute().isSuccess()) << prov.dump();
    ASSERT_TRUE(runToEnd());
    EXPECT_EQ(told().getString().str(),
              "EXECUTION FAILED AT LINE 3: description " + HOSTILE_UTF8_ESCAPED);
    EXPECT_FALSE(fileExists(device.file("running-config")));
    EXPECT_TRUE(noRawControlLogged());

    ProvctlOutcome run =
        runProvctl(runs, {"config", "-v", "6", "--device", provctlDevice(), server.url(path)});
    EXPECT_EQ(run.status, 1) << run.err;
    EXPECT_EQ(run.out.substr(run.out.rfind("result: ")),
              "result: EXECUTION FAILED AT LINE 3: description " + HOSTILE_UTF8_ESCAPED +
                  " (0x7FFFFFFF)\n");
    EXPECT_FALSE(fileExists(provctlDevice() + "/running-config"));
    EXPECT_TRUE(noRawControlPrinted(run));
}

}  // namespace
}  // namespace provtest::hardening
