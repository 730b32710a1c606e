#include "platform/simulated/SlotState.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <ostream>
#include <string>

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

const char* const PATH = "/dev1/slots/state";

SlotState parse(const String& text) {
    SlotState state;
    XCode result = SlotState::PARSE(PATH, text, state);
    EXPECT_TRUE(result.isSuccess()) << result.getString().c_str();
    return state;
}

TEST_F(SlotStateTest, emptyTextIsANewDevice) {
    SlotState state = parse("");
    EXPECT_EQ(state.active, 1U);
    EXPECT_EQ(state.next, 1U);
    EXPECT_EQ(state.version1, "");
    EXPECT_EQ(state.version2, "");
}

TEST_F(SlotStateTest, parseReadsEveryKey) {
    SlotState state = parse("active=2\nnext=1\nversion.1=X 1.2 7\nversion.2=Y=2 3\n");
    EXPECT_EQ(state.active, 2U);
    EXPECT_EQ(state.next, 1U);
    EXPECT_EQ(state.version1, "X 1.2 7");
    EXPECT_EQ(state.version2, "Y=2 3");  // everything after the first '='
}

TEST_F(SlotStateTest, parseSkipsCommentsEmptyLinesCarriageReturnsAndBlanksAroundKeyAndValue) {
    SlotState state =
        parse("# written by hand\n\n  active = 2 \r\nnext=2\r\nversion.2 =  Z 1 \r\n");
    EXPECT_EQ(state.active, 2U);
    EXPECT_EQ(state.next, 2U);
    EXPECT_EQ(state.version2, "Z 1");
}

struct BadStateCase {
    const char* text;
    const char* message;  // after "<path>:"
};

void PrintTo(const BadStateCase& row, std::ostream* out) {
    *out << row.text;
}

class BadSlotStateTest : public ::testing::TestWithParam<BadStateCase> {};

TEST_P(BadSlotStateTest, isRefusedNamingTheLineAndTheKey) {
    SlotState state;
    state.version1 = "kept";
    XCode result = SlotState::PARSE(PATH, GetParam().text, state);
    ASSERT_TRUE(result.isErr()) << GetParam().text;
    EXPECT_EQ(result.getString().str(), std::string(PATH) + ":" + GetParam().message);
    EXPECT_EQ(state.version1, "kept");
}

INSTANTIATE_TEST_SUITE_P(
    Rows, BadSlotStateTest,
    ::testing::Values(
        BadStateCase{"active = 3\n",
                     "1: active must be 1 or 2 (the device has two slots), not '3'"},
        BadStateCase{"active=1\nnext=0\n",
                     "2: next must be 1 or 2 (the device has two slots), not '0'"},
        BadStateCase{"active=two\n",
                     "1: active must be 1 or 2 (the device has two slots), not 'two'"},
        BadStateCase{"active=\n", "1: active must be 1 or 2 (the device has two slots), not ''"},
        BadStateCase{"active=01\n",
                     "1: active must be 1 or 2 (the device has two slots), not '01'"},
        BadStateCase{"active=1\n\nactiv=2\n",
                     "3: unknown key 'activ' (known: active, next, version.1, version.2)"},
        BadStateCase{"version.3=X 1 1\n",
                     "1: unknown key 'version.3' (known: active, next, version.1, version.2)"},
        BadStateCase{"active=1\nnext\n", "2: expected key=value"},
        BadStateCase{"next=1\nversion.1=A\nnext=2\n", "3: 'next' given twice (lines 1 and 3)"}));

TEST_F(SlotStateTest, textRoundTrips) {
    SlotState state;
    state.active = 2;
    state.next = 1;
    state.version1 = "A 1 1";
    state.version2 = "B 2 2";
    EXPECT_EQ(state.toText(), "active=2\nnext=1\nversion.1=A 1 1\nversion.2=B 2 2\n");
    SlotState again = parse(state.toText());
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

TEST_F(SlotStateTest, impossibleStateIsRefusedAndModifyWritesNothing) {
    writeFile(statePath(), "active=1\nnext=3\nversion.1=old\n");
    SlotState state;
    state.active = 2;
    XCode result = SlotState::LOAD(state);
    EXPECT_EQ(result.getString().str(),
              statePath() + ":2: next must be 1 or 2 (the device has two slots), not '3'");
    EXPECT_EQ(state.active, 2U);
    bool called = false;
    EXPECT_TRUE(SlotState::MODIFY([&](SlotState&) { called = true; }).isErr());
    EXPECT_FALSE(called);
    EXPECT_EQ(readFile(statePath()), "active=1\nnext=3\nversion.1=old\n");
}

TEST_F(SlotStateTest, danglingLinkIsAnErrorNotANewDevice) {
    provtest::makeDirs(dir_.file("slots"));
    ASSERT_EQ(::symlink("nowhere", statePath().c_str()), 0);
    SlotState state;
    EXPECT_EQ(SlotState::LOAD(state).getString().str(), statePath() + ": dangling symbolic link");
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
