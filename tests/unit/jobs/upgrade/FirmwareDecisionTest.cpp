// The manifest's version and the decision that the firmware job takes from it.

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "engine/Monitors.h"
#include "jobs/upgrade/FirmwareProvisioningJob.h"
#include "platform/KtManifestParser.h"
#include "support/CaptureMonitor.h"
#include "support/UpgradeSupport.h"

namespace {

using provtest::CaptureMonitor;
using provtest::OpenFirmwareJob;

const char* const ACTIVE = "X 1.2 7";
const char* const NEWER = "X 1.3 1";

String manifestOf(const std::string& version) {
    // "X 1.3 1" -> three keys.
    std::string type = version.substr(0, version.find(' '));
    std::string rest = version.substr(version.find(' ') + 1);
    std::string number = rest.substr(0, rest.find(' '));
    std::string build = rest.substr(rest.find(' ') + 1);
    return String(
        ("sw_type=" + type + "\nsw_version=" + number + "\nsw_build_num=" + build + "\n").c_str());
}

class FirmwareDecisionTest : public ::testing::Test {
  protected:
    void SetUp() override { MON_PROV = &prov; }
    void TearDown() override { MON_PROV = nullptr; }

    std::unique_ptr<OpenFirmwareJob> makeJob(bool compare, unsigned int nextImage,
                                             unsigned int activeImage,
                                             const char* stored1 = "X 1.0 1",
                                             const char* stored2 = "X 1.1 1",
                                             const char* active = ACTIVE) {
        return std::make_unique<OpenFirmwareJob>(loop, "fw", ProvisioningJob::None, compare,
                                                 KtList<String>(), credentials, resolver, handler,
                                                 stored1, stored2, active, nextImage, activeImage);
    }

