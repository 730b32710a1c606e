// Black-box runs of `provctl demo`: its own servers, the sixteen jobs, the summary, and the
// clean-up on every path.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <string>
#include <vector>

#include "support/Process.h"
#include "support/TempDir.h"

namespace {

using provtest::readFile;

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

// The rest of the line behind `label`, or empty.
std::string valueAfter(const std::string& text, const std::string& label) {
    const std::size_t start = text.find(label);
    if (start == std::string::npos) {
        return "";
    }
    const std::size_t from = start + label.size();
    return text.substr(from, text.find('\n', from) - from);
}

// The port of "http://127.0.0.1:PORT/" in the demo's "HTTP server:" line, 0 when missing.
unsigned int httpPort(const std::string& out) {
    const std::string url = valueAfter(out, "HTTP server:      http://127.0.0.1:");
    return url.empty() ? 0 : static_cast<unsigned int>(std::stoul(url));
}

bool refused(unsigned int port) {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const bool result = ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 &&
                        errno == ECONNREFUSED;
    ::close(fd);
    return result;
}

class DemoRunTest : public ::testing::Test {
  protected:
    void TearDown() override {
        std::error_code ignored;
        for (const std::string& device : devices_) {
            std::filesystem::remove_all(device, ignored);
        }
    }

    provtest::SpawnSpec spec(const std::vector<std::string>& args) {
        provtest::SpawnSpec made;
        made.argv = {PROV_PROVCTL, "demo"};
        made.argv.insert(made.argv.end(), args.begin(), args.end());
        made.env = {"PATH=/usr/local/bin:/usr/bin:/bin:/usr/sbin:/sbin", "LC_ALL=C",
                    "HOME=" + dir_.file("home")};
        return made;
    }

    struct Run {
        int status = -1;
        std::string out;
        std::string err;
        std::string device;
    };

    Run demo(const std::vector<std::string>& args = {}) {
        const std::string outPath = dir_.file("run-" + std::to_string(runs_) + ".out");
        const std::string errPath = dir_.file("run-" + std::to_string(runs_++) + ".err");
        const int outFd = ::open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        const int errFd = ::open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        provtest::SpawnSpec made = spec(args);
        made.fds = {{1, outFd}, {2, errFd}};
        provtest::ServerProcess process;
        ::testing::AssertionResult started = process.spawn(made);
        ::close(outFd);
        ::close(errFd);
        Run run;
        EXPECT_TRUE(started);
        if (started) {
            EXPECT_TRUE(process.waitExit(provtest::DEFAULT_DEADLINE)) << "provctl demo did not end";
            process.stop();
            run.status = process.exitStatus();
        }
        run.out = readFile(outPath);
        run.err = readFile(errPath);
        run.device = valueAfter(run.out, "The device directory stays for inspection: ");
        if (!run.device.empty()) {
            devices_.push_back(run.device);
        }
        return run;
    }

    provtest::TempDir dir_{"prov-demo-run"};
    int runs_ = 0;
    std::vector<std::string> devices_;
};

// The runs that must succeed and the interrupted one are one test, each on a device directory of
// its own (and so with a work directory of its own).
TEST_F(DemoRunTest, succeedsTwiceInARowAndStopsItsServersOnEveryPath) {
    for (int round = 0; round < 2; ++round) {
        SCOPED_TRACE("run " + std::to_string(round + 1));
        Run run = demo();
        EXPECT_EQ(run.status, 0) << run.out << run.err;
        EXPECT_TRUE(contains(run.out, "All 16 jobs did what they should.")) << run.out;
        EXPECT_FALSE(contains(run.out, "FAIL")) << run.out;
        // The summary has one row per job and round.
        EXPECT_TRUE(contains(run.out, "Round 1: a new device")) << run.out;
        EXPECT_TRUE(contains(run.out, "Round 2: the same jobs with --compare")) << run.out;
        EXPECT_TRUE(contains(run.out, "+config/startup-config")) << run.out;
        EXPECT_TRUE(contains(run.out, "+slots/2 +slots/state")) << run.out;
        // The device directory stays, provisioned.
        ASSERT_FALSE(run.device.empty()) << run.out;
        EXPECT_EQ(readFile(run.device + "/config/startup-config"),
                  readFile(PROV_SOURCE_DIR "/host/demo-files/unit.cfg"));
        EXPECT_EQ(readFile(run.device + "/flash/dialplan/office"),
                  readFile(PROV_SOURCE_DIR "/host/demo-files/office.txt"));
        EXPECT_TRUE(provtest::fileExists(run.device + "/flash/preferences/key"));
        EXPECT_TRUE(provtest::fileExists(run.device + "/flash/wizard/intro.wiz"));
        EXPECT_TRUE(provtest::fileExists(run.device + "/slots/2"));
        // The servers are gone.
        const unsigned int port = httpPort(run.out);
        ASSERT_NE(port, 0U) << run.out;
        EXPECT_TRUE(refused(port));
    }

    SCOPED_TRACE("interrupted run");
    provtest::SpawnSpec interrupted = spec({});
    interrupted.captureStdout = true;
    interrupted.logPath = dir_.file("interrupted.err");
    provtest::ServerProcess process;
    ASSERT_TRUE(process.spawn(interrupted));
    std::string out;
    std::string line;
    bool running = false;
    while (!running && process.readLine(line)) {
        out += line + "\n";
        running = contains(line, "[ 1/16] round 1: config");
    }
    ASSERT_TRUE(running) << out;
    ASSERT_EQ(::kill(process.pid(), SIGINT), 0);
    while (process.readLine(line)) {
        out += line + "\n";
    }
    ASSERT_TRUE(process.waitExit(provtest::DEFAULT_DEADLINE));
    EXPECT_EQ(process.exitStatus(), 1) << out;
    EXPECT_TRUE(contains(out, "Interrupted by signal 2 after")) << out;
    const std::string device = valueAfter(out, "The device directory stays for inspection: ");
    ASSERT_FALSE(device.empty()) << out;
    devices_.push_back(device);
    EXPECT_TRUE(std::filesystem::is_directory(device));
    const unsigned int port = httpPort(out);
    ASSERT_NE(port, 0U) << out;
    EXPECT_TRUE(refused(port));
}

TEST_F(DemoRunTest, helpIsAManualPage) {
    provtest::CommandResult help = provtest::runCommand({PROV_PROVCTL, "demo", "--help"});
    EXPECT_EQ(help.exitStatus, 0) << help.output;
    EXPECT_TRUE(contains(help.output, "NAME\n    provctl demo - ")) << help.output;
    EXPECT_TRUE(contains(help.output, "EXIT STATUS\n")) << help.output;
    provtest::CommandResult overview = provtest::runCommand({PROV_PROVCTL, "--help"});
    EXPECT_TRUE(contains(overview.output, "    provctl demo [-v LEVEL]\n")) << overview.output;
}

TEST_F(DemoRunTest, unknownOptionIsAUsageError) {
    provtest::CommandResult run = provtest::runCommand({PROV_PROVCTL, "demo", "--device", "/x"});
    EXPECT_EQ(run.exitStatus, 2) << run.output;
}

}  // namespace
