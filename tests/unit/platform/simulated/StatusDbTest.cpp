#include "platform/StatusDb.h"

#include <thread>

#include "platform/simulated/DeviceDirectory.h"
#include "platform/simulated/SimulatedStatusDb.h"
#include "platform/testing/StatusDbHooks.h"
#include "unit/platform/DeviceTestSupport.h"

namespace {

using devicetest::readFile;
using devicetest::TemporaryDirectory;
namespace fs = std::filesystem;
using DB::Table::ProvisioningStatusHooks;
using DB::Table::SimulatedProvisioningStatus;
using DB::Table::SystemProvisioningStatus;
using Key = DB::Table::Cfg::QueryAllByKey::Key;

Key key(unsigned int type, unsigned int status) {
    return Key(DB::ObjectType_(type), DB::ObjectStatus_(status));
}

class StatusDbTest : public ::testing::Test {
  protected:
    void SetUp() override {
        Device::SET_ROOT(directory.path().c_str());
        ASSERT_TRUE(Device::PREPARE().isSuccess());
        ProvisioningStatusHooks::RESET();
    }
    void TearDown() override {
        ProvisioningStatusHooks::RESET();
        Device::SET_ROOT("");
    }

    std::string locationFile() const { return directory.path() + "/status/provisioning-location"; }

    TemporaryDirectory directory;
};

TEST_F(StatusDbTest, provisioningRecordIsFound) {
    DB::Ptr<DB::SystemProvisioningStatusRecord> record;
    ASSERT_TRUE(SystemProvisioningStatus::find(key(2, 10), record).isSuccess());
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(record, SimulatedProvisioningStatus::RECORD());
}

TEST_F(StatusDbTest, otherKeysHaveNoRecord) {
    for (auto [type, status] : {std::pair{2U, 11U}, std::pair{3U, 10U}, std::pair{0U, 0U}}) {
        DB::Ptr<DB::SystemProvisioningStatusRecord> record;
        XCode result = SystemProvisioningStatus::find(key(type, status), record);
        ASSERT_TRUE(result.isErr());
        EXPECT_EQ(result.getValue(), XCode::GENERIC_FAILURE);
        EXPECT_EQ(result.getString(),
                  String::format("NO STATUS RECORD FOR KEY (%u, %u)", type, status));
        EXPECT_EQ(record, nullptr);
    }
}

TEST_F(StatusDbTest, unavailableDatabaseHasNoRecord) {
    ProvisioningStatusHooks::SET_AVAILABLE(false);
    DB::Ptr<DB::SystemProvisioningStatusRecord> record;
    XCode result = SystemProvisioningStatus::find(key(2, 10), record);
    ASSERT_TRUE(result.isErr());
    EXPECT_EQ(result.getString(), String("NO STATUS RECORD FOR KEY (2, 10)"));
    ProvisioningStatusHooks::SET_AVAILABLE(true);
    EXPECT_TRUE(SystemProvisioningStatus::find(key(2, 10), record).isSuccess());
}

TEST_F(StatusDbTest, locationIsStoredAndMirrored) {
    DB::Ptr<DB::SystemProvisioningStatusRecord> record;
    ASSERT_TRUE(SystemProvisioningStatus::find(key(2, 10), record).isSuccess());
    ASSERT_TRUE((record->location = "tftp://127.0.0.1/unit.cfg").isSuccess());
    EXPECT_EQ(record->location.get(), String("tftp://127.0.0.1/unit.cfg"));
    EXPECT_EQ(readFile(locationFile()), "tftp://127.0.0.1/unit.cfg");
    ASSERT_TRUE((record->location = "").isSuccess());
    EXPECT_TRUE(record->location.get().isEmpty());
    EXPECT_TRUE(fs::exists(locationFile()));
    EXPECT_EQ(readFile(locationFile()), "");
    EXPECT_EQ(devicetest::namesIn(directory.path() + "/status"),
              std::set<std::string>{"provisioning-location"});
}

TEST_F(StatusDbTest, laterLookupsSeeTheSameLocation) {
    DB::Ptr<DB::SystemProvisioningStatusRecord> first;
    ASSERT_TRUE(SystemProvisioningStatus::find(key(2, 10), first).isSuccess());
    ASSERT_TRUE((first->location = "http://a/b").isSuccess());
    DB::Ptr<DB::SystemProvisioningStatusRecord> second;
    ASSERT_TRUE(SystemProvisioningStatus::find(key(2, 10), second).isSuccess());
    EXPECT_EQ(second->location.get(), String("http://a/b"));
}

TEST_F(StatusDbTest, failedMirrorFailsTheAssignmentAndKeepsTheOldValue) {
    auto record = SimulatedProvisioningStatus::RECORD();
    ASSERT_TRUE((record->location = "old").isSuccess());
    fs::remove_all(directory.path() + "/status");
    devicetest::writeFile(directory.path() + "/status", "a file in the way");
    XCode result = (record->location = "new");
    ASSERT_TRUE(result.isErr());
    EXPECT_EQ(result, XCode::fromErrno(ENOTDIR));
    EXPECT_EQ(record->location.get(), String("old"));
}

TEST_F(StatusDbTest, missingStatusDirectoryIsCreated) {
    fs::remove_all(directory.path() + "/status");
    ASSERT_TRUE((SimulatedProvisioningStatus::RECORD()->location = "x").isSuccess());
    EXPECT_EQ(readFile(locationFile()), "x");
}

TEST_F(StatusDbTest, withoutDeviceDirectoryTheLocationIsKeptInMemory) {
    Device::SET_ROOT("");
    ASSERT_TRUE((SimulatedProvisioningStatus::RECORD()->location = "x").isSuccess());
    EXPECT_EQ(SimulatedProvisioningStatus::RECORD()->location.get(), String("x"));
}

TEST_F(StatusDbTest, resetGivesAFreshRecord) {
    ASSERT_TRUE((SimulatedProvisioningStatus::RECORD()->location = "x").isSuccess());
    ProvisioningStatusHooks::SET_AVAILABLE(false);
    ProvisioningStatusHooks::RESET();
    DB::Ptr<DB::SystemProvisioningStatusRecord> record;
    ASSERT_TRUE(SystemProvisioningStatus::find(key(2, 10), record).isSuccess());
    EXPECT_TRUE(record->location.get().isEmpty());
}

TEST_F(StatusDbTest, concurrentWritersLeaveOneWholeValue) {
    auto record = SimulatedProvisioningStatus::RECORD();
    auto writer = [&record](const char* value) {
        for (int i = 0; i < 20; ++i) {
            EXPECT_TRUE((record->location = value).isSuccess());
        }
    };
    std::thread a(writer, "first-location");
    std::thread b(writer, "second-location");
    a.join();
    b.join();
    const std::string mirrored = readFile(locationFile());
    EXPECT_TRUE(mirrored == "first-location" || mirrored == "second-location") << mirrored;
    EXPECT_EQ(String(mirrored.c_str()), record->location.get());
}

}  // namespace
