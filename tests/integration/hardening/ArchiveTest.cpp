// Hostile archives and work-file names: archives made with the real GNU tar whose member
// "manifest" is a symbolic link, a hard link, a directory tree, a FIFO, a device node or a
// compressed size bomb, served by tftpd-hpa to the firmware and script jobs; and a link planted
// at a work file's name before a download. Nothing outside the work directory may be read,
// logged or written, the job must end, and nothing refused may stay behind.

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "engine/Monitors.h"
#include "jobs/content/ConfigProvisioningJob.h"
#include "jobs/upgrade/FirmwareProvisioningJob.h"
#include "jobs/upgrade/ScriptProvisioningJob.h"
#include "platform/FileNode.h"
#include "platform/Shell.h"
#include "platform/StatusDb.h"
#include "platform/UpdateController.h"
#include "platform/posix/FileNodeCaps.h"
#include "platform/posix/ShellControl.h"
#include "platform/simulated/DeviceDirectory.h"
#include "platform/simulated/SimulatedUpdateController.h"
#include "platform/testing/StatusDbHooks.h"
#include "support/CaptureMonitor.h"
#include "support/TempDir.h"
#include "support/TftpServer.h"
#include "support/UpgradeSupport.h"

namespace {

using namespace std::chrono_literals;
using provtest::CaptureMonitor;

const std::string MANIFEST_PATH = "/tmp/provisioning/manifest";

// Opens a FIFO's writing end once, after a deadline, if the test is still running then: a job
// blocked in opening the FIFO for reading is released, and fails the test instead of hanging it.
class FifoRelease {
  public:
    explicit FifoRelease(std::string fifo) : fifo_(std::move(fifo)), thread_([this] { run(); }) {}
    ~FifoRelease() {
        {
            std::lock_guard<std::mutex> lock(mutex_);
            done_ = true;
        }
        changed_.notify_all();
        thread_.join();
    }
    bool released() const { return released_; }

  private:
    void run() {
        std::unique_lock<std::mutex> lock(mutex_);
        while (!done_) {
            if (!changed_.wait_for(lock, 10s, [this] { return done_; })) {
                int fd = ::open(fifo_.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
                if (fd >= 0) {
                    released_ = true;
                    ::close(fd);
                }
            }
        }
    }

    std::string fifo_;
    std::mutex mutex_;
    std::condition_variable changed_;
    bool done_ = false;
    std::atomic<bool> released_{false};
    std::thread thread_;
};

class ArchiveTest : public ::testing::Test {
  protected:
    void SetUp() override {
        Device::SET_ROOT(device.path().c_str());
        ASSERT_TRUE(Device::PREPARE().isSuccess());
        DB::Table::ProvisioningStatusHooks::RESET();
        Kt::ShellControl::SET_TOOL("tftp", {"busybox", "tftp"});
        MON_PROV = &prov;
        MON_XFER = &xfer;
        MON_EVENT = &event;
        unique = provtest::uniqueName("arc");
        secret = "sw_type=X\nsw_version=9.9\nsw_build_num=1\n# SECRET-" + unique + "\n";
        provtest::writeFile(outside.file("secret"), secret);
        ASSERT_EQ(::chmod(outside.file("secret").c_str(), 0600), 0);
        ASSERT_TRUE(server.start());
    }
    void TearDown() override {
        firmware.reset();
        script.reset();
        config.reset();
        EXPECT_TRUE(UpdateController::WAIT_IDLE(60s));
        MON_PROV = nullptr;
        MON_XFER = nullptr;
        MON_EVENT = nullptr;
        FileNode::SET_MANIFEST_CAP(FileNode::DEFAULT_MANIFEST_CAP);
        FileNode::SET_CONTENT_CAP(FileNode::DEFAULT_CONTENT_CAP);
        for (const std::string& name :
             {unique + ".tar", unique + ".manifest", unique + ".cfg", unique + "-other"}) {
            static_cast<void>(FileNode::REMOVE_WITHOUT_FOLLOWING(workPath(name).c_str()));
        }
    }

