// provctl stopped by a signal while its wget or tftp runs against a server that never finishes
// (or with its output going to a pipe nobody reads) must leave nothing behind: it ends and reaps
// the child, removes wget's private credentials directory and the work file, shows the
// subsystem idle, and exits with 128 + the signal.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "integration/hardening/HardeningSupport.h"
#include "integration/hardening/StallSupport.h"
#include "platform/simulated/DeviceDirectory.h"

namespace {

using namespace provtest::hardening;
using provtest::FixtureResponse;
using provtest::FixtureServer;

const char* const PASSWORD_PREFIX = "pw-";

class SignalsTest : public ::testing::TestWithParam<int> {
  protected:
    void SetUp() override {
        unique = uniqueName("sig");
        // Work-file paths as provctl maps them for this device.
        Device::SET_ROOT(device.path().c_str());
        password = PASSWORD_PREFIX + std::to_string(::getpid());
    }

    std::vector<std::string> provctlArguments(const std::string& location) const {
        // -v: the engine's steps are written as they happen, the first one at the start.
        return {PROV_PROVCTL,           "config", "-v", "--device", device.path(), "--credential",
                "dev:user:" + password, location};
    }
    std::string workFile() const {
        return Device::MAP_PATH(String(("/tmp/provisioning/" + unique + ".cfg").c_str())).str();
    }
    std::string statusOfSubsystem() const {
        std::string path = device.file("status/subsystem-1");
        return provtest::fileExists(path) ? provtest::readFile(path) : "<none>";
    }

    // Starts provctl on `location`, waits for its `tool` child, sends `signal`, and checks
    // everything a stopped run must have cleaned up.
    void stopWhileRunning(const std::string& location, const char* tool, int signal) {
        provtest::SpawnSpec spec;
        spec.argv = provctlArguments(location);
        spec.logPath = log.file("provctl.log");
        provtest::ServerProcess provctl;
        ASSERT_TRUE(provctl.spawn(spec));
        ProcessInfo child;
        // For wget, the authenticated retry: the first run only fetches the challenge.
        const std::string awaited = std::string(tool) == "wget" ? "--config=" : tool;
        ASSERT_TRUE(waitForChild(provctl.pid(), unique, awaited, child))
            << "no " << tool << " child appeared\n"
            << provtest::readFile(spec.logPath);
        EXPECT_NE(child.command.find(tool), std::string::npos) << child.command;
        std::string secrets = secretsDirectoryOf(child.command);
        if (std::string(tool) == "wget") {
            ASSERT_FALSE(secrets.empty())
                << "wget runs without a private wgetrc: " << child.command;
            ASSERT_TRUE(provtest::fileExists(secrets + "/wgetrc"));
        }
        ASSERT_EQ(::kill(provctl.pid(), signal), 0);
        ASSERT_TRUE(provctl.waitExit(provtest::DEFAULT_DEADLINE));
        EXPECT_EQ(provctl.exitStatus(), 128 + signal) << provctl.describeExit() << "\n"
                                                      << provtest::readFile(spec.logPath);
        EXPECT_TRUE(goneWithItsGroup(child.pid)) << describe(processesMentioning(unique));
        EXPECT_TRUE(processesMentioning(unique).empty()) << describe(processesMentioning(unique));
        if (!secrets.empty()) {
            EXPECT_FALSE(std::filesystem::exists(secrets)) << secrets;
        }
        EXPECT_FALSE(provtest::fileExists(workFile())) << workFile();
        EXPECT_EQ(statusOfSubsystem(), "idle");
    }

    // The private directory in wget's "--config=<dir>/wgetrc", or "".
    static std::string secretsDirectoryOf(const std::string& command) {
        const std::string option = "--config=";
        std::size_t at = command.find(option);
        if (at == std::string::npos) {
            return "";
        }
        std::size_t end = command.find(' ', at);
        std::string path = command.substr(at + option.size(), end - at - option.size());
        return path.substr(0, path.rfind('/'));
    }

