// Passwords reach wget through a private file only: never through an argument list that every
// user of the host can read in /proc, never in a logged command line, and the file is readable by
// its owner alone and goes when the run ends, is abandoned or cannot start.
#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "integration/hardening/HardeningSupport.h"
#include "jobs/content/ConfigProvisioningJob.h"
#include "jobs/upgrade/FirmwareProvisioningJob.h"
#include "platform/StatusDb.h"
#include "platform/posix/ShellControl.h"
#include "platform/simulated/SimulatedStatusDb.h"
#include "support/FixtureServer.h"

namespace {

using namespace provtest::hardening;
using provtest::decodeBasic;
using provtest::FixtureResponse;
using provtest::FixtureServer;

// Every process's argument list (arguments joined by blanks), by pid.
std::map<int, std::string> argumentLists() {
    std::map<int, std::string> lists;
    if (DIR* proc = ::opendir("/proc")) {
        while (dirent* entry = ::readdir(proc)) {
            if (entry->d_name[0] < '0' || entry->d_name[0] > '9') {
                continue;
            }
            std::string content = readProcFile(std::atoi(entry->d_name), "cmdline");
            for (char& c : content) {
                c = c == '\0' ? ' ' : c;
            }
            lists[std::atoi(entry->d_name)] = content;
        }
        ::closedir(proc);
    }
    return lists;
}

std::string environmentOf(int pid) {
    return readProcFile(pid, "environ");
}

mode_t modeOf(const std::string& path, bool& regular, bool& directory, uid_t& owner) {
    struct stat info {};
    if (::lstat(path.c_str(), &info) != 0) {
        regular = directory = false;
        return 0;
    }
    regular = S_ISREG(info.st_mode);
    directory = S_ISDIR(info.st_mode);
    owner = info.st_uid;
    return info.st_mode & 07777;
}

std::string directoryOf(const std::string& path) {
    return path.substr(0, path.rfind('/'));
}

class SecretsTest : public DeviceTest {
  protected:
    void SetUp() override {
        DeviceTest::SetUp();
        // Unique, so that no other process of the host holds it by chance.
        password = "S3cret-" + unique;
        ASSERT_TRUE(credentials.add("vault", "keeper", password.c_str()).isSuccess());
    }
    void TearDown() override {
        ToolRecorder::RESTORE("wget");
        DeviceTest::TearDown();
    }

    // The credentials file on the last logged wget command line of the job `jobName`, as a host
    // path.
    std::string loggedConfigFile(const std::string& jobName) const {
        std::string found;
        for (const std::string& line : prov.lines()) {
            if (line.rfind("[" + jobName + "/HTTP] Invoke wget with cmdline: ", 0) != 0) {
                continue;
            }
            std::size_t at = line.find(" --config=");
            if (at != std::string::npos) {
                at += 10;
                found = line.substr(at, line.find(' ', at) - at);
            }
        }
        return found.empty() ? found : Device::MAP_PATH(found.c_str()).str();
    }

    // While a wget with the password runs: the file is private and the only channel.
    void expectPrivateChannel(const std::string& config) {
        ASSERT_EQ(config.rfind(Device::MAP_PATH("/tmp/provisioning/.wget-").str(), 0), 0U)
            << config;
        bool regular = false;
        bool directory = false;
        uid_t owner = 0;
        EXPECT_EQ(modeOf(config, regular, directory, owner), 0600U);
        EXPECT_TRUE(regular);
        EXPECT_EQ(owner, ::geteuid());
        EXPECT_EQ(modeOf(directoryOf(config), regular, directory, owner), 0700U);
        EXPECT_TRUE(directory);
        EXPECT_NE(provtest::readFile(config).find("http_password = " + password + "\n"),
                  std::string::npos);
        int wget = 0;
        for (const auto& [pid, arguments] : argumentLists()) {
            EXPECT_EQ(arguments.find(password), std::string::npos)
                << "process " << pid << ": " << arguments;
            if (arguments.find("--config=" + config) != std::string::npos) {
                wget = pid;
            }
        }
        // The look was not in vain: wget was running, and its environment is clean too.
        ASSERT_NE(wget, 0) << "no wget with --config=" << config;
        EXPECT_EQ(environmentOf(wget).find(password), std::string::npos);
    }

    ::testing::AssertionResult neverLogged() const {
        for (const provtest::CaptureMonitor* monitor : {&prov, &xfer, &event}) {
            if (monitor->contains(password)) {
                return ::testing::AssertionFailure() << "logged:\n" << monitor->dump();
            }
        }
        return ::testing::AssertionSuccess();
    }

