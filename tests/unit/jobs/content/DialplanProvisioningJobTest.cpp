// The dial-plan job after a download: the file name in flash, the comparison, the store, and a
// failure that says why only in the transfer log.

#include "jobs/content/DialplanProvisioningJob.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <string>

#include "unit/jobs/content/ContentJobSupport.h"

namespace {

using contenttest::OpenJob;
using OpenDialplanJob = OpenJob<DialplanProvisioningJob>;

const char* LOCATION = "http://127.0.0.1/plans/office.txt";
const std::string PLAN = "route 0049* via trunk-a\nroute 00* via trunk-b\n";
const std::string OTHER_PLAN = "route * via trunk-c\n";

class DialplanProvisioningJobTest : public contenttest::ContentJobTest {
  protected:
    void makeJob(const String& dialplanName, bool compare) {
        job = std::make_unique<OpenDialplanJob>(loop, "dp", dialplanName, ProvisioningJob::None,
                                                compare, KtList<String>(), credentials, resolver,
                                                handler);
        job->setDownloaded(LOCATION, workFile.c_str(), "/plans/office.txt");
    }
    XCode downloaded(const std::string& content) {
        download(content);
        return job->onSuccessfulFileDownload();
    }
    static std::string line(const std::string& text) { return "[dp] " + text; }
    static std::string xferLine(const std::string& destination, const std::string& result) {
        return std::string("dp : ") + LOCATION + " -> " + destination + " : " + result;
    }
    // Every regular file under the device directory whose name is `name`.
    int filesNamed(const std::string& name) const {
        int found = 0;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(device.path())) {
            if (entry.is_regular_file() && entry.path().filename() == name) {
                ++found;
            }
        }
        return found;
    }
    // The generic failure without a message: what this job returns on every failure.
    static void expectBareGenericFailure(const XCode& result) {
        EXPECT_TRUE(result.isErr());
        EXPECT_EQ(result.getValue(), XCode::GENERIC_FAILURE);
        EXPECT_FALSE(result.hasMessage()) << result.getString().c_str();
    }

    std::unique_ptr<OpenDialplanJob> job;
};

TEST_F(DialplanProvisioningJobTest, constructorKeepsTheDialplanNameAsDestination) {
    makeJob("dialplan:office", true);
    EXPECT_EQ(job->getUploadLocation(), "dialplan:office");
    EXPECT_FALSE(job->getActivationFlag());
}

TEST_F(DialplanProvisioningJobTest, failedLocationIsLoggedAtLevelThreeAndTheWalkGoesOn) {
    makeJob("dialplan:office", true);
    EXPECT_TRUE(job->onFailedFileDownload().isSuccess());
    EXPECT_EQ(prov.levelOf(line("FAILED TO DOWNLOAD DIALPLAN")), 3) << prov.dump();
    EXPECT_TRUE(xfer.lines().empty());
}

TEST_F(DialplanProvisioningJobTest, nameAfterTheLastColonIsTheFileInFlash) {
    makeJob("dialplan:office", true);
    XCode result = downloaded(PLAN);
    ASSERT_TRUE(result.isSuccess()) << result.toString().c_str();
    EXPECT_EQ(provtest::readFile(flash("dialplan/office")), PLAN);

    std::vector<provtest::CaptureMonitor::Entry> lines = prov.entries();
    ASSERT_EQ(lines.size(), 3u) << prov.dump();
    EXPECT_EQ(lines[0].text, line("Successfully downloaded dialplan"));
    EXPECT_EQ(lines[1].text, line("No stored dialplan: CANNOT OPEN /flash/dialplan/office: No such "
                                  "file or directory (0x10000002)"));
    EXPECT_EQ(lines[2].text, line("Storing dialplan"));
    for (const auto& entry : lines) {
        EXPECT_EQ(entry.level, 6) << entry.text;
    }
    ASSERT_EQ(event.lines().size(), 1u);
    EXPECT_EQ(event.levelOf(line("Received and stored dialplan update")), 6);
    ASSERT_EQ(xfer.lines().size(), 1u);
    EXPECT_EQ(xfer.levelOf(xferLine("dialplan:office", "succeeded")), 6) << xfer.dump();
    // A dial plan is never an activation.
    EXPECT_FALSE(job->getActivationFlag());
}