    provtest::TempDir device{"prov-sig-dev"};
    provtest::TempDir log{"prov-sig-log"};
    std::string unique;
    std::string password;
};

TEST_P(SignalsTest, signalDuringAnAuthenticatedHttpTransferLeavesNothingBehind) {
    FixtureServer server;
    // The challenge makes the job hand wget the credentials in a private wgetrc; the answer to
    // the second request never finishes.
    server.route("/" + unique + ".cfg",
                 {FixtureResponse::challenge("Basic realm=\"dev\""), tricklingAnswer()});
    ASSERT_TRUE(server.start());
    stopWhileRunning(server.url("/" + unique + ".cfg"), "wget", GetParam());
}

TEST_P(SignalsTest, signalDuringATftpTransferLeavesNothingBehind) {
    TricklingTftpServer server;
    ASSERT_TRUE(server.start());
    stopWhileRunning("tftp://127.0.0.1:" + std::to_string(server.port()) + "/" + unique + ".cfg",
                     "tftp", GetParam());
}

std::string signalName(const ::testing::TestParamInfo<int>& info) {
    const char* abbreviation = ::sigabbrev_np(info.param);
    return abbreviation != nullptr ? std::string("SIG") + abbreviation
                                   : "signal" + std::to_string(info.param);
}

INSTANTIATE_TEST_SUITE_P(Each, SignalsTest,
                         ::testing::Values(SIGINT, SIGTERM, SIGHUP, SIGQUIT, SIGPIPE, SIGUSR1,
                                           SIGUSR2, SIGALRM, SIGXCPU, SIGXFSZ, SIGVTALRM, SIGPROF),
                         signalName);

// Standard output and standard error on a pipe whose reader has gone before provctl wrote
// anything: the first monitor line fails with EPIPE, and the run stops as on SIGPIPE.
class ClosedPipeTest : public SignalsTest {};

TEST_F(ClosedPipeTest, closedOutputPipeStopsTheRunLikeSigpipe) {
    FixtureServer server;
    server.route("/" + unique + ".cfg", {tricklingAnswer()});
    ASSERT_TRUE(server.start());
    std::vector<std::string> arguments = provctlArguments(server.url("/" + unique + ".cfg"));
    std::vector<char*> argv;
    for (std::string& word : arguments) {
        argv.push_back(&word[0]);
    }
    argv.push_back(nullptr);
    int pipeFds[2];
    ASSERT_EQ(::pipe2(pipeFds, O_CLOEXEC), 0) << std::strerror(errno);
    pid_t pid = ::fork();
    ASSERT_GE(pid, 0) << std::strerror(errno);
    if (pid == 0) {
        ::setpgid(0, 0);
        ::dup2(pipeFds[1], STDOUT_FILENO);
        ::dup2(pipeFds[1], STDERR_FILENO);
        ::signal(SIGPIPE, SIG_DFL);
        ::execv(argv[0], argv.data());
        ::_exit(127);
    }
    ::close(pipeFds[0]);
    ::close(pipeFds[1]);
    int pidFd = static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
    ASSERT_GE(pidFd, 0) << std::strerror(errno);
    pollfd exited{pidFd, POLLIN, 0};
    int ready = ::poll(&exited, 1, static_cast<int>(provtest::DEFAULT_DEADLINE.count()));
    ::close(pidFd);
    if (ready <= 0) {
        ::kill(-pid, SIGKILL);
    }
    int status = 0;
    ASSERT_EQ(::waitpid(pid, &status, 0), pid);
    ASSERT_GT(ready, 0) << "provctl did not stop";
    ASSERT_TRUE(WIFEXITED(status)) << "provctl ended by signal " << WTERMSIG(status);
    EXPECT_EQ(WEXITSTATUS(status), 128 + SIGPIPE);
    EXPECT_TRUE(processesMentioning(unique).empty()) << describe(processesMentioning(unique));
    EXPECT_FALSE(provtest::fileExists(workFile())) << workFile();
    EXPECT_EQ(statusOfSubsystem(), "idle");
}

}  // namespace
