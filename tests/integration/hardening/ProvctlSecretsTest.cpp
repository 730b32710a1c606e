// provctl takes passwords without putting them on any command line: from a credentials file that
// only its owner may read, or from standard input. While the real provctl downloads slowly from
// an authenticating server, the argument lists of provctl and of every process below it are read
// from /proc: the password is in none, and the server did receive it. A device.toml or a
// credentials file with passwords that others may read is refused.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "integration/hardening/HardeningSupport.h"
#include "support/FixtureServer.h"

namespace {

using namespace std::chrono_literals;
using provtest::decodeBasic;
using provtest::FixtureResponse;
using provtest::FixtureServer;
using provtest::readFile;
using provtest::TempDir;
using provtest::writeFile;

const char* const PASSWORD = "Cmd1ine-Secret";
const char* const KEY = "slow key content, sent two bytes at a time\n";

std::string readProc(int pid, const char* what) {
    return provtest::hardening::readProcFile(pid, what);
}

// `root` and every process below it, by pid.
std::set<int> processTree(int root) {
    std::set<int> tree{root};
    bool grew = true;
    while (grew) {
        grew = false;
        if (DIR* proc = ::opendir("/proc")) {
            while (dirent* entry = ::readdir(proc)) {
                if (entry->d_name[0] < '0' || entry->d_name[0] > '9') {
                    continue;
                }
                std::string stat = readProc(std::atoi(entry->d_name), "stat");
                std::size_t close = stat.rfind(')');
                if (close == std::string::npos) {
                    continue;
                }
                std::istringstream fields(stat.substr(close + 2));
                std::string state;
                int parent = 0;
                fields >> state >> parent;
                if (tree.count(parent) != 0 && tree.insert(std::atoi(entry->d_name)).second) {
                    grew = true;
                }
            }
            ::closedir(proc);
        }
    }
    return tree;
}

struct ProvctlRun {
    int status = -1;
    std::string output;
    // The argument lists seen while provctl ran (NULs shown as blanks).
    std::vector<std::string> commandLines;
};

class ProvctlSecretsTest : public ::testing::Test {
  protected:
    void SetUp() override {
        name = "/secure/" + provtest::hardening::uniqueName("secret") + ".key";
        // The work file is named after the location's last component.
        workFile = Device::MAP_PATH(String("/tmp/provisioning/") +
                                    name.substr(name.rfind('/') + 1).c_str())
                       .str();
    }
    void TearDown() override { ::unlink(workFile.c_str()); }

    // Runs provctl with `args` (standard input `input`, then its end) and looks at
    // the argument lists of its process tree until it ends.
    ProvctlRun provctl(const std::vector<std::string>& args, const std::string& input = "") {
        ProvctlRun run;
        const std::string log = dir.file("run-" + std::to_string(runs++) + ".log");
        // Standard input is written whole before provctl starts: it never blocks the test, and
        // provctl may end without reading it.
        int pipeFds[2];
        EXPECT_EQ(::pipe2(pipeFds, O_CLOEXEC), 0);
        EXPECT_EQ(::write(pipeFds[1], input.data(), input.size()),
                  static_cast<ssize_t>(input.size()));
        ::close(pipeFds[1]);
        provtest::SpawnSpec spec;
        spec.argv = {PROV_PROVCTL};
        spec.argv.insert(spec.argv.end(), args.begin(), args.end());
        spec.env = {"PATH=/usr/local/bin:/usr/bin:/bin:/usr/sbin:/sbin", "LC_ALL=C",
                    "HOME=" + dir.file("home")};
        spec.fds = {{0, pipeFds[0]}};
        spec.logPath = log;
        provtest::ServerProcess process;
        ::testing::AssertionResult started = process.spawn(spec);
        ::close(pipeFds[0]);
        EXPECT_TRUE(started);
        if (!started) {
            return run;
        }
        auto deadline = std::chrono::steady_clock::now() + provtest::DEFAULT_DEADLINE;
        while (process.running() && std::chrono::steady_clock::now() < deadline) {
            for (int pid : processTree(process.pid())) {
                std::string line = readProc(pid, "cmdline");
                for (char& c : line) {
                    c = c == '\0' ? ' ' : c;
                }
                if (!line.empty()) {
                    run.commandLines.push_back(line);
                }
            }
            // Looks again every few milliseconds, at once when provctl has ended.
            pollfd ended{process.exitFd(), POLLIN, 0};
            static_cast<void>(::poll(&ended, 1, 5));
        }
        EXPECT_TRUE(process.waitExit(provtest::DEFAULT_DEADLINE)) << "provctl did not end";
        process.stop();
        run.status = process.exitStatus();
        run.output = readFile(log);
        return run;
    }
    // The key route: a challenge for realm dev, then the key, slowly, once answered.
    void serveSlowKey() {
        server.route(name, {FixtureResponse::challenge("Basic realm=\"dev\""),
                            FixtureResponse::challenge("Basic realm=\"dev\""),
                            FixtureResponse::slow(KEY, 2, 40)});
        ASSERT_TRUE(server.start());
    }
    std::string privateFile(const std::string& file, const std::string& content,
                            mode_t mode = 0600) {
        std::string path = dir.file(file);
        writeFile(path, content);
        EXPECT_EQ(::chmod(path.c_str(), mode), 0);
        return path;
    }
    std::string device() const { return dir.file("device"); }

