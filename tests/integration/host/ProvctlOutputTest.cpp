// What a job prints at each verbosity, against tftpd-hpa on loopback: what was tried, the
// transfer-log lines, on failure the tool's own last error line next to the result; and the JSON
// result of every job kind checked against the installed JSON Schema.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <vector>

#include "support/FixtureServer.h"
#include "support/Process.h"
#include "support/ProvctlRun.h"
#include "support/TempDir.h"
#include "support/TftpServer.h"

namespace {

using Outcome = provtest::ProvctlOutcome;

const char* const CONFIG =
    "cli version 4.12\ncontext ip router\n  interface eth0\nport ethernet 0 0\n";

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

class ProvctlOutputTest : public ::testing::Test {
  protected:
    void SetUp() override {
        server_.put(present_, CONFIG);
        ASSERT_TRUE(server_.start());
    }

    Outcome provctl(std::vector<std::string> args) {
        args.insert(args.begin() + 1, {"--device", dir_.file("device")});
        Outcome run = provtest::runProvctl(dir_, args);
        EXPECT_TRUE(run.ended) << "provctl did not end";
        return run;
    }

    std::string url(const std::string& name) const {
        return "tftp://127.0.0.1:" + std::to_string(server_.port()) + "/" + name;
    }

    static std::string unique(const std::string& stem) {
        static std::atomic<int> counter{0};
        return stem + "-" + std::to_string(::getpid()) + "-" + std::to_string(counter++);
    }

    provtest::TempDir dir_{"prov-output"};
    provtest::TftpServer server_;
    const std::string present_ = unique("present") + ".cfg";
    const std::string missing_ = unique("missing") + ".cfg";
};

TEST_F(ProvctlOutputTest, aFailureShowsWhatWasTriedAndTheToolsOwnWords) {
    Outcome run = provctl({"config", url(missing_)});
    EXPECT_EQ(run.status, 1);
    const std::string result = "result: tftp EXITED WITH STATUS 1 (0x12000001)\n";
    EXPECT_TRUE(contains(run.out, "tried: " + url(missing_) +
                                      ": failed: " + "tftp EXITED WITH STATUS 1 (0x12000001)\n"))
        << run.out;
    EXPECT_TRUE(contains(run.out, "reason: tftp: server error: (1) File not found\n" + result))
        << run.out;
    // Failures on standard error, not the engine's steps.
    EXPECT_TRUE(contains(run.err, "PROV 3 [config] EXECUTION FAILED: ")) << run.err;
    EXPECT_FALSE(contains(run.err, "PROV 6")) << run.err;
}

TEST_F(ProvctlOutputTest, aSuccessShowsTheLocationThatServedAndTheTransferLog) {
    Outcome run = provctl({"config", url(missing_), url(present_)});
    EXPECT_EQ(run.status, 0) << run.err;
    EXPECT_TRUE(contains(run.out, "tried: " + url(missing_) + ": failed: ")) << run.out;
    EXPECT_TRUE(contains(run.out, "tried: " + url(present_) + ": transferred\n")) << run.out;
    EXPECT_FALSE(contains(run.out, "reason:")) << run.out;
    EXPECT_TRUE(
        contains(run.err, "XFER 6 config : " + url(present_) + " -> startup-config : succeeded\n"))
        << run.err;
    EXPECT_FALSE(contains(run.err, "PROV 6")) << run.err;
}

TEST_F(ProvctlOutputTest, verboseShowsTheEnginesWholeLogAndQuietOnlyTheResult) {
    Outcome verbose = provctl({"config", "-v", url(present_)});
    EXPECT_TRUE(contains(verbose.err, "PROV 6 [config] Starting execution\n")) << verbose.err;
    EXPECT_TRUE(contains(verbose.err, "EVENT 6 [config] Received and stored configuration"))
        << verbose.err;
    Outcome three = provctl({"config", "-v", "3", url(missing_)});
    EXPECT_TRUE(contains(three.err, "PROV 3 [config] EXECUTION FAILED")) << three.err;
    EXPECT_FALSE(contains(three.err, "XFER")) << three.err;
    EXPECT_FALSE(contains(three.err, "PROV 6")) << three.err;
    Outcome quiet = provctl({"config", "-q", url(missing_)});
    EXPECT_EQ(quiet.status, 1);
    EXPECT_EQ(quiet.out, "result: tftp EXITED WITH STATUS 1 (0x12000001)\n");
    EXPECT_EQ(quiet.err, "");
}

TEST_F(ProvctlOutputTest, everyJobKindsJsonFollowsTheSchema) {
    std::vector<std::vector<std::string>> runs = {
        {"config", url(present_)},     {"config", url(missing_)},   {"upload", url(missing_)},
        {"cdr-upload", url(missing_)}, {"dialplan", url(present_)}, {"key", url(missing_)},
        {"wizard", url(present_)},     {"firmware", url(missing_)}, {"script", url(missing_)}};
    std::vector<std::string> validate = {"/usr/bin/python3", "-c",
                                         "import json, sys, jsonschema\n"
                                         "schema = json.load(open(sys.argv[1]))\n"
                                         "for path in sys.argv[2:]:\n"
                                         "    lines = open(path).read().splitlines()\n"
                                         "    assert len(lines) == 1, path\n"
                                         "    jsonschema.validate(json.loads(lines[0]), schema)\n"
                                         "print('valid', len(sys.argv) - 2)\n",
                                         PROV_SOURCE_DIR "/host/provctl-result.schema.json"};
    for (std::size_t index = 0; index < runs.size(); ++index) {
        std::vector<std::string> args = runs[index];
        args.insert(args.begin() + 1, "--json");
        Outcome run = provctl(args);
        const std::string path = dir_.file("result-" + std::to_string(index) + ".json");
        provtest::writeFile(path, run.out);
        validate.push_back(path);
    }
    provtest::CommandResult checked = provtest::runCommand(validate);
    EXPECT_EQ(checked.exitStatus, 0) << checked.output;
    EXPECT_TRUE(contains(checked.output, "valid 9")) << checked.output;
}

// Everything written to a terminal until the writers close it: the master side of a new pty.
class Terminal {
  public:
    Terminal() {
        master_ = ::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
        if (master_ >= 0 && ::grantpt(master_) == 0 && ::unlockpt(master_) == 0) {
            slave_ = ::open(::ptsname(master_), O_RDWR | O_NOCTTY | O_CLOEXEC);
        }
    }
    ~Terminal() {
        closeSlave();
        if (master_ >= 0) {
            ::close(master_);
        }
    }
    bool valid() const { return slave_ >= 0; }
    int slave() const { return slave_; }
    void closeSlave() {
        if (slave_ >= 0) {
            ::close(slave_);
            slave_ = -1;
        }
    }
    // Reads until every writer has closed the terminal (EIO) or nothing came for 60 s.
    std::string readAll() {
        std::string text;
        char buffer[4096];
        pollfd entry{master_, POLLIN, 0};
        while (::poll(&entry, 1, 60000) > 0) {
            const ssize_t count = ::read(master_, buffer, sizeof buffer);
            if (count <= 0) {
                break;
            }
            text.append(buffer, static_cast<std::size_t>(count));
        }
        return text;
    }