    static std::string workPath(const std::string& name) {
        return Device::MAP_PATH(("/tmp/provisioning/" + name).c_str()).str();
    }
    std::string location(const std::string& name) const {
        return "tftp://127.0.0.1:" + std::to_string(server.port()) + "/" + name;
    }

    // Serves the archive of `members` of the staging directory as <unique>.tar.
    void serveArchive(const std::vector<std::string>& members) {
        const std::string archive = archives.file(unique + ".tar");
        ASSERT_TRUE(provtest::makeTar(archive, staging.path(), members));
        server.put(unique + ".tar", provtest::readFile(archive));
    }

    template <typename Job>
    Job& make(std::unique_ptr<Job>& job, const std::string& name) {
        KtList<String> locations;
        locations.pushBack(location(name).c_str());
        if constexpr (std::is_same_v<Job, FirmwareProvisioningJob>) {
            job = std::make_unique<Job>(loop, unique.c_str(), ProvisioningJob::None, true,
                                        locations, credentials, resolver, handler, "X 1.0 1",
                                        "X 1.1 1", "X 1.2 7", 2, 1);
        } else {
            job = std::make_unique<Job>(loop, unique.c_str(), ProvisioningJob::None, false,
                                        locations, credentials, resolver, handler);
        }
        return *job;
    }

    // Executes the job and waits, with a deadline, for its one report.
    XCode run(ProvisioningJob& job) {
        const std::size_t before = handler.results.size();
        XCode started = job.execute();
        if (started.isSuccess()) {
            EXPECT_TRUE(loop.runUntil([&] { return handler.results.size() > before; }, 60s))
                << prov.dump();
        }
        EXPECT_TRUE(UpdateController::WAIT_IDLE(60s));
        loop.runPending();
        EXPECT_EQ(handler.results.size(), before + 1) << prov.dump();
        return handler.results.empty() ? XCode(XCode::SUCCESS) : handler.results.back();
    }
    XCode runFirmware(const std::string& name) { return run(make(firmware, name)); }

    bool anyLogHolds(const std::string& text) const {
        return prov.contains(text) || xfer.contains(text) || event.contains(text);
    }
    void expectSecretSafe() {
        EXPECT_EQ(provtest::readFile(outside.file("secret")), secret);
        struct stat status {};
        ASSERT_EQ(::stat(outside.file("secret").c_str(), &status), 0);
        EXPECT_EQ(status.st_nlink, 1u);
        EXPECT_FALSE(anyLogHolds("SECRET-" + unique)) << prov.dump() << xfer.dump();
    }
    static bool manifestLeft() {
        struct stat status {};
        return ::lstat(Device::MAP_PATH(MANIFEST_PATH.c_str()).c_str(), &status) == 0;
    }

