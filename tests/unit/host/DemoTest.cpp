#include "host/Demo.h"

#include <gtest/gtest.h>

#include "jobs/content/ConfigProvisioningJob.h"
#include "jobs/upgrade/FirmwareProvisioningJob.h"
#include "platform/Cli.h"
#include "platform/simulated/DeviceDirectory.h"
#include "support/TempDir.h"

namespace {

using Provctl::DeviceChange;
using Provctl::DeviceSnapshot;

// --- the device snapshot ---

TEST(DemoTest, snapshotHoldsEveryFileByRelativePathButStatus) {
    provtest::TempDir dir("prov-demo-snapshot");
    provtest::writeFile(dir.file("config/startup-config"), "cli version 4.0\n");
    provtest::writeFile(dir.file("flash/wizard/intro.wiz"), "wizard");
    provtest::writeFile(dir.file("running-config"), "hostname x\n");
    provtest::writeFile(dir.file("status/subsystem-1"), "busy");
    provtest::writeFile(dir.file("status/provisioning-location"), "tftp://x/y");
    provtest::makeDirs(dir.file("flash/dialplan"));
    DeviceSnapshot snapshot;
    ASSERT_TRUE(Provctl::SNAPSHOT_DEVICE(dir.path(), snapshot).isSuccess());
    EXPECT_EQ(snapshot, (DeviceSnapshot{{"config/startup-config", "cli version 4.0\n"},
                                        {"flash/wizard/intro.wiz", "wizard"},
                                        {"running-config", "hostname x\n"}}));
}

TEST(DemoTest, snapshotOfAMissingDirectoryFails) {
    provtest::TempDir dir("prov-demo-snapshot");
    DeviceSnapshot snapshot{{"stale", "x"}};
    EXPECT_TRUE(Provctl::SNAPSHOT_DEVICE(dir.file("missing"), snapshot).isErr());
    EXPECT_TRUE(snapshot.empty());
}

TEST(DemoTest, diffNamesNewChangedAndRemovedFilesInPathOrder) {
    const DeviceSnapshot before = {{"a", "1"}, {"c", "3"}, {"d", "4"}};
    const DeviceSnapshot after = {{"a", "1"}, {"b", "2"}, {"c", "33"}};
    const std::vector<DeviceChange> expected = {{"b", DeviceChange::Kind::Added},
                                                {"c", DeviceChange::Kind::Modified},
                                                {"d", DeviceChange::Kind::Removed}};
    EXPECT_EQ(Provctl::DIFF_SNAPSHOTS(before, after), expected);
}

TEST(DemoTest, equalSnapshotsHaveNoChange) {
    const DeviceSnapshot same = {{"a", "1"}};
    EXPECT_TRUE(Provctl::DIFF_SNAPSHOTS(same, same).empty());
}

TEST(DemoTest, changesAreDescribedWithTheirMarks) {
    EXPECT_EQ(Provctl::DESCRIBE_CHANGES({}), "nothing");
    EXPECT_EQ(Provctl::DESCRIBE_CHANGES({{"flash/provisioning/boot", DeviceChange::Kind::Added},
                                         {"slots/state", DeviceChange::Kind::Modified},
                                         {"old", DeviceChange::Kind::Removed}}),
              "+flash/provisioning/boot ~slots/state -old");
}

// --- the table ---

TEST(DemoTest, tableColumnsArePaddedAndTheHeaderUnderlined) {
    EXPECT_EQ(Provctl::FORMAT_TABLE({{"job", "result"}, {"config", "OK"}, {"key", "FAILED"}}),
              "job     result\n"
              "------  ------\n"
              "config  OK\n"
              "key     FAILED\n");
}

TEST(DemoTest, emptyTableIsEmpty) {
    EXPECT_EQ(Provctl::FORMAT_TABLE({}), "");
}

// --- the sample files ---

class DemoFilesTest : public ::testing::Test {
  protected:
    std::string sample(const std::string& name) {
        return provtest::readFile(Provctl::DEMO_FILES_DIRECTORY().str() + "/" + name);
    }
};

TEST_F(DemoFilesTest, areFoundInTheSourceTreeFromABuildTree) {
    EXPECT_EQ(Provctl::DEMO_FILES_DIRECTORY(), String(PROV_SOURCE_DIR "/host/demo-files"));
}

TEST_F(DemoFilesTest, configurationIsValid) {
    String text = sample("unit.cfg");
    EXPECT_TRUE(ConfigProvisioningJob::isValidConfig(text));
    EXPECT_EQ(ConfigProvisioningJob::getCliMajorVersion(text), 4U);
}

TEST_F(DemoFilesTest, configurationAndScriptUseOnlyCommandsTheRunningSystemKnows) {
    provtest::TempDir dir("prov-demo-files");
    Device::SET_ROOT(dir.path());
    EXPECT_TRUE(CmdExec::EXECUTE(sample("unit.cfg"), true, nullptr, 0).isSuccess());
    EXPECT_TRUE(CmdExec::EXECUTE(sample("boot.manifest"), true, nullptr, 0).isSuccess());
    Device::SET_ROOT("");
}

TEST_F(DemoFilesTest, scriptIsLongEnoughForTheScriptJob) {
    EXPECT_GE(sample("boot.manifest").size(), 20U);
}

TEST_F(DemoFilesTest, firmwareManifestNamesTheDemoVersion) {
    String version;
    ASSERT_TRUE(
        FirmwareProvisioningJob::getImageVersionOfManifest(sample("firmware/manifest"), version)
            .isSuccess());
    EXPECT_EQ(version, "DEMO 1.0 1");
}

TEST_F(DemoFilesTest, everyServedFileIsThere) {
    for (const char* name : {"unit.cfg", "office.txt", "unit.key", "intro.wiz", "boot.manifest",
                             "firmware/manifest", "firmware/image"}) {
        EXPECT_FALSE(sample(name).empty()) << name;
    }
}

}  // namespace