TEST_F(DialplanProvisioningJobTest, nameWithoutColonIsUsedWhole) {
    makeJob("office", true);
    ASSERT_TRUE(downloaded(PLAN).isSuccess());
    EXPECT_EQ(provtest::readFile(flash("dialplan/office")), PLAN);
    EXPECT_GE(xfer.indexOf(xferLine("office", "succeeded")), 0) << xfer.dump();
}

TEST_F(DialplanProvisioningJobTest, onlyTheLastColonCounts) {
    makeJob("a:b:branch", true);
    ASSERT_TRUE(downloaded(PLAN).isSuccess());
    EXPECT_EQ(provtest::readFile(flash("dialplan/branch")), PLAN);
}

TEST_F(DialplanProvisioningJobTest, identicalDownloadIsNotWrittenAndNotLogged) {
    provtest::writeFile(flash("dialplan/office"), PLAN);
    ino_t before = contenttest::inodeOf(flash("dialplan/office"));
    makeJob("dialplan:office", true);
    XCode result = downloaded(PLAN);
    EXPECT_TRUE(result.isSuccess());
    EXPECT_FALSE(result.hasMessage());
    EXPECT_EQ(contenttest::inodeOf(flash("dialplan/office")), before);
    EXPECT_GE(prov.indexOf(line("Downloaded and stored dialplans are equal")), 0) << prov.dump();
    EXPECT_FALSE(prov.contains("Storing dialplan"));
    EXPECT_TRUE(xfer.lines().empty()) << xfer.dump();
    EXPECT_TRUE(event.lines().empty());
}

TEST_F(DialplanProvisioningJobTest, changedDownloadReplacesTheStoredPlanWhole) {
    provtest::writeFile(flash("dialplan/office"), PLAN + PLAN + PLAN);
    makeJob("dialplan:office", true);
    ASSERT_TRUE(downloaded(OTHER_PLAN).isSuccess());
    EXPECT_EQ(provtest::readFile(flash("dialplan/office")), OTHER_PLAN);
    EXPECT_FALSE(prov.contains("No stored dialplan"));
    EXPECT_FALSE(prov.contains("are equal"));
    EXPECT_GE(xfer.indexOf(xferLine("dialplan:office", "succeeded")), 0);
}

TEST_F(DialplanProvisioningJobTest, withoutComparisonAnEqualPlanIsWrittenAgain) {
    provtest::writeFile(flash("dialplan/office"), PLAN);
    ino_t before = contenttest::inodeOf(flash("dialplan/office"));
    makeJob("dialplan:office", false);
    ASSERT_TRUE(downloaded(PLAN).isSuccess());
    EXPECT_NE(contenttest::inodeOf(flash("dialplan/office")), before);
    EXPECT_EQ(prov.indexOf(line("No dialplan comparison is done")), 1) << prov.dump();
    EXPECT_FALSE(prov.contains("are equal"));
    EXPECT_GE(xfer.indexOf(xferLine("dialplan:office", "succeeded")), 0);
}

TEST_F(DialplanProvisioningJobTest, unreadableWorkFileFailsWithTheReasonOnlyInTheTransferLog) {
    makeJob("dialplan:office", true);
    XCode result = job->onSuccessfulFileDownload();
    expectBareGenericFailure(result);
    ASSERT_EQ(xfer.lines().size(), 1u);
    EXPECT_EQ(xfer.levelOf(xferLine("dialplan:office",
                                    "Cannot read content of downloaded file (0x10000002)")),
              6)
        << xfer.dump();
    EXPECT_EQ(prov.lines().size(), 1u) << prov.dump();
    EXPECT_EQ(contenttest::inodeOf(flash("dialplan/office")), 0u);
}