    provtest::TempDir device{"prov-archive"};
    provtest::TempDir staging{"prov-archive-src"};
    provtest::TempDir archives{"prov-archive-tar"};
    provtest::TempDir outside{"prov-archive-outside"};
    provtest::TftpServer server;
    KtEventLoop loop;
    ProvisioningCredentials credentials;
    ExpressionResolver resolver;
    provtest::RecordingJobHandler handler;
    CaptureMonitor prov{"PROV"};
    CaptureMonitor xfer{"XFER"};
    CaptureMonitor event{"EVENT"};
    std::string unique;
    std::string secret;
    std::unique_ptr<FirmwareProvisioningJob> firmware;
    std::unique_ptr<ScriptProvisioningJob> script;
    std::unique_ptr<ConfigProvisioningJob> config;
};

// --- Links and special files ---

TEST_F(ArchiveTest, manifestLinkingToARootOnlyFileIsRefusedUnreadAndRemoved) {
    ASSERT_EQ(::symlink(outside.file("secret").c_str(), staging.file("manifest").c_str()), 0);
    serveArchive({"manifest"});
    XCode result = runFirmware(unique + ".tar");
    EXPECT_EQ(result.getString(), "UNSAFE MEMBER IN ARCHIVE: manifest is a symbolic link");
    EXPECT_GE(xfer.find("UNSAFE MEMBER IN ARCHIVE: manifest is a symbolic link"), 0) << xfer.dump();
    EXPECT_FALSE(manifestLeft());
    expectSecretSafe();
}

// GNU tar follows a link that it finds at a path's directory part: a link left at "manifest"
// (by an earlier run, or anyone who could write the work directory) would have the member
// "manifest/x" written into whatever directory the link names. It goes before tar runs.
TEST_F(ArchiveTest, linkAtTheManifestsNameIsRemovedBeforeTarCanWriteThroughIt) {
    provtest::writeFile(staging.file("manifest/x"), "written through the link");
    serveArchive({"manifest/x"});
    ASSERT_EQ(::symlink(outside.path().c_str(), Device::MAP_PATH(MANIFEST_PATH.c_str()).c_str()),
              0);
    XCode result = runFirmware(unique + ".tar");
    EXPECT_EQ(result.getString(), "UNSAFE MEMBER IN ARCHIVE: manifest is a directory");
    EXPECT_FALSE(provtest::fileExists(outside.file("x")));
    EXPECT_FALSE(manifestLeft());
    expectSecretSafe();
}

TEST_F(ArchiveTest, manifestHardLinkedToAnotherWorkFileIsRefusedAndTheOtherFileKept) {
    // The member is a hard link to "<unique>-other", which tar links to the file of that name in
    // the work directory: another job's download, say a key.
    const std::string other = unique + "-other";
    provtest::writeFile(staging.file(other), "placeholder in the archive");
    ASSERT_EQ(::link(staging.file(other).c_str(), staging.file("manifest").c_str()), 0);
    serveArchive({other, "manifest"});
    provtest::writeFile(workPath(other), secret);
    XCode result = run(make(script, unique + ".tar"));
    EXPECT_EQ(result.getString(), "UNSAFE MEMBER IN ARCHIVE: manifest has 2 links");
    EXPECT_FALSE(manifestLeft());
    EXPECT_EQ(provtest::readFile(workPath(other)), secret);
    struct stat status {};
    ASSERT_EQ(::stat(workPath(other).c_str(), &status), 0);
    EXPECT_EQ(status.st_nlink, 1u);
    EXPECT_FALSE(anyLogHolds("SECRET-" + unique)) << prov.dump();
}

TEST_F(ArchiveTest, manifestDirectoryIsRefusedAndRemovedWithEverythingInIt) {
    provtest::writeFile(staging.file("manifest/a"), "a");
    provtest::writeFile(staging.file("manifest/b/c"), "c");
    ASSERT_EQ(::symlink(outside.path().c_str(), staging.file("manifest/b/out").c_str()), 0);
    serveArchive({"manifest"});
    XCode result = runFirmware(unique + ".tar");
    EXPECT_EQ(result.getString(), "UNSAFE MEMBER IN ARCHIVE: manifest is a directory");
    EXPECT_FALSE(manifestLeft());
    expectSecretSafe();
}

TEST_F(ArchiveTest, manifestFifoNeitherBlocksTheJobNorStays) {
    ASSERT_EQ(::mkfifo(staging.file("manifest").c_str(), 0644), 0);
    serveArchive({"manifest"});
    FifoRelease release(Device::MAP_PATH(MANIFEST_PATH.c_str()).str());
    XCode result = run(make(script, unique + ".tar"));
    EXPECT_FALSE(release.released()) << "the job blocked in opening the FIFO";
    EXPECT_EQ(result.getString(), "UNSAFE MEMBER IN ARCHIVE: manifest is a FIFO");
    EXPECT_FALSE(manifestLeft());
}

TEST_F(ArchiveTest, manifestDeviceNodeIsRefusedUnread) {
    ASSERT_EQ(::mknod(staging.file("manifest").c_str(), S_IFCHR | 0644, makedev(1, 5)), 0);
    serveArchive({"manifest"});
    XCode result = runFirmware(unique + ".tar");
    EXPECT_EQ(result.getString(), "UNSAFE MEMBER IN ARCHIVE: manifest is a character device");
    EXPECT_FALSE(manifestLeft());
}

TEST_F(ArchiveTest, linkPlantedAtTheWorkFilesNameIsNotWrittenThrough) {
    provtest::writeFile(outside.file("target"), "untouched");
    ASSERT_EQ(::symlink(outside.file("target").c_str(), workPath(unique + ".manifest").c_str()), 0);
    server.put(unique + ".manifest",
               "sw_type=X\nsw_version=1.2\nsw_build_num=7\n# downloaded " + unique + "\n");
    XCode result = runFirmware(unique + ".manifest");
    EXPECT_TRUE(result.isSuccess()) << result.toString().c_str() << prov.dump();
    EXPECT_EQ(provtest::readFile(outside.file("target")), "untouched");
    FileNode::Info info;
    ASSERT_TRUE(FileNode::INSPECT(workPath(unique + ".manifest").c_str(), info).isSuccess());
    EXPECT_TRUE(FileNode::IS_PLAIN_FILE(info)) << FileNode::WHY_NOT_PLAIN(info).c_str();
    EXPECT_GE(prov.find("# downloaded " + unique), 0) << prov.dump();
}

// --- Size bombs ---

TEST_F(ArchiveTest, compressedManifestBombStopsAtTheCapAndLeavesNothing) {
    // 256 MiB of zeros (a sparse file, made at once) compress to about 256 KiB.
    const std::string manifest = staging.file("manifest");
    provtest::writeFile(manifest, "");
    ASSERT_EQ(::truncate(manifest.c_str(), 256L << 20), 0);
    const std::string archive = archives.file(unique + ".tar");
    provtest::CommandResult made =
        provtest::runCommand({"/bin/tar", "czf", archive, "-C", staging.path(), "manifest"});
    ASSERT_EQ(made.exitStatus, 0) << made.output;
    server.put(unique + ".tar", provtest::readFile(archive));
    XCode result = runFirmware(unique + ".tar");
    EXPECT_EQ(result.getString(),
              "FILE TOO LARGE: tar tried to write more than 65536 bytes to a file");
    EXPECT_FALSE(manifestLeft());
}

TEST_F(ArchiveTest, manifestOverALoweredCapIsRefused) {
    FileNode::SET_MANIFEST_CAP(100);
    provtest::writeFile(staging.file("manifest"), std::string(101, 'm'));
    serveArchive({"manifest"});
    XCode result = runFirmware(unique + ".tar");
    EXPECT_EQ(result.getString(),
              "FILE TOO LARGE: tar tried to write more than 100 bytes to a file");
    EXPECT_FALSE(manifestLeft());
}

TEST_F(ArchiveTest, downloadedManifestOverTheCapIsRefusedUnlogged) {
    FileNode::SET_MANIFEST_CAP(100);
    server.put(unique + ".manifest", "sw_type=X\n" + std::string(200, 'm') + unique + "\n");
    XCode result = runFirmware(unique + ".manifest");
    EXPECT_EQ(result.getString(),
              ("Cannot read content of downloaded script: FILE TOO LARGE: /tmp/provisioning/" +
               unique + ".manifest is larger than 100 bytes")
                  .c_str());
    EXPECT_FALSE(prov.contains(std::string(200, 'm'))) << prov.dump();
}

TEST_F(ArchiveTest, configurationOverTheContentCapIsRefused) {
    FileNode::SET_CONTENT_CAP(1000);
    server.put(unique + ".cfg", std::string(1001, 'c'));
    KtList<String> locations;
    locations.pushBack(location(unique + ".cfg").c_str());
    config =
        std::make_unique<ConfigProvisioningJob>(loop, unique.c_str(), ProvisioningJob::None, false,
                                                locations, credentials, resolver, handler);
    XCode result = run(*config);
    EXPECT_EQ(result.getString(),
              ("Cannot read content of downloaded file: FILE TOO LARGE: /tmp/provisioning/" +
               unique + ".cfg is larger than 1000 bytes")
                  .c_str());
}

}  // namespace
