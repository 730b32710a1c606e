// The work directory of a simulated device, and the files that jobs replace in its flash: each
// device has a private work directory that is refused when another user could reach into it,
// and a file in flash keeps its mode and is never read, replaced or removed through a link.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "integration/hardening/HardeningSupport.h"
#include "jobs/content/ConfigProvisioningJob.h"
#include "jobs/content/DialplanProvisioningJob.h"
#include "jobs/content/KeyProvisioningJob.h"
#include "support/FixtureServer.h"
#include "support/HttpServer.h"
#include "support/Process.h"
#include "support/TftpServer.h"

namespace provtest::hardening {
namespace {

namespace fs = std::filesystem;

unsigned int modeOf(const std::string& path) {
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0 ? status.st_mode & 07777 : 0xFFFFFFFF;
}

bool isLink(const std::string& path) {
    struct stat status {};
    return ::lstat(path.c_str(), &status) == 0 && S_ISLNK(status.st_mode);
}

std::vector<std::string> namesIn(const std::string& directory) {
    std::vector<std::string> names;
    std::error_code error;
    for (const auto& entry : fs::directory_iterator(directory, error)) {
        names.push_back(entry.path().filename().string());
    }
    return names;
}

// A job of the device, run against real servers.
class WorkDirectoryTest : public DeviceTest {
  protected:
    std::string workDirectory() const { return device.file("tmp/provisioning"); }

    void runConfigJob(const String& location) {
        job = configJob(location);
        static_cast<void>(job->execute());  // a start error is told to the handler as well
    }
    // The device's file at `path` becomes a link to `target`, a file outside that holds
    // "outside\n".
    static void plantLink(const std::string& path, const std::string& target) {
        writeFile(target, "outside\n");
        ASSERT_EQ(::unlink(path.c_str()), 0);
        ASSERT_EQ(::symlink(target.c_str(), path.c_str()), 0);
    }
    void runKeyJob(const String& location) {
        job = std::make_unique<KeyProvisioningJob>(loop, "key", ProvisioningJob::None, true,
                                                   KtList<String>{location}, credentials, resolver,
                                                   handler);
        static_cast<void>(job->execute());
    }
    void runDialplanJob(const String& location) {
        job = std::make_unique<DialplanProvisioningJob>(
            loop, "plan", "dialplan:office", ProvisioningJob::None, true, KtList<String>{location},
            credentials, resolver, handler);
        static_cast<void>(job->execute());
    }

    // The unsafe work directory is named in the result, nothing was written through it and
    // nothing in flash or the configuration store changed.
    void expectRefused(const std::string& reason, const std::string& untouched) {
        ASSERT_TRUE(runToEnd());
        const std::string message = told().getString().str();
        EXPECT_EQ(message, "UNSAFE WORK DIRECTORY " + workDirectory() + ": " + reason);
        EXPECT_TRUE(namesIn(untouched).empty()) << untouched;
        EXPECT_TRUE(deviceUnchanged());
    }

