#include "platform/simulated/SlotState.h"

#include <gtest/gtest.h>

#include "platform/simulated/DeviceDirectory.h"
#include "support/TempDir.h"

namespace {

using provtest::readFile;
using provtest::writeFile;

class SlotStateTest : public ::testing::Test {
  protected:
    void SetUp() override { Device::SET_ROOT(dir_.path().c_str()); }
    void TearDown() override { Device::SET_ROOT(""); }

    std::string statePath() const { return dir_.file("slots/state"); }

    provtest::TempDir dir_{"prov-slots"};
};

TEST_F(SlotStateTest, emptyTextIsANewDevice) {
    SlotState state = SlotState::PARSE("");
    EXPECT_EQ(state.active, 1U);
    EXPECT_EQ(state.next, 1U);
    EXPECT_EQ(state.version1, "");
    EXPECT_EQ(state.version2, "");
}

TEST_F(SlotStateTest, parseReadsEveryKey) {
    SlotState state = SlotState::PARSE("active=2\nnext=1\nversion.1=X 1.2 7\nversion.2=Y=2 3\n");
    EXPECT_EQ(state.active, 2U);
    EXPECT_EQ(state.next, 1U);
    EXPECT_EQ(state.version1, "X 1.2 7");
    EXPECT_EQ(state.version2, "Y=2 3");  // everything after the first '='
}

TEST_F(SlotStateTest, parseIgnoresUnknownKeysLinesWithoutEqualsAndBadNumbers) {
    SlotState state =
        SlotState::PARSE("# comment\nbogus=1\nactive=two\r\nnext=2\r\nversion.2=Z\r\n");
    EXPECT_EQ(state.active, 1U);
    EXPECT_EQ(state.next, 2U);
    EXPECT_EQ(state.version2, "Z");
}

TEST_F(SlotStateTest, textRoundTrips) {
    SlotState state;
    state.active = 2;
    state.next = 1;
    state.version1 = "A 1 1";
    state.version2 = "B 2 2";
    EXPECT_EQ(state.toText(), "active=2\nnext=1\nversion.1=A 1 1\nversion.2=B 2 2\n");
    SlotState again = SlotState::PARSE(state.toText());
    EXPECT_EQ(again.active, 2U);
    EXPECT_EQ(again.next, 1U);
    EXPECT_EQ(again.version1, "A 1 1");
    EXPECT_EQ(again.version2, "B 2 2");
}

TEST_F(SlotStateTest, versionAndOtherNameTheSlots) {
    SlotState state;
    state.version1 = "one";
    state.version2 = "two";
    EXPECT_EQ(state.version(1), "one");
    EXPECT_EQ(state.version(2), "two");
    EXPECT_EQ(state.version(7), "one");
    EXPECT_EQ(SlotState::OTHER(1), 2U);
    EXPECT_EQ(SlotState::OTHER(2), 1U);
    EXPECT_EQ(SlotState::OTHER(0), 1U);
}

TEST_F(SlotStateTest, pathIsInTheDeviceDirectory) {
    EXPECT_EQ(SlotState::PATH(), String(statePath().c_str()));
}

TEST_F(SlotStateTest, missingFileLoadsTheDefaults) {
    SlotState state;
    state.active = 2;
    ASSERT_TRUE(SlotState::LOAD(state).isSuccess());
    EXPECT_EQ(state.active, 1U);
    EXPECT_EQ(state.next, 1U);
}

TEST_F(SlotStateTest, storeCreatesTheSlotsDirectoryAndLoadReadsItBack) {
    SlotState state;
    state.next = 2;
    state.version2 = "X 2 9";
    ASSERT_TRUE(SlotState::STORE(state).isSuccess());
    EXPECT_EQ(readFile(statePath()), "active=1\nnext=2\nversion.1=\nversion.2=X 2 9\n");
    SlotState loaded;
    ASSERT_TRUE(SlotState::LOAD(loaded).isSuccess());
    EXPECT_EQ(loaded.next, 2U);
    EXPECT_EQ(loaded.version2, "X 2 9");
}

TEST_F(SlotStateTest, modifyChangesTheStoredState) {
    writeFile(statePath(), "active=2\nnext=2\nversion.1=old\nversion.2=new\n");
    ASSERT_TRUE(SlotState::MODIFY([](SlotState& state) { state.next = 1; }).isSuccess());
    EXPECT_EQ(readFile(statePath()), "active=2\nnext=1\nversion.1=old\nversion.2=new\n");
}

TEST_F(SlotStateTest, unreadableStateIsAnErrorAndModifyWritesNothing) {
    provtest::makeDirs(statePath());  // a directory where the file should be
    SlotState state;
    state.active = 2;
    EXPECT_TRUE(SlotState::LOAD(state).isErr());
    EXPECT_EQ(state.active, 2U);
    bool called = false;
    EXPECT_TRUE(SlotState::MODIFY([&](SlotState&) { called = true; }).isErr());
    EXPECT_FALSE(called);
}

}  // namespace
