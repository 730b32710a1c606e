#include "platform/SystemStatus.h"

#include <vector>

#include "platform/simulated/DeviceDirectory.h"
#include "platform/simulated/SimulatedSystemStatus.h"
#include "unit/platform/DeviceTestSupport.h"

namespace {

using devicetest::readFile;
using devicetest::TemporaryDirectory;
namespace fs = std::filesystem;

// Remembers the calls it gets.
class RecordingStatus : public ISystemStatus {
  public:
    XCode setSubsystemBusy(unsigned int subsystem, bool busy) override {
        calls.emplace_back(subsystem, busy);
        return XCode::SUCCESS;
    }
    std::vector<std::pair<unsigned int, bool>> calls;
};

class SystemStatusTest : public ::testing::Test {
  protected:
    void SetUp() override { DRIVER::INSTANCE().unregisterAll(); }
    void TearDown() override {
        DRIVER::INSTANCE().unregisterAll();
        Device::SET_ROOT("");
    }

    std::list<KtPPtr<ISystemStatus>> interfaces(const String& name = String::s_empty) {
        std::list<KtPPtr<ISystemStatus>> found;
        DRIVER::INSTANCE().getDriverInterfaces<ISystemStatus>(DID_SystemStatus(), name, found);
        return found;
    }
};

TEST_F(SystemStatusTest, driverRepositoryIsOneInstance) {
    EXPECT_EQ(&DRIVER::INSTANCE(), &DRIVER::INSTANCE());
    EXPECT_EQ(DID_SystemStatus(), DID_SystemStatus());
    EXPECT_STREQ(ISystemStatus::IID(), "ISystemStatus");
}

TEST_F(SystemStatusTest, noRegisteredInterfaceGivesAnEmptyList) {
    EXPECT_TRUE(interfaces().empty());
}

TEST_F(SystemStatusTest, oneRegisteredInterfaceIsFoundAndCanBeCalledUnderItsLock) {
    auto status = std::make_shared<RecordingStatus>();
    DRIVER::INSTANCE().registerInterface(DID_SystemStatus(), "main", status);
    auto found = interfaces();
    ASSERT_EQ(found.size(), 1U);
    ASSERT_TRUE(static_cast<bool>(found.front()));
    KtLockPtr lock = found.front().getLock();
    EXPECT_TRUE(found.front()->setSubsystemBusy(1, true).isSuccess());
    lock.unlock();
    EXPECT_EQ(status->calls, (std::vector<std::pair<unsigned int, bool>>{{1, true}}));
}

TEST_F(SystemStatusTest, twoRegisteredInterfacesComeInRegistrationOrder) {
    auto first = std::make_shared<RecordingStatus>();
    auto second = std::make_shared<RecordingStatus>();
    DRIVER::INSTANCE().registerInterface(DID_SystemStatus(), "first", first);
    DRIVER::INSTANCE().registerInterface(DID_SystemStatus(), "second", second);
    auto found = interfaces();
    ASSERT_EQ(found.size(), 2U);
    EXPECT_TRUE(found.back()->setSubsystemBusy(1, false).isSuccess());
    EXPECT_TRUE(first->calls.empty());
    EXPECT_EQ(second->calls, (std::vector<std::pair<unsigned int, bool>>{{1, false}}));
    EXPECT_TRUE(found.front()->setSubsystemBusy(2, true).isSuccess());
    EXPECT_EQ(first->calls, (std::vector<std::pair<unsigned int, bool>>{{2, true}}));
}

TEST_F(SystemStatusTest, aNameSelectsOnlyThatInterface) {
    auto first = std::make_shared<RecordingStatus>();
    auto second = std::make_shared<RecordingStatus>();
    DRIVER::INSTANCE().registerInterface(DID_SystemStatus(), "first", first);
    DRIVER::INSTANCE().registerInterface(DID_SystemStatus(), "second", second);
    auto found = interfaces("second");
    ASSERT_EQ(found.size(), 1U);
    EXPECT_TRUE(found.front()->setSubsystemBusy(1, true).isSuccess());
    EXPECT_EQ(second->calls.size(), 1U);
    EXPECT_TRUE(interfaces("third").empty());
}

TEST_F(SystemStatusTest, otherDriversAreNotReturned) {
    DRIVER::INSTANCE().registerInterface(DID_SystemStatus() + 1, "other",
                                         std::make_shared<RecordingStatus>());
    EXPECT_TRUE(interfaces().empty());
}

TEST_F(SystemStatusTest, foundInterfacesAreAppendedToTheList) {
    DRIVER::INSTANCE().registerInterface(DID_SystemStatus(), "a",
                                         std::make_shared<RecordingStatus>());
    std::list<KtPPtr<ISystemStatus>> found(1);
    DRIVER::INSTANCE().getDriverInterfaces<ISystemStatus>(DID_SystemStatus(), String::s_empty,
                                                          found);
    ASSERT_EQ(found.size(), 2U);
    EXPECT_FALSE(static_cast<bool>(found.front()));
    EXPECT_TRUE(static_cast<bool>(found.back()));
}

TEST_F(SystemStatusTest, releasedPointerKeepsTheRegisteredInterface) {
    auto status = std::make_shared<RecordingStatus>();
    DRIVER::INSTANCE().registerInterface(DID_SystemStatus(), "a", status);
    auto found = interfaces();
    found.front().release();
    EXPECT_FALSE(static_cast<bool>(found.front()));
    EXPECT_EQ(interfaces().size(), 1U);
}

TEST_F(SystemStatusTest, unregisterAllEmptiesTheRepository) {
    DRIVER::INSTANCE().registerInterface(DID_SystemStatus(), "a",
                                         std::make_shared<RecordingStatus>());
    DRIVER::INSTANCE().unregisterAll();
    EXPECT_TRUE(interfaces().empty());
}

class SimulatedSystemStatusTest : public ::testing::Test {
  protected:
    void SetUp() override {
        Device::SET_ROOT(directory.path().c_str());
        ASSERT_TRUE(Device::PREPARE().isSuccess());
    }
    void TearDown() override { Device::SET_ROOT(""); }