    KtEventLoop loop;
    ProvisioningCredentials credentials;
    ExpressionResolver resolver;
    provtest::RecordingJobHandler handler;
    CaptureMonitor prov{"PROV", 6};
};

// --- The decision table, row by row ---

struct Row {
    const char* name;
    bool compare;
    const char* downloaded;
    const char* active;
    unsigned int nextImage;
    unsigned int activeImage;
    bool upgrade;
    ProvisioningJob::ImageAction action;
    bool activation;
};

const Row ROWS[] = {
    // C false, any version, N = T (T = 2 because K = 1).
    {"noCompareNextIsTarget", false, NEWER, ACTIVE, 2, 1, true, ProvisioningJob::UpdateImageInfo,
     true},
    {"noCompareSameVersionNextIsTarget", false, ACTIVE, ACTIVE, 2, 1, true,
     ProvisioningJob::UpdateImageInfo, true},
    // C false, N != T.
    {"noCompareNextIsNotTarget", false, NEWER, ACTIVE, 1, 1, true, ProvisioningJob::SwapNextImage,
     true},
    {"noCompareSameVersionNextIsNotTarget", false, ACTIVE, ACTIVE, 1, 1, true,
     ProvisioningJob::SwapNextImage, true},
    // C true, D = A (not empty), any N.
    {"compareSameVersion", true, ACTIVE, ACTIVE, 2, 1, false, ProvisioningJob::UpdateImageInfo,
     false},
    {"compareSameVersionOtherNext", true, ACTIVE, ACTIVE, 1, 1, false,
     ProvisioningJob::UpdateImageInfo, false},
    // C true, D = A, both empty.
    {"compareBothEmpty", true, "", "", 1, 1, false, ProvisioningJob::UpdateImageInfo, true},
    // C true, D != A, N = T.
    {"compareNewVersionNextIsTarget", true, NEWER, ACTIVE, 2, 1, true,
     ProvisioningJob::UpdateImageInfo, true},
    // C true, D != A, N != T.
    {"compareNewVersionNextIsNotTarget", true, NEWER, ACTIVE, 1, 1, true,
     ProvisioningJob::SwapNextImage, true},
    // K = 2, 0 and 7 all make slot 1 the target.
    {"activeTwoTargetsSlotOne", true, NEWER, ACTIVE, 1, 2, true, ProvisioningJob::UpdateImageInfo,
     true},
    {"activeTwoNextTwoSwaps", true, NEWER, ACTIVE, 2, 2, true, ProvisioningJob::SwapNextImage,
     true},
    {"activeZeroTargetsSlotOne", true, NEWER, ACTIVE, 1, 0, true, ProvisioningJob::UpdateImageInfo,
     true},
    {"activeZeroNextTwoSwaps", true, NEWER, ACTIVE, 2, 0, true, ProvisioningJob::SwapNextImage,
     true},
    {"activeSevenTargetsSlotOne", true, NEWER, ACTIVE, 1, 7, true, ProvisioningJob::UpdateImageInfo,
     true},
    {"activeSevenNextTwoSwaps", true, NEWER, ACTIVE, 2, 7, true, ProvisioningJob::SwapNextImage,
     true},
};

class DecisionRowTest : public FirmwareDecisionTest, public ::testing::WithParamInterface<Row> {};

TEST_P(DecisionRowTest, decidesAsTheTableSays) {
    const Row& row = GetParam();
    auto job =
        makeJob(row.compare, row.nextImage, row.activeImage, "X 1.0 1", "X 1.1 1", row.active);
    bool upgrade = !row.upgrade;
    job->decideActions(row.downloaded, upgrade);
    EXPECT_EQ(upgrade, row.upgrade);
    EXPECT_EQ(job->getImageAction(), row.action);
    EXPECT_EQ(job->getActivationFlag(), row.activation);
}

TEST_P(DecisionRowTest, decidesTheSameFromAManifest) {
    const Row& row = GetParam();
    if (std::string(row.downloaded).empty()) {
        GTEST_SKIP() << "a manifest's version always holds two blanks, never the empty string";
    }
    auto job =
        makeJob(row.compare, row.nextImage, row.activeImage, "X 1.0 1", "X 1.1 1", row.active);
    bool upgrade = !row.upgrade;
    XCode result = job->determineActionsNeeded(manifestOf(row.downloaded), upgrade);
    ASSERT_TRUE(result.isSuccess()) << result.toString().c_str();
    EXPECT_EQ(upgrade, row.upgrade);
    EXPECT_EQ(job->getImageAction(), row.action);
    EXPECT_EQ(job->getActivationFlag(), row.activation);
}

TEST_P(DecisionRowTest, storedVersionsNeverChangeTheRow) {
    const Row& row = GetParam();
    for (const char* stored : {"", "X 1.3 1", "X 1.2 7", "other"}) {
        auto job = makeJob(row.compare, row.nextImage, row.activeImage, stored, stored, row.active);
        bool upgrade = !row.upgrade;
        job->decideActions(row.downloaded, upgrade);
        EXPECT_EQ(upgrade, row.upgrade) << stored;
        EXPECT_EQ(job->getImageAction(), row.action) << stored;
        EXPECT_EQ(job->getActivationFlag(), row.activation) << stored;
    }
}

INSTANTIATE_TEST_SUITE_P(Table, DecisionRowTest, ::testing::ValuesIn(ROWS),
                         [](const ::testing::TestParamInfo<Row>& rowInfo) {
                             return std::string(rowInfo.param.name);
                         });

// --- getImageVersionOfManifest ---

TEST_F(FirmwareDecisionTest, versionJoinsTheThreeValuesWithSingleBlanks) {
    String version = "old";
    XCode result = FirmwareProvisioningJob::getImageVersionOfManifest(
        "sw_type=X\nsw_version=1.2\nsw_build_num=7\n", version);
    EXPECT_TRUE(result.isSuccess());
    EXPECT_EQ(version, "X 1.2 7");
}

TEST_F(FirmwareDecisionTest, versionTakesTheKeysInTheirOwnOrderWhateverTheManifestOrder) {
    String version;
    XCode result = FirmwareProvisioningJob::getImageVersionOfManifest(
        "sw_build_num=7\nother=1\nsw_version=1.2\nsw_type=X\n", version);
    EXPECT_TRUE(result.isSuccess());
    EXPECT_EQ(version, "X 1.2 7");
}

TEST_F(FirmwareDecisionTest, missingVersionKeyFailsWithTheMisspeltMessageAndAnEmptyVersion) {
    String version = "old";
    XCode result =
        FirmwareProvisioningJob::getImageVersionOfManifest("sw_type=X\nsw_build_num=7\n", version);
    EXPECT_EQ(result.getValue(), 0x7FFFFFFFu);
    EXPECT_EQ(result.getString(), "SOFTWARE INFORMATIONS ARE MISSING IN MANIFEST");
    EXPECT_TRUE(version.isEmpty());
}

TEST_F(FirmwareDecisionTest, eachMissingKeyFails) {
    for (const char* text : {"sw_version=1\nsw_build_num=7\n", "sw_type=X\nsw_build_num=7\n",
                             "sw_type=X\nsw_version=1\n"}) {
        String version;
        XCode result = FirmwareProvisioningJob::getImageVersionOfManifest(text, version);
        EXPECT_EQ(result.getString(), "SOFTWARE INFORMATIONS ARE MISSING IN MANIFEST") << text;
        EXPECT_TRUE(version.isEmpty());
    }
}

TEST_F(FirmwareDecisionTest, parserErrorIsPassedUpUnchanged) {
    const String text = "sw_type=X\nthis line has no equals sign\n";
    KtManifestParser parser;
    XCode expected = parser.parse(text);
    ASSERT_TRUE(expected.isErr());
    String version = "old";
    XCode result = FirmwareProvisioningJob::getImageVersionOfManifest(text, version);
    EXPECT_EQ(result, expected);
    EXPECT_EQ(result.getString(), expected.getString());
    EXPECT_TRUE(version.isEmpty());
}

TEST_F(FirmwareDecisionTest, manifestWithoutEntryPassesTheParsersErrorUp) {
    KtManifestParser parser;
    KtManifestEntry entry;
    ASSERT_TRUE(parser.parse("# only a comment\n").isSuccess());
    XCode expected = parser.getManifestEntry(entry);
    ASSERT_TRUE(expected.isErr());
    String version;
    XCode result =
        FirmwareProvisioningJob::getImageVersionOfManifest("# only a comment\n", version);
    EXPECT_EQ(result, expected);
    EXPECT_EQ(result.getString(), expected.getString());
}

TEST_F(FirmwareDecisionTest, emptyValuesGiveEmptyWords) {
    String version;
    XCode result = FirmwareProvisioningJob::getImageVersionOfManifest(
        "sw_type=X\nsw_version=\nsw_build_num=7\n", version);
    EXPECT_TRUE(result.isSuccess());
    EXPECT_EQ(version, "X  7");
}

TEST_F(FirmwareDecisionTest, valuesAreNotTrimmed) {
    String version;
    XCode result = FirmwareProvisioningJob::getImageVersionOfManifest(
        "sw_type= X\nsw_version=1.2 \nsw_build_num=7\n", version);
    EXPECT_TRUE(result.isSuccess());
    EXPECT_EQ(version, " X 1.2  7");
}

// --- determineActionsNeeded: logging and failures ---

TEST_F(FirmwareDecisionTest, comparisonLineIsWrittenWithThePrefixAtTheMonitorsLevel) {
    auto job = makeJob(true, 2, 1, "X 1.0 1", "X 1.1 1");
    bool upgrade = false;
    ASSERT_TRUE(job->determineActionsNeeded(manifestOf(NEWER), upgrade).isSuccess());
    const std::string expected =
        "[fw]Comparing image versions, downloaded: X 1.3 1\n"
        "                              active: X 1.2 7\n"
        "                           stored #1: X 1.0 1\n"
        "                           stored #2: X 1.1 1";
    EXPECT_EQ(prov.indexOf(expected), 0) << prov.dump();
    EXPECT_EQ(prov.levelOf(expected), 6);
}

TEST_F(FirmwareDecisionTest, resultLineFollowsTheComparisonLine) {
    auto job = makeJob(true, 1, 1);
    bool upgrade = false;
    ASSERT_TRUE(job->determineActionsNeeded(manifestOf(NEWER), upgrade).isSuccess());
    EXPECT_EQ(prov.indexOf("[fw] Resulting actions: upgrade: yes, image: Swap Next Image, "
                           "activation: yes"),
              1)
        << prov.dump();
}

TEST_F(FirmwareDecisionTest, unchangedVersionWithCompareSaysNoUpgradeNoActivation) {
    auto job = makeJob(true, 2, 1);
    bool upgrade = true;
    ASSERT_TRUE(job->determineActionsNeeded(manifestOf(ACTIVE), upgrade).isSuccess());
    EXPECT_FALSE(upgrade);
    EXPECT_EQ(job->getImageAction(), ProvisioningJob::UpdateImageInfo);
    EXPECT_FALSE(job->getActivationFlag());
    EXPECT_GE(prov.indexOf("[fw] Resulting actions: upgrade: no, image: Update Image Info, "
                           "activation: no"),
              0)
        << prov.dump();
}

TEST_F(FirmwareDecisionTest, linesFollowTheLevelTheMonitorIsEnabledFor) {
    prov.setLevel(8);
    auto job = makeJob(false, 2, 1);
    bool upgrade = false;
    ASSERT_TRUE(job->determineActionsNeeded(manifestOf(ACTIVE), upgrade).isSuccess());
    auto entries = prov.entries();
    ASSERT_EQ(entries.size(), 2u) << prov.dump();
    EXPECT_EQ(entries[0].level, 8);
    EXPECT_EQ(entries[1].level, 8);
    EXPECT_EQ(entries[1].text,
              "[fw] Resulting actions: upgrade: yes, image: Update Image Info, activation: yes");
}

TEST_F(FirmwareDecisionTest, monitorNotEnabledForProgressGetsNoLines) {
    prov.setLevel(3);
    auto job = makeJob(false, 2, 1);
    bool upgrade = false;
    ASSERT_TRUE(job->determineActionsNeeded(manifestOf(NEWER), upgrade).isSuccess());
    EXPECT_TRUE(upgrade);
    EXPECT_TRUE(prov.lines().empty()) << prov.dump();
}

TEST_F(FirmwareDecisionTest, nullMonitorStillDecides) {
    MON_PROV = nullptr;
    auto job = makeJob(true, 1, 1);
    bool upgrade = false;
    ASSERT_TRUE(job->determineActionsNeeded(manifestOf(NEWER), upgrade).isSuccess());
    EXPECT_TRUE(upgrade);
    EXPECT_EQ(job->getImageAction(), ProvisioningJob::SwapNextImage);
}

TEST_F(FirmwareDecisionTest, failedVersionChangesNothingAndLogsNothing) {
    auto job = makeJob(true, 1, 1);
    bool upgrade = false;
    ASSERT_TRUE(job->determineActionsNeeded(manifestOf(NEWER), upgrade).isSuccess());
    ASSERT_EQ(job->getImageAction(), ProvisioningJob::SwapNextImage);
    prov.clear();
    upgrade = true;
    XCode result = job->determineActionsNeeded("sw_type=X\n", upgrade);
    EXPECT_EQ(result.getString(), "SOFTWARE INFORMATIONS ARE MISSING IN MANIFEST");
    EXPECT_TRUE(upgrade);
    EXPECT_EQ(job->getImageAction(), ProvisioningJob::SwapNextImage);
    EXPECT_TRUE(job->getActivationFlag());
    EXPECT_TRUE(prov.lines().empty()) << prov.dump();
}

TEST_F(FirmwareDecisionTest, eachSuccessOverwritesTheEarlierDecision) {
    auto job = makeJob(true, 1, 1);
    bool upgrade = false;
    ASSERT_TRUE(job->determineActionsNeeded(manifestOf(NEWER), upgrade).isSuccess());
    EXPECT_EQ(job->getImageAction(), ProvisioningJob::SwapNextImage);
    ASSERT_TRUE(job->determineActionsNeeded(manifestOf(ACTIVE), upgrade).isSuccess());
    EXPECT_FALSE(upgrade);
    EXPECT_EQ(job->getImageAction(), ProvisioningJob::UpdateImageInfo);
    EXPECT_FALSE(job->getActivationFlag());
}

TEST_F(FirmwareDecisionTest, versionsDifferingOnlyInBlanksAreDifferent) {
    auto job = makeJob(true, 2, 1, "", "", "X 1.2 7");
    bool upgrade = false;
    ASSERT_TRUE(job->determineActionsNeeded("sw_type=X\nsw_version=1.2\nsw_build_num=7 \n", upgrade)
                    .isSuccess());
    EXPECT_TRUE(upgrade);
}

}  // namespace