    TftpServer tftp;
    HttpServer http;
    std::unique_ptr<ProvisioningJob> job;
};

// --- One work directory per device -----------------------------------------------------------

// A firmware archive "fw.tar" whose manifest names `version`.
std::string firmwareArchive(const std::string& version) {
    TempDir staging("prov-workdir-fw");
    writeFile(staging.file("manifest"),
              "sw_type=GW\nsw_version=" + version + "\nsw_build_num=1\nimage=image\n");
    writeFile(staging.file("image"), "IMAGE " + version + "\n");
    const std::string archive = staging.file("fw.tar");
    CommandResult made =
        runCommand({"/bin/tar", "cf", archive, "-C", staging.path(), "manifest", "image"});
    EXPECT_EQ(made.exitStatus, 0) << made.output;
    return readFile(archive);
}

TEST(WorkDirectoryPerDeviceTest, twoDevicesAtOnceNeverSeeEachOthersWorkFilesOrManifest) {
    const std::vector<std::string> versions{"7.1", "9.4"};
    std::vector<std::unique_ptr<TempDir>> devices;
    std::vector<std::unique_ptr<FixtureServer>> servers;
    std::vector<std::unique_ptr<ServerProcess>> runs;
    std::vector<std::string> errPaths;
    std::vector<std::string> archives;
    TempDir logs("prov-workdir-logs");
    for (std::size_t i = 0; i < versions.size(); ++i) {
        devices.push_back(std::make_unique<TempDir>("prov-workdir-device"));
        servers.push_back(std::make_unique<FixtureServer>());
        archives.push_back(firmwareArchive(versions[i]));
        // Sent in slices, so that both jobs are under way together.
        servers.back()->route("/fw.tar", {FixtureResponse::slow(archives.back(), 2048, 10)});
        ASSERT_TRUE(servers.back()->start());
    }
    for (std::size_t i = 0; i < versions.size(); ++i) {
        errPaths.push_back(logs.file("err-" + std::to_string(i)));
        int errFd = ::open(errPaths.back().c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
        int nullFd = ::open("/dev/null", O_RDWR | O_CLOEXEC);
        SpawnSpec spec;
        spec.argv = {PROV_PROVCTL, "firmware",         "-v",
                     "--device",   devices[i]->path(), servers[i]->url("/fw.tar")};
        spec.env = {"PATH=/usr/local/bin:/usr/bin:/bin:/usr/sbin:/sbin", "LC_ALL=C",
                    "HOME=" + logs.path()};
        spec.fds = {{0, nullFd}, {1, nullFd}, {2, errFd}};
        runs.push_back(std::make_unique<ServerProcess>());
        EXPECT_TRUE(runs.back()->spawn(spec));
        ::close(errFd);
        ::close(nullFd);
    }
    for (std::size_t i = 0; i < versions.size(); ++i) {
        ASSERT_TRUE(runs[i]->waitExit(DEFAULT_DEADLINE)) << "provctl did not end";
        const std::string err = readFile(errPaths[i]);
        const std::string own = "sw_version=" + versions[i];
        const std::string other = "sw_version=" + versions[1 - i];
        const std::string work = devices[i]->file("tmp/provisioning");
        EXPECT_EQ(modeOf(work), 0700U);
        EXPECT_TRUE(readFile(work + "/fw.tar") == archives[i]) << err;
        EXPECT_NE(readFile(work + "/manifest").find(own), std::string::npos) << err;
        EXPECT_NE(err.find(own), std::string::npos) << err;
        EXPECT_EQ(err.find(other), std::string::npos) << err;
    }
}

// --- An unsafe work directory is refused -----------------------------------------------------

TEST_F(WorkDirectoryTest, workDirectoryOfAnotherUserIsRefusedForATftpDownload) {
    ASSERT_EQ(::chown(workDirectory().c_str(), 65534, 65534), 0);
    const std::string name = remote(".cfg");
    tftp.put(name, NEW_CONFIG);
    ASSERT_TRUE(tftp.start());
    runConfigJob(String::format("tftp://127.0.0.1:%u/%s", tftp.port(), name.c_str()));
    expectRefused("owned by uid 65534, not " + std::to_string(::geteuid()), workDirectory());
    EXPECT_EQ(storedConfig(), OLD_CONFIG);
}

TEST_F(WorkDirectoryTest, workDirectoryWritableByOthersIsRefusedForAnHttpDownload) {
    ASSERT_EQ(::chmod(workDirectory().c_str(), 0777), 0);
    const std::string name = remote(".cfg");
    http.put("/" + name, NEW_CONFIG);
    ASSERT_TRUE(http.start());
    runConfigJob(http.url("/" + name).c_str());
    expectRefused("mode 0777, writable by group or others", workDirectory());
    EXPECT_EQ(storedConfig(), OLD_CONFIG);
}

TEST_F(WorkDirectoryTest, workDirectoryThatIsALinkIsRefusedAndNothingIsWrittenThroughIt) {
    TempDir elsewhere("prov-workdir-elsewhere");
    ASSERT_EQ(::chmod(elsewhere.path().c_str(), 0700), 0);
    ASSERT_EQ(::rmdir(workDirectory().c_str()), 0);
    ASSERT_EQ(::symlink(elsewhere.path().c_str(), workDirectory().c_str()), 0);
    const std::string name = remote(".cfg");
    http.put("/" + name, NEW_CONFIG);
    ASSERT_TRUE(http.start());
    runConfigJob(http.url("/" + name).c_str());
    expectRefused("symbolic link", elsewhere.path());
    EXPECT_TRUE(isLink(workDirectory()));
}

TEST_F(WorkDirectoryTest, freshDeviceHasAPrivateWorkDirectoryAndPrivateWorkFiles) {
    EXPECT_EQ(modeOf(workDirectory()), 0700U);
    const std::string name = remote(".key");
    tftp.put(name, "new key\n");
    ASSERT_TRUE(tftp.start());
    mode_t previous = ::umask(022);
    runKeyJob(String::format("tftp://127.0.0.1:%u/%s", tftp.port(), name.c_str()));
    ::umask(previous);
    ASSERT_TRUE(runToEnd());
    EXPECT_TRUE(told().isSuccess()) << told().toString().c_str() << "\n" << prov.dump();
    EXPECT_EQ(readFile(workFileOf(name)), "new key\n");
    EXPECT_EQ(modeOf(workFileOf(name)), 0600U);
}

// --- Modes and links in flash ----------------------------------------------------------------

TEST_F(WorkDirectoryTest, storedKeyKeepsItsModeWhenADownloadReplacesIt) {
    const std::string key = device.file("flash/preferences/key");
    ASSERT_TRUE(http.start());
    // 0660 cannot come out of the default mode 0644 under any umask.
    for (unsigned int mode : {0600U, 0660U}) {
        SCOPED_TRACE(mode);
        ASSERT_EQ(::chmod(key.c_str(), mode), 0);
        const std::string name = remote("-" + std::to_string(mode) + ".key");
        http.put("/" + name, "replaced key " + std::to_string(mode) + "\n");
        handler.results.clear();
        runKeyJob(http.url("/" + name).c_str());
        ASSERT_TRUE(runToEnd());
        EXPECT_TRUE(told().isSuccess()) << told().toString().c_str() << "\n" << prov.dump();
        EXPECT_EQ(readFile(key), "replaced key " + std::to_string(mode) + "\n");
        EXPECT_EQ(modeOf(key), mode);
    }
}

TEST_F(WorkDirectoryTest, storedDialplanKeepsItsModeWhenADownloadReplacesIt) {
    const std::string plan = device.file("flash/dialplan/office");
    ASSERT_EQ(::chmod(plan.c_str(), 0660), 0);
    const std::string name = remote(".plan");
    tftp.put(name, "new plan\n");
    ASSERT_TRUE(tftp.start());
    runDialplanJob(String::format("tftp://127.0.0.1:%u/%s", tftp.port(), name.c_str()));
    ASSERT_TRUE(runToEnd());
    EXPECT_EQ(readFile(plan), "new plan\n") << prov.dump();
    EXPECT_EQ(modeOf(plan), 0660U);
}

// As a truncating write keeps them: the owner and group of a key that belongs to another user.
TEST_F(WorkDirectoryTest, storedKeyKeepsItsOwnerWhenADownloadReplacesIt) {
    const std::string key = device.file("flash/preferences/key");
    ASSERT_EQ(::chown(key.c_str(), 65534, 65534), 0);
    const std::string name = remote(".key");
    tftp.put(name, "owned key\n");
    ASSERT_TRUE(tftp.start());
    runKeyJob(String::format("tftp://127.0.0.1:%u/%s", tftp.port(), name.c_str()));
    ASSERT_TRUE(runToEnd());
    EXPECT_EQ(readFile(key), "owned key\n") << prov.dump();
    struct stat status {};
    ASSERT_EQ(::stat(key.c_str(), &status), 0);
    EXPECT_EQ(status.st_uid, 65534U);
    EXPECT_EQ(status.st_gid, 65534U);
}

TEST_F(WorkDirectoryTest, newKeyIsReadableByItsOwnerOnly) {
    const std::string key = device.file("flash/preferences/key");
    ASSERT_EQ(::unlink(key.c_str()), 0);
    const std::string name = remote(".key");
    tftp.put(name, "first key\n");
    ASSERT_TRUE(tftp.start());
    mode_t previous = ::umask(022);
    runKeyJob(String::format("tftp://127.0.0.1:%u/%s", tftp.port(), name.c_str()));
    ::umask(previous);
    ASSERT_TRUE(runToEnd());
    EXPECT_TRUE(told().isSuccess()) << told().toString().c_str() << "\n" << prov.dump();
    EXPECT_EQ(readFile(key), "first key\n");
    EXPECT_EQ(modeOf(key), 0600U);
}

TEST_F(WorkDirectoryTest, keyThatIsALinkIsNeitherFollowedNorReplaced) {
    TempDir outside("prov-workdir-outside");
    const std::string target = outside.file("secret");
    const std::string key = device.file("flash/preferences/key");
    plantLink(key, target);
    const std::string name = remote(".key");
    http.put("/" + name, "hostile key\n");
    ASSERT_TRUE(http.start());
    runKeyJob(http.url("/" + name).c_str());
    ASSERT_TRUE(runToEnd());
    EXPECT_EQ(told().getString(), String("CANNOT REPLACE /flash/preferences/key: symbolic link"));
    EXPECT_TRUE(xfer.contains("CANNOT REPLACE /flash/preferences/key: symbolic link"))
        << xfer.dump();
    // Compared first: the stored copy is not read through the link either.
    EXPECT_TRUE(
        prov.contains("[key] No stored key: CANNOT OPEN /flash/preferences/key: "
                      "symbolic link"))
        << prov.dump();
    EXPECT_EQ(readFile(target), "outside\n");
    EXPECT_TRUE(isLink(key));
    EXPECT_EQ(fs::read_symlink(key).string(), target);
}

TEST_F(WorkDirectoryTest, dialplanInALinkedDirectoryIsNeitherFollowedNorReplaced) {
    TempDir outside("prov-workdir-outside");
    writeFile(outside.file("office"), "outside\n");
    const std::string plans = device.file("flash/dialplan");
    fs::remove_all(plans);
    ASSERT_EQ(::symlink(outside.path().c_str(), plans.c_str()), 0);
    const std::string name = remote(".plan");
    tftp.put(name, "hostile plan\n");
    ASSERT_TRUE(tftp.start());
    runDialplanJob(String::format("tftp://127.0.0.1:%u/%s", tftp.port(), name.c_str()));
    ASSERT_TRUE(runToEnd());
    EXPECT_TRUE(told().isErr());
    EXPECT_TRUE(xfer.contains("CANNOT REPLACE /flash/dialplan/office: symbolic link"))
        << xfer.dump();
    EXPECT_EQ(readFile(outside.file("office")), "outside\n");
    EXPECT_EQ(namesIn(outside.path()).size(), 1U);
    EXPECT_TRUE(isLink(plans));
}

TEST_F(WorkDirectoryTest, dialplanThatIsALinkIsNeitherFollowedNorReplaced) {
    TempDir outside("prov-workdir-outside");
    const std::string target = outside.file("plan");
    const std::string plan = device.file("flash/dialplan/office");
    plantLink(plan, target);
    const std::string name = remote(".plan");
    http.put("/" + name, "hostile plan\n");
    ASSERT_TRUE(http.start());
    runDialplanJob(http.url("/" + name).c_str());
    ASSERT_TRUE(runToEnd());
    EXPECT_TRUE(told().isErr());
    EXPECT_TRUE(xfer.contains("CANNOT REPLACE /flash/dialplan/office: symbolic link"))
        << xfer.dump();
    EXPECT_EQ(readFile(target), "outside\n");
    EXPECT_TRUE(isLink(plan));
}

}  // namespace
}  // namespace provtest::hardening