    // The authenticated download ran while provctl was watched: its wget was seen, and no
    // argument list seen held the password. The server got the password and the key is stored.
    void expectPasswordOffEveryCommandLine(const ProvctlRun& run) {
        EXPECT_EQ(run.status, 0) << run.output;
        bool sawAuthenticatedWget = false;
        for (const std::string& line : run.commandLines) {
            EXPECT_EQ(line.find(PASSWORD), std::string::npos) << line;
            sawAuthenticatedWget =
                sawAuthenticatedWget || (line.find("wget") != std::string::npos &&
                                         line.find("--config=") != std::string::npos);
        }
        EXPECT_TRUE(sawAuthenticatedWget) << "the authenticated wget was never seen running";
        std::vector<provtest::RecordedRequest> requests = server.requestsFor(name);
        ASSERT_EQ(requests.size(), 3U) << server.log();
        EXPECT_EQ(decodeBasic(requests[2].header("Authorization")),
                  std::string("devuser:") + PASSWORD);
        EXPECT_EQ(readFile(device() + "/flash/preferences/key"), KEY);
    }

    TempDir dir{"prov-provctl-secrets"};
    FixtureServer server;
    std::string name;
    std::string workFile;
    int runs = 0;
};

TEST_F(ProvctlSecretsTest, credentialsFileKeepsThePasswordOffEveryCommandLine) {
    serveSlowKey();
    std::string file = privateFile(
        "credentials", std::string("# realm:user:password\n\ndev:devuser:") + PASSWORD + "\n");
    ProvctlRun run =
        provctl({"key", "--device", device(), "--credentials-file", file, server.url(name)});
    expectPasswordOffEveryCommandLine(run);
}

TEST_F(ProvctlSecretsTest, credentialsOnStandardInputKeepThePasswordOffEveryCommandLine) {
    serveSlowKey();
    ProvctlRun run =
        provctl({"key", "--device", device(), "--credentials-file", "-", server.url(name)},
                std::string("dev:devuser:") + PASSWORD + "\n");
    expectPasswordOffEveryCommandLine(run);
}

TEST_F(ProvctlSecretsTest, credentialsFileThatOthersMayReadIsRefused) {
    serveSlowKey();
    std::string file =
        privateFile("credentials", std::string("dev:devuser:") + PASSWORD + "\n", 0644);
    ProvctlRun run =
        provctl({"key", "--device", device(), "--credentials-file", file, server.url(name)});
    EXPECT_EQ(run.status, 2) << run.output;
    EXPECT_NE(run.output.find(file), std::string::npos) << run.output;
    EXPECT_NE(run.output.find("mode 0644"), std::string::npos) << run.output;
    EXPECT_EQ(run.output.find(PASSWORD), std::string::npos) << run.output;
    // Readable by the group only: refused as well.
    ASSERT_EQ(::chmod(file.c_str(), 0640), 0);
    run = provctl({"key", "--device", device(), "--credentials-file", file, server.url(name)});
    EXPECT_EQ(run.status, 2) << run.output;
    EXPECT_NE(run.output.find("mode 0640"), std::string::npos) << run.output;
    // Mode 0600 but another user's file: refused too.
    ASSERT_EQ(::chmod(file.c_str(), 0600), 0);
    ASSERT_EQ(::chown(file.c_str(), 65534, 65534), 0);
    run = provctl({"key", "--device", device(), "--credentials-file", file, server.url(name)});
    EXPECT_EQ(run.status, 2) << run.output;
    EXPECT_NE(run.output.find("owner uid 65534"), std::string::npos) << run.output;
    EXPECT_TRUE(server.requestsFor(name).empty()) << server.log();
}

// A FIFO has no writer: reading it would hold provctl for ever. Refused at once instead.
TEST_F(ProvctlSecretsTest, credentialsFileThatIsAFifoIsRefusedWithoutBlocking) {
    const std::string fifo = dir.file("credentials");
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    ProvctlRun run = provctl(
        {"key", "--device", device(), "--credentials-file", fifo, "http://127.0.0.1:9/x.key"});
    EXPECT_EQ(run.status, 2) << run.output;
    EXPECT_NE(run.output.find(fifo + ": not a regular file"), std::string::npos) << run.output;
}

TEST_F(ProvctlSecretsTest, deviceTomlLargerThanAnyDeviceFileIsRefused) {
    std::string toml = device() + "/device.toml";
    writeFile(toml, "[values]\n" + std::string(1024 * 1024, '#') + "\n");
    ASSERT_EQ(::chmod(toml.c_str(), 0600), 0);
    ProvctlRun run = provctl({"resolve", "--device", device(), "x"});
    EXPECT_EQ(run.status, 2) << run.output.substr(0, 400);
    EXPECT_NE(run.output.find(toml + ": larger than 1048576 bytes"), std::string::npos)
        << run.output.substr(0, 400);
}

TEST_F(ProvctlSecretsTest, deviceTomlWithAPasswordIsReadOnlyWhenOnlyItsOwnerMayReadIt) {
    serveSlowKey();
    std::string toml = device() + "/device.toml";
    writeFile(toml, std::string("[credentials]\ndev = { user = \"devuser\", password = \"") +
                        PASSWORD + "\" }\n");
    ASSERT_EQ(::chmod(toml.c_str(), 0644), 0);
    ProvctlRun refused = provctl({"key", "--device", device(), server.url(name)});
    EXPECT_EQ(refused.status, 2) << refused.output;
    EXPECT_NE(refused.output.find(toml + " holds passwords but has mode 0644"), std::string::npos)
        << refused.output;
    EXPECT_TRUE(server.requestsFor(name).empty()) << server.log();
    // Group-writable is refused as well.
    ASSERT_EQ(::chmod(toml.c_str(), 0620), 0);
    EXPECT_EQ(provctl({"key", "--device", device(), server.url(name)}).status, 2);
    ASSERT_EQ(::chmod(toml.c_str(), 0600), 0);
    ProvctlRun accepted = provctl({"key", "--device", device(), server.url(name)});
    EXPECT_EQ(accepted.status, 0) << accepted.output;
    EXPECT_EQ(readFile(device() + "/flash/preferences/key"), KEY);
}

TEST_F(ProvctlSecretsTest, deviceTomlWithoutPasswordsMayBeReadByAll) {
    std::string toml = device() + "/device.toml";
    writeFile(toml,
              "[values]\n\"system.serial\" = \"S-17\"\n[credentials]\ndev = { user = \"devuser\", "
              "password = \"\" }\n");
    ASSERT_EQ(::chmod(toml.c_str(), 0644), 0);
    ProvctlRun run = provctl({"resolve", "--device", device(), "$(system.serial)"});
    EXPECT_EQ(run.status, 0) << run.output;
    EXPECT_NE(run.output.find("S-17"), std::string::npos) << run.output;
}

// The old form still works (and shows the password to every local user while it runs, as the
// help says).
TEST_F(ProvctlSecretsTest, credentialOptionStillWorks) {
    serveSlowKey();
    ProvctlRun run = provctl({"key", "--device", device(), "--credential",
                              std::string("dev:devuser:") + PASSWORD, server.url(name)});
    EXPECT_EQ(run.status, 0) << run.output;
    std::vector<provtest::RecordedRequest> requests = server.requestsFor(name);
    ASSERT_EQ(requests.size(), 3U) << server.log();
    EXPECT_EQ(decodeBasic(requests[2].header("Authorization")), std::string("devuser:") + PASSWORD);
    // What the watch of the other tests would have caught.
    bool seen = false;
    for (const std::string& line : run.commandLines) {
        seen = seen || line.find(PASSWORD) != std::string::npos;
    }
    EXPECT_TRUE(seen);
}

}  // namespace

namespace {

// A malformed value ("user:password", the realm forgotten) is refused without being echoed: the
// usage error goes to a terminal or a log that others may see.
TEST_F(ProvctlSecretsTest, malformedCredentialOptionIsRefusedWithoutEchoingIt) {
    ProvctlRun run = provctl({"key", "--device", device(), "--credential",
                              std::string("devuser:") + PASSWORD, "http://127.0.0.1:9/x.key"});
    EXPECT_EQ(run.status, 2) << run.output;
    EXPECT_NE(run.output.find("--credential: expected REALM:USER:PASSWORD"), std::string::npos)
        << run.output;
    EXPECT_EQ(run.output.find(PASSWORD), std::string::npos) << run.output;
}

}  // namespace