    std::string statusFile(unsigned int subsystem) const {
        return directory.path() + "/status/subsystem-" + std::to_string(subsystem);
    }

    TemporaryDirectory directory;
    SimulatedSystemStatus status;
};

TEST_F(SimulatedSystemStatusTest, busyFlagIsKeptAndMirrored) {
    EXPECT_FALSE(status.isBusy(1));
    ASSERT_TRUE(status.setSubsystemBusy(1, true).isSuccess());
    EXPECT_TRUE(status.isBusy(1));
    EXPECT_EQ(readFile(statusFile(1)), "busy");
    ASSERT_TRUE(status.setSubsystemBusy(1, false).isSuccess());
    EXPECT_FALSE(status.isBusy(1));
    EXPECT_EQ(readFile(statusFile(1)), "idle");
    EXPECT_EQ(status.changes(1), 2U);
}

TEST_F(SimulatedSystemStatusTest, subsystemsAreIndependent) {
    ASSERT_TRUE(status.setSubsystemBusy(3, true).isSuccess());
    EXPECT_FALSE(status.isBusy(1));
    EXPECT_EQ(status.changes(1), 0U);
    EXPECT_FALSE(fs::exists(statusFile(1)));
    EXPECT_EQ(readFile(statusFile(3)), "busy");
}

TEST_F(SimulatedSystemStatusTest, missingStatusDirectoryIsCreated) {
    fs::remove(directory.path() + "/status");
    ASSERT_TRUE(status.setSubsystemBusy(1, true).isSuccess());
    EXPECT_EQ(readFile(statusFile(1)), "busy");
}

TEST_F(SimulatedSystemStatusTest, unwritableMirrorFailsButTheFlagIsSet) {
    fs::remove(directory.path() + "/status");
    devicetest::writeFile(directory.path() + "/status", "a file in the way");
    XCode result = status.setSubsystemBusy(1, true);
    EXPECT_TRUE(result.isErr());
    EXPECT_TRUE(status.isBusy(1));
}

TEST_F(SimulatedSystemStatusTest, withoutDeviceDirectoryOnlyMemoryIsUsed) {
    Device::SET_ROOT("");
    ASSERT_TRUE(status.setSubsystemBusy(1, true).isSuccess());
    EXPECT_TRUE(status.isBusy(1));
}

TEST_F(SimulatedSystemStatusTest, registeredSimulationIsReachedThroughTheRepository) {
    auto simulated = std::make_shared<SimulatedSystemStatus>();
    DRIVER::INSTANCE().unregisterAll();
    DRIVER::INSTANCE().registerInterface(DID_SystemStatus(), "simulated", simulated);
    std::list<KtPPtr<ISystemStatus>> found;
    DRIVER::INSTANCE().getDriverInterfaces<ISystemStatus>(DID_SystemStatus(), String::s_empty,
                                                          found);
    ASSERT_EQ(found.size(), 1U);
    EXPECT_TRUE(found.front()->setSubsystemBusy(1, true).isSuccess());
    EXPECT_TRUE(simulated->isBusy(1));
    DRIVER::INSTANCE().unregisterAll();
}

}  // namespace
