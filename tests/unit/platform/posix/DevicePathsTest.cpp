#include "platform/simulated/DeviceDirectory.h"

#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <thread>
#include <vector>

#include "support/TempDir.h"
#include "unit/platform/DeviceTestSupport.h"

namespace {

using devicetest::modeOf;
using devicetest::TemporaryDirectory;
namespace fs = std::filesystem;

class DeviceTest : public ::testing::Test {
  protected:
    void SetUp() override { Device::SET_ROOT(directory.path().c_str()); }
    void TearDown() override { Device::SET_ROOT(""); }

    std::string root() const { return directory.path(); }

    TemporaryDirectory directory;
};

TEST_F(DeviceTest, rootIsTheDirectorySet) {
    EXPECT_EQ(Device::ROOT(), String(root().c_str()));
}

TEST_F(DeviceTest, rootLosesTrailingSlashes) {
    Device::SET_ROOT(String((root() + "//").c_str()));
    EXPECT_EQ(Device::ROOT(), String(root().c_str()));
}

TEST_F(DeviceTest, relativeRootIsTakenFromTheWorkingDirectory) {
    Device::SET_ROOT("some/dir");
    EXPECT_EQ(Device::ROOT(), String((fs::current_path().string() + "/some/dir").c_str()));
}

TEST_F(DeviceTest, rootReferenceStaysValidAfterANewRoot) {
    const String& first = Device::ROOT();
    Device::SET_ROOT("/elsewhere");
    EXPECT_EQ(first, String(root().c_str()));
    EXPECT_EQ(Device::ROOT(), String("/elsewhere"));
}

TEST_F(DeviceTest, flashItselfMapsIntoTheDeviceDirectory) {
    EXPECT_EQ(Device::MAP_PATH("/flash"), String((root() + "/flash").c_str()));
}

TEST_F(DeviceTest, flashFilesMapIntoTheDeviceDirectory) {
    EXPECT_EQ(Device::MAP_PATH("/flash/dialplan/office"),
              String((root() + "/flash/dialplan/office").c_str()));
    EXPECT_EQ(Device::MAP_PATH("/flash/preferences/key"),
              String((root() + "/flash/preferences/key").c_str()));
}

TEST_F(DeviceTest, theWorkDirectoryMapsIntoTheDeviceDirectory) {
    EXPECT_EQ(Device::MAP_PATH("/tmp/provisioning"),
              String((root() + "/tmp/provisioning").c_str()));
    EXPECT_EQ(Device::MAP_PATH("/tmp/provisioning/file"),
              String((root() + "/tmp/provisioning/file").c_str()));
    EXPECT_EQ(Device::MAP_PATH("/tmp/provisioning/.wget-x/../y"),
              String((root() + "/tmp/provisioning/y").c_str()));
    String mapped = "untouched";
    XCode leaving = Device::MAP_PATH_CHECKED("/tmp/provisioning/../../etc/passwd", mapped);
    EXPECT_EQ(leaving.getString(),
              String("PATH LEAVES THE WORK DIRECTORY: /tmp/provisioning/../../etc/passwd"));
    EXPECT_EQ(mapped, String("untouched"));
}

TEST_F(DeviceTest, withoutRootTheWorkDirectoryIsTheRealOne) {
    Device::SET_ROOT("");
    EXPECT_EQ(Device::MAP_PATH("/tmp/provisioning/file"), String("/tmp/provisioning/file"));
}

TEST_F(DeviceTest, otherPathsStayAsTheyAre) {
    for (const char* path : {"/tmp/provisioningx/file", "/tmp/x", "/flashy/x", "/etc/flash/x",
                             "relative/x", "flash/x", "", "/", "/tmp/../etc/passwd"}) {
        EXPECT_EQ(Device::MAP_PATH(path), String(path)) << path;
        String mapped = "untouched";
        EXPECT_TRUE(Device::MAP_PATH_CHECKED(path, mapped).isSuccess()) << path;
        EXPECT_EQ(mapped, String(path));
    }
}

TEST_F(DeviceTest, flashPathsAreNormalised) {
    EXPECT_EQ(Device::MAP_PATH("/flash//a/./b/../c"), String((root() + "/flash/a/c").c_str()));
    EXPECT_EQ(Device::MAP_PATH("/flash/dialplan/../preferences/key"),
              String((root() + "/flash/preferences/key").c_str()));
    EXPECT_EQ(Device::MAP_PATH("/flash/."), String((root() + "/flash").c_str()));
}

TEST_F(DeviceTest, trailingSlashOfAFlashFolderIsKept) {
    EXPECT_EQ(Device::MAP_PATH("/flash/wizard/"), String((root() + "/flash/wizard/").c_str()));
}

TEST_F(DeviceTest, climbingOutOfFlashStaysInsideFlash) {
    const std::string flash = root() + "/flash";
    const struct {
        const char* path;
        const char* mapped;
    } cases[] = {
        {"/flash/../x", "/flash/x"},
        {"/flash/../../etc/x", "/flash/etc/x"},
        {"/flash/dialplan/../../x", "/flash/x"},
        {"/flash/..", "/flash"},
        {"/flash/a/../../..", "/flash"},
        {"/flash/../flash/x", "/flash/flash/x"},
    };
    for (const auto& c : cases) {
        String mapped = Device::MAP_PATH(c.path);
        EXPECT_EQ(mapped, String((root() + c.mapped).c_str())) << c.path;
        EXPECT_TRUE(mapped.startsWith(flash.c_str())) << c.path;
        EXPECT_LT(mapped.indexOf(".."), 0) << c.path;
    }
}

TEST_F(DeviceTest, checkedMappingRefusesPathsThatLeaveFlash) {
    for (const char* path : {"/flash/../x", "/flash/../../etc/x", "/flash/dialplan/../../x",
                             "/flash/..", "/flash/a/../../b"}) {
        String mapped = "untouched";
        XCode result = Device::MAP_PATH_CHECKED(path, mapped);
        EXPECT_TRUE(result.isErr()) << path;
        EXPECT_EQ(result.getString(), String::format("PATH LEAVES FLASH: %s", path));
        EXPECT_EQ(mapped, String("untouched"));
    }
}

TEST_F(DeviceTest, checkedMappingAcceptsDotsThatStayInside) {
    String mapped;
    ASSERT_TRUE(Device::MAP_PATH_CHECKED("/flash/dialplan/../wizard/w", mapped).isSuccess());
    EXPECT_EQ(mapped, String((root() + "/flash/wizard/w").c_str()));
}

TEST_F(DeviceTest, withoutRootFlashPathsAreTheRealOnes) {
    Device::SET_ROOT("");
    EXPECT_EQ(Device::MAP_PATH("/flash/dialplan/x"), String("/flash/dialplan/x"));
}

TEST_F(DeviceTest, prepareCreatesTheDeviceDirectories) {
    ASSERT_TRUE(Device::PREPARE().isSuccess());
    for (const char* sub : {"/flash", "/flash/dialplan", "/flash/preferences", "/flash/wizard",
                            "/flash/provisioning", "/config", "/slots", "/status"}) {
        const std::string path = root() + sub;
        EXPECT_TRUE(fs::is_directory(path)) << path;
        EXPECT_EQ(modeOf(path), 0755U) << path;
    }
    EXPECT_TRUE(fs::is_directory(root() + "/tmp/provisioning"));
    EXPECT_EQ(modeOf(root() + "/tmp/provisioning"), 0700U);
}

TEST_F(DeviceTest, prepareCreatesAMissingRootWithItsParents) {
    const std::string nested = root() + "/a/b/device";
    Device::SET_ROOT(nested.c_str());
    ASSERT_TRUE(Device::PREPARE().isSuccess());
    EXPECT_TRUE(fs::is_directory(nested + "/flash/wizard"));
}

TEST_F(DeviceTest, prepareIgnoresTheUmask) {
    mode_t previous = ::umask(077);
    XCode result = Device::PREPARE();
    ::umask(previous);
    ASSERT_TRUE(result.isSuccess());
    EXPECT_EQ(modeOf(root() + "/flash/dialplan"), 0755U);
    EXPECT_EQ(modeOf(root() + "/tmp/provisioning"), 0700U);
}

TEST_F(DeviceTest, prepareIsIdempotentAndKeepsContent) {
    ASSERT_TRUE(Device::PREPARE().isSuccess());
    devicetest::writeFile(root() + "/flash/dialplan/office", "plan");
    ASSERT_TRUE(Device::PREPARE().isSuccess());
    EXPECT_EQ(devicetest::readFile(root() + "/flash/dialplan/office"), "plan");
}

TEST_F(DeviceTest, prepareFailsWhereAFileBlocksADirectory) {
    devicetest::writeFile(root() + "/flash", "not a directory");
    XCode result = Device::PREPARE();
    ASSERT_TRUE(result.isErr());
    EXPECT_EQ(result, XCode::fromErrno(ENOTDIR));
    EXPECT_EQ(result.getString(),
              String((("CANNOT CREATE DIRECTORY " + root() + "/flash: Not a directory").c_str())));
}

TEST_F(DeviceTest, prepareWithoutRootFails) {
    Device::SET_ROOT("");
    XCode result = Device::PREPARE();
    ASSERT_TRUE(result.isErr());
    EXPECT_EQ(result.getString(), String("NO DEVICE DIRECTORY SET"));
}

// Every way in which another user could hold the work directory: written by the group only, by
// others only, a file in its place.
TEST_F(DeviceTest, workDirectoryCheckRefusesEveryWriterButItsOwner) {
    ASSERT_TRUE(Device::PREPARE().isSuccess());
    const std::string work = root() + "/tmp/provisioning";
    EXPECT_TRUE(Device::CHECK_WORK_DIRECTORY().isSuccess());
    for (mode_t mode : {0770, 0702}) {
        ASSERT_EQ(::chmod(work.c_str(), mode), 0);
        XCode refused = Device::CHECK_WORK_DIRECTORY();
        EXPECT_EQ(refused.getString().str(), "UNSAFE WORK DIRECTORY " + work + ": mode 0" +
                                                 (mode == 0770 ? "770" : "702") +
                                                 ", writable by group or others");
    }
    ASSERT_EQ(::rmdir(work.c_str()), 0);
    provtest::writeFile(work, "a file\n");
    EXPECT_EQ(Device::CHECK_WORK_DIRECTORY().getString().str(),
              "UNSAFE WORK DIRECTORY " + work + ": not a directory");
}

TEST_F(DeviceTest, mappingRunsWhileAnotherThreadSetsTheRoot) {
    std::atomic<bool> stop{false};
    std::thread setter([&stop] {
        for (int i = 0; i < 200; ++i) {
            Device::SET_ROOT(i % 2 == 0 ? "/one" : "/two");
        }
        stop = true;
    });
    unsigned int mapped = 0;
    do {
        String path = Device::MAP_PATH("/flash/x");
        EXPECT_TRUE(path == String("/one/flash/x") || path == String("/two/flash/x") ||
                    path == String((root() + "/flash/x").c_str()))
            << path.c_str();
        ++mapped;
    } while (!stop);
    setter.join();
    EXPECT_GT(mapped, 0U);
}

}  // namespace