TEST_F(DialplanProvisioningJobTest, failedOpenFailsWithoutMessageAndLogsTheFileError) {
    // A file where the directory should be: nothing can be created under it, even as root.
    ASSERT_EQ(0, ::rmdir(flash("dialplan").c_str()));
    provtest::writeFile(flash("dialplan"), "in the way");
    makeJob("dialplan:office", true);
    XCode result = downloaded(PLAN);
    expectBareGenericFailure(result);
    ASSERT_EQ(xfer.lines().size(), 1u);
    EXPECT_EQ(
        xfer.levelOf(xferLine("dialplan:office",
                              "CANNOT OPEN /flash/dialplan/office: Not a directory (0x10000014)")),
        6)
        << xfer.dump();
    EXPECT_GE(prov.indexOf(line("Storing dialplan")), 0);
    EXPECT_TRUE(event.lines().empty());
    EXPECT_EQ(provtest::readFile(flash("dialplan")), "in the way");
}

TEST_F(DialplanProvisioningJobTest, failedWriteKeepsTheOldPlanIntact) {
    provtest::writeFile(flash("dialplan/office"), OTHER_PLAN);
    makeJob("dialplan:office", true);
    download(PLAN);
    XCode result;
    {
        contenttest::FileSizeLimit limit(8);
        result = job->onSuccessfulFileDownload();
    }
    expectBareGenericFailure(result);
    EXPECT_EQ(
        xfer.levelOf(xferLine("dialplan:office",
                              "CANNOT WRITE /flash/dialplan/office: File too large (0x1000001B)")),
        6)
        << xfer.dump();
    EXPECT_EQ(provtest::readFile(flash("dialplan/office")), OTHER_PLAN);
    // No temporary is left beside it.
    int entries = 0;
    for ([[maybe_unused]] const auto& entry :
         std::filesystem::directory_iterator(flash("dialplan"))) {
        ++entries;
    }
    EXPECT_EQ(entries, 1);
    EXPECT_TRUE(event.lines().empty());
}

TEST_F(DialplanProvisioningJobTest, nameClimbingOutOfFlashIsRefused) {
    makeJob("dialplan:../../x", true);
    XCode result = downloaded(PLAN);
    expectBareGenericFailure(result);
    EXPECT_EQ(filesNamed("x"), 0);
    EXPECT_FALSE(provtest::fileExists(device.file("x")));
    ASSERT_EQ(xfer.lines().size(), 1u);
    EXPECT_EQ(xfer.levelOf(xferLine("dialplan:../../x",
                                    "PATH LEAVES FLASH: /flash/dialplan/../../x (0x7FFFFFFF)")),
              6)
        << xfer.dump();
    EXPECT_GE(prov.indexOf(line(
                  "No stored dialplan: PATH LEAVES FLASH: /flash/dialplan/../../x (0x7FFFFFFF)")),
              0)
        << prov.dump();
    EXPECT_TRUE(event.lines().empty());
}

TEST_F(DialplanProvisioningJobTest, nameClimbingOutOfTheDialplanFolderStaysInFlash) {
    makeJob("dialplan:../x", true);
    ASSERT_TRUE(downloaded(PLAN).isSuccess());
    EXPECT_EQ(provtest::readFile(flash("x")), PLAN);
    EXPECT_EQ(filesNamed("x"), 1);
}

TEST_F(DialplanProvisioningJobTest, emptyNameAfterTheColonNamesNoFile) {
    makeJob("dialplan:", true);
    XCode result = downloaded(PLAN);
    expectBareGenericFailure(result);
    ASSERT_EQ(xfer.lines().size(), 1u);
    EXPECT_EQ(xfer.lines()[0],
              xferLine("dialplan:", "INVALID FILE NAME: /flash/dialplan/ (0x7FFFFFFF)"));
    EXPECT_FALSE(std::filesystem::is_regular_file(flash("dialplan")));
}

}  // namespace