  private:
    int master_ = -1;
    int slave_ = -1;
};

TEST(ProvctlTerminalTest, theProgressLineIsErasedBeforeTheResultIsWritten) {
    provtest::TempDir dir("prov-terminal");
    provtest::FixtureServer server;
    // About 2 s for the body: the progress line is drawn every 200 ms meanwhile.
    std::string body = CONFIG;
    body += std::string(200, '#') + "\n";
    server.route("/slow.cfg", {provtest::FixtureResponse::slow(body, 10, 100)});
    ASSERT_TRUE(server.start());
    Terminal terminal;
    ASSERT_TRUE(terminal.valid());
    provtest::SpawnSpec spec;
    spec.argv = {PROV_PROVCTL, "config",   "--json",           "-v",
                 "3",          "--device", dir.file("device"), server.url("/slow.cfg")};
    spec.env = {"PATH=/usr/bin:/bin", "LC_ALL=C", "HOME=" + dir.file("home")};
    spec.fds = {{1, terminal.slave()}, {2, terminal.slave()}};
    spec.logPath = dir.file("unused.log");
    provtest::ServerProcess process;
    ASSERT_TRUE(process.spawn(spec));
    terminal.closeSlave();
    const std::string shown = terminal.readAll();
    ASSERT_TRUE(process.waitExit(provtest::DEFAULT_DEADLINE));
    EXPECT_EQ(process.exitStatus(), 0) << shown;
    // The progress line was there, and was erased ("\r", erase to the end of the line) just
    // before the JSON object began.
    EXPECT_TRUE(contains(shown, "[config] ")) << shown;
    const std::size_t object = shown.find("{\"ok\"");
    ASSERT_NE(object, std::string::npos) << shown;
    EXPECT_EQ(shown.substr(object - 4, 4), "\r\033[K") << shown;
}

}  // namespace