    std::string password;
};

TEST_F(SecretsTest, passwordReachesWgetOnlyThroughItsPrivateFile) {
    FixtureServer server;
    std::string path = "/" + remote(".cfg");
    FixtureResponse challenge = FixtureResponse::challenge("Basic realm=\"vault\"");
    // The body with credentials comes slowly: wget runs while the test looks at it.
    server.route(path, {challenge, challenge, FixtureResponse::slow(NEW_CONFIG, 4, 100)});
    ASSERT_TRUE(server.start());
    ConfigProvisioningJob job(loop, "vault", ProvisioningJob::None, false,
                              {server.url(path).c_str()}, credentials, resolver, handler);
    ASSERT_TRUE(job.execute().isSuccess());
    ASSERT_TRUE(runUntilPolled(
        loop, [&] { return server.requestsFor(path).size() == 3 || !handler.results.empty(); },
        30s))
        << prov.dump();
    std::string config = loggedConfigFile("vault");
    expectPrivateChannel(config);

    ASSERT_TRUE(runToEnd());
    EXPECT_TRUE(told().isSuccess()) << told().toString().c_str() << "\n" << prov.dump();
    std::vector<provtest::RecordedRequest> requests = server.requestsFor(path);
    ASSERT_EQ(requests.size(), 3U);
    EXPECT_EQ(decodeBasic(requests[2].header("Authorization")), "keeper:" + password);
    // The run has ended: its private directory is gone with the file.
    EXPECT_FALSE(provtest::fileExists(config));
    EXPECT_FALSE(provtest::fileExists(directoryOf(config)));
    EXPECT_TRUE(neverLogged());
    EXPECT_TRUE(deviceChangedOnly("config/startup-config", NEW_CONFIG));
}

// A password written into the location takes the same road, and the location shows masked in
// every line, the transfer log and the status record.
TEST_F(SecretsTest, passwordInALocationReachesWgetOnlyThroughItsPrivateFile) {
    FixtureServer server;
    std::string path = "/" + remote(".cfg");
    FixtureResponse challenge = FixtureResponse::challenge("Basic realm=\"elsewhere\"");
    server.route(path, {challenge, challenge, FixtureResponse::slow(NEW_CONFIG, 4, 100)});
    ASSERT_TRUE(server.start());
    const std::string hostPart = server.url(path).substr(7);
    ConfigProvisioningJob job(loop, "inline", ProvisioningJob::None, false,
                              {("http://keeper:" + password + "@" + hostPart).c_str()}, credentials,
                              resolver, handler);
    ASSERT_TRUE(job.execute().isSuccess());
    const std::string shown = "http://***@" + hostPart;
    EXPECT_EQ(DB::Table::SimulatedProvisioningStatus::RECORD()->location.get().str(), shown);
    ASSERT_TRUE(runUntilPolled(
        loop, [&] { return server.requestsFor(path).size() == 3 || !handler.results.empty(); },
        30s))
        << prov.dump();
    std::string config = loggedConfigFile("inline");
    expectPrivateChannel(config);

    ASSERT_TRUE(runToEnd());
    EXPECT_TRUE(told().isSuccess()) << told().toString().c_str() << "\n" << prov.dump();
    std::vector<provtest::RecordedRequest> requests = server.requestsFor(path);
    ASSERT_EQ(requests.size(), 3U);
    EXPECT_FALSE(requests[0].hasHeader("Authorization"));
    EXPECT_EQ(decodeBasic(requests[2].header("Authorization")), "keeper:" + password);
    EXPECT_FALSE(provtest::fileExists(config));
    EXPECT_TRUE(neverLogged());
    EXPECT_EQ(job.getDownloadLocation().str(), shown);
    EXPECT_GE(xfer.indexOf("inline : " + shown + " -> startup-config : succeeded"), 0)
        << xfer.dump();
    EXPECT_TRUE(deviceChangedOnly("config/startup-config", NEW_CONFIG));
}

TEST_F(SecretsTest, privateFileGoesWhenTheRunIsAbandoned) {
    FixtureServer server;
    std::string path = "/" + remote(".cfg");
    FixtureResponse challenge = FixtureResponse::challenge("Basic realm=\"vault\"");
    // A body of ten minutes: only abandoning ends this run.
    server.route(path,
                 {challenge, challenge, FixtureResponse::slow(std::string(600, 'x'), 1, 1000)});
    ASSERT_TRUE(server.start());
    auto job = std::make_unique<ConfigProvisioningJob>(loop, "gone", ProvisioningJob::None, false,
                                                       KtList<String>{server.url(path).c_str()},
                                                       credentials, resolver, handler);
    ASSERT_TRUE(job->execute().isSuccess());
    ASSERT_TRUE(runUntilPolled(
        loop, [&] { return server.requestsFor(path).size() == 3 || !handler.results.empty(); },
        30s))
        << prov.dump();
    std::string config = loggedConfigFile("gone");
    expectPrivateChannel(config);

    job.reset();
    EXPECT_TRUE(Kt::ShellControl::WAIT_FOR_RUNNING_COMMANDS(0, 20s));
    loop.runPending();
    EXPECT_TRUE(handler.results.empty());
    EXPECT_FALSE(provtest::fileExists(config));
    EXPECT_FALSE(provtest::fileExists(directoryOf(config)));
    EXPECT_TRUE(neverLogged());
    EXPECT_TRUE(deviceUnchanged());
}

TEST_F(SecretsTest, privateFileGoesWhenWgetCannotStartForTheRetry) {
    FixtureServer server;
    std::string path = "/" + remote(".cfg");
    server.route(path, {FixtureResponse::challenge("Basic realm=\"vault\"")});
    ASSERT_TRUE(server.start());
    ConfigProvisioningJob job(loop, "nostart", ProvisioningJob::None, false,
                              {server.url(path).c_str()}, credentials, resolver, handler);
    ASSERT_TRUE(job.execute().isSuccess());
    // The first run's result is handled; the retry with credentials starts in the next event.
    ASSERT_TRUE(loop.runUntil(
        [this] { return prov.contains("[nostart/HTTP] Handle result of wget: "); }, 30s))
        << prov.dump();
    Kt::ShellControl::SET_TOOL("wget", {"/nonexistent/wget"});
    ASSERT_TRUE(runToEnd());
    EXPECT_EQ(told().getString(), "CANNOT START wget: No such file or directory");
    std::string config = loggedConfigFile("nostart");
    ASSERT_EQ(config.rfind(Device::MAP_PATH("/tmp/provisioning/.wget-").str(), 0), 0U)
        << prov.dump();
    EXPECT_FALSE(provtest::fileExists(config));
    EXPECT_FALSE(provtest::fileExists(directoryOf(config)));
    EXPECT_TRUE(neverLogged());
    EXPECT_TRUE(deviceUnchanged());
}

// The update controller fetches a bare manifest's image itself, with the realm's credentials.
TEST_F(SecretsTest, passwordStaysOffTheUpdateControllersCommandLine) {
    FixtureServer server;
    std::string directory = "/" + unique + "/";
    std::string manifest = "sw_type=X\nsw_version=9.9\nsw_build_num=1\nimage=image.bin\n";
    FixtureResponse challenge = FixtureResponse::challenge("Basic realm=\"vault\"");
    // A name ending in "manifest" chooses the manifest flow; the work file stays the test's own.
    std::string manifestName = remote("-manifest");
    server.route(directory + manifestName, {challenge, challenge, FixtureResponse::ok(manifest)});
    server.route(directory + "image.bin",
                 {challenge, FixtureResponse::slow(std::string(40, 'i'), 2, 100)});
    ASSERT_TRUE(server.start());
    FirmwareProvisioningJob job(loop, "fw", ProvisioningJob::None, false,
                                {server.url(directory + manifestName).c_str()}, credentials,
                                resolver, handler, "", "", "", 1, 1);
    ASSERT_TRUE(job.execute().isSuccess());
    ASSERT_TRUE(runUntilPolled(
        loop,
        [&] {
            return server.requestsFor(directory + "image.bin").size() == 2 ||
                   !handler.results.empty();
        },
        30s))
        << prov.dump();
    // The controller logs no command line: its wget is found by the private file it names.
    std::string config;
    for (const auto& [pid, arguments] : argumentLists()) {
        std::size_t at =
            arguments.find("--config=" + Device::MAP_PATH("/tmp/provisioning/.wget-").str());
        if (at != std::string::npos && arguments.find("image.bin") != std::string::npos) {
            at += 9;
            config = arguments.substr(at, arguments.find(' ', at) - at);
        }
    }
    expectPrivateChannel(config);

    ASSERT_TRUE(runToEnd());
    EXPECT_TRUE(told().isSuccess()) << told().toString().c_str() << "\n" << prov.dump();
    std::vector<provtest::RecordedRequest> requests = server.requestsFor(directory + "image.bin");
    ASSERT_EQ(requests.size(), 2U);
    EXPECT_EQ(decodeBasic(requests[1].header("Authorization")), "keeper:" + password);
    EXPECT_FALSE(provtest::fileExists(config));
    EXPECT_FALSE(provtest::fileExists(directoryOf(config)));
    EXPECT_TRUE(neverLogged());
    // Only the image slot and its state changed.
    std::string changes = describeChanges(before, snapshotFiles(device.path()));
    std::size_t line = 0;
    while (line < changes.size()) {
        std::size_t end = changes.find('\n', line);
        std::string change = changes.substr(line, end - line);
        EXPECT_NE(change.find(" slots/"), std::string::npos) << change;
        line = end + 1;
    }
}

}  // namespace
