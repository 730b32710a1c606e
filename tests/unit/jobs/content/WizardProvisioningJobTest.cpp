// The wizard job after a download: the file name taken from the location, the comparison, the
// store and the follow-up request for the job's owner.

#include "jobs/content/WizardProvisioningJob.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "unit/jobs/content/ContentJobSupport.h"

namespace {

using contenttest::OpenJob;
using OpenWizardJob = OpenJob<WizardProvisioningJob>;

const char* LOCATION = "http://127.0.0.1/w/intro.wiz";
const std::string WIZARD = "page 1\n  ask hostname\npage 2\n  ask address\n";
const std::string OTHER_WIZARD = "page 1\n  ask timezone\n";

std::vector<std::string> listOf(const KtList<String>& list) {
    std::vector<std::string> items;
    for (const String& item : list) {
        items.push_back(item.str());
    }
    return items;
}

class WizardProvisioningJobTest : public contenttest::ContentJobTest {
  protected:
    void makeJob(bool compare, const String& remotePath = "/w/intro.wiz") {
        job = std::make_unique<OpenWizardJob>(loop, "wiz", ProvisioningJob::None, compare,
                                              KtList<String>(), credentials, resolver, handler);
        job->setDownloaded(LOCATION, workFile.c_str(), remotePath);
    }
    XCode downloaded(const std::string& content) {
        download(content);
        return job->onSuccessfulFileDownload();
    }
    void expectNoFollowUp() const {
        EXPECT_FALSE(job->isFollowUpPending());
        EXPECT_TRUE(listOf(job->getFollowUpArguments()).empty());
    }
    static std::string line(const std::string& text) { return "[wiz] " + text; }
    static std::string xferLine(const std::string& result) {
        return std::string("wiz : ") + LOCATION + " -> wizard : " + result;
    }
    // The names in flash/wizard.
    std::vector<std::string> wizardFolder() const {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(flash("wizard"))) {
            names.push_back(entry.path().filename().string());
        }
        return names;
    }

    std::unique_ptr<OpenWizardJob> job;
};

TEST_F(WizardProvisioningJobTest, constructorPreparesTheFollowUpCommand) {
    makeJob(true);
    EXPECT_EQ(job->getUploadLocation(), "wizard");
    EXPECT_EQ(job->getFollowUpMode(), "Wizard");
    EXPECT_EQ(job->getFollowUpCommand(), "add wizard");
    expectNoFollowUp();
}

TEST_F(WizardProvisioningJobTest, failedLocationIsLoggedAtLevelThreeAndTheWalkGoesOn) {
    makeJob(true);
    EXPECT_TRUE(job->onFailedFileDownload().isSuccess());
    EXPECT_EQ(prov.levelOf(line("FAILED TO DOWNLOAD WIZARD")), 3) << prov.dump();
    expectNoFollowUp();
}

TEST_F(WizardProvisioningJobTest, everyTextIsAValidWizard) {
    String empty;
    String binary("\x01\x02\0x", 4);
    String text = WIZARD.c_str();
    EXPECT_TRUE(WizardProvisioningJob::isValidWizard(empty));
    EXPECT_TRUE(WizardProvisioningJob::isValidWizard(binary));
    EXPECT_TRUE(WizardProvisioningJob::isValidWizard(text));
}

TEST_F(WizardProvisioningJobTest, storedUnderTheLocationsFileNameWithAFollowUp) {
    makeJob(true);
    XCode result = downloaded(WIZARD);
    ASSERT_TRUE(result.isSuccess()) << result.toString().c_str();
    EXPECT_EQ(provtest::readFile(flash("wizard/intro.wiz")), WIZARD);
    EXPECT_TRUE(job->isFollowUpPending());
    EXPECT_EQ(listOf(job->getFollowUpArguments()), std::vector<std::string>{"intro.wiz"});
    EXPECT_EQ(job->getFollowUpMode(), "Wizard");
    EXPECT_EQ(job->getFollowUpCommand(), "add wizard");
    // A wizard is never an activation.
    EXPECT_FALSE(job->getActivationFlag());

    std::vector<provtest::CaptureMonitor::Entry> lines = prov.entries();
    ASSERT_EQ(lines.size(), 3u) << prov.dump();
    EXPECT_EQ(lines[0].text, line("Successfully downloaded wizard"));
    EXPECT_EQ(lines[1].text, line("No stored wizard: CANNOT OPEN /flash/wizard/intro.wiz: No such "
                                  "file or directory (0x10000002)"));
    EXPECT_EQ(lines[2].text, line("Storing wizard"));
    for (const auto& entry : lines) {
        EXPECT_EQ(entry.level, 6) << entry.text;
    }
    ASSERT_EQ(event.lines().size(), 1u);
    EXPECT_EQ(event.levelOf(line("Received and stored wizard update")), 6);
    ASSERT_EQ(xfer.lines().size(), 1u);
    EXPECT_EQ(xfer.levelOf(xferLine("succeeded")), 6) << xfer.dump();
}

TEST_F(WizardProvisioningJobTest, pathWithoutSlashIsUsedWhole) {
    makeJob(true, "intro.wiz");
    ASSERT_TRUE(downloaded(WIZARD).isSuccess());
    EXPECT_EQ(provtest::readFile(flash("wizard/intro.wiz")), WIZARD);
    EXPECT_EQ(listOf(job->getFollowUpArguments()), std::vector<std::string>{"intro.wiz"});
}

TEST_F(WizardProvisioningJobTest, unchangedWizardProducesNoFollowUp) {
    provtest::writeFile(flash("wizard/intro.wiz"), WIZARD);
    ino_t before = contenttest::inodeOf(flash("wizard/intro.wiz"));
    makeJob(true);
    XCode result = downloaded(WIZARD);
    EXPECT_TRUE(result.isSuccess());
    EXPECT_EQ(contenttest::inodeOf(flash("wizard/intro.wiz")), before);
    EXPECT_GE(prov.indexOf(line("Downloaded and stored wizards are equal")), 0) << prov.dump();
    EXPECT_FALSE(prov.contains("Storing wizard"));
    EXPECT_TRUE(xfer.lines().empty()) << xfer.dump();
    EXPECT_TRUE(event.lines().empty());
    expectNoFollowUp();
}

TEST_F(WizardProvisioningJobTest, changedWizardReplacesTheStoredOneWhole) {
    provtest::writeFile(flash("wizard/intro.wiz"), WIZARD + WIZARD);
    makeJob(true);
    ASSERT_TRUE(downloaded(OTHER_WIZARD).isSuccess());
    EXPECT_EQ(provtest::readFile(flash("wizard/intro.wiz")), OTHER_WIZARD);
    EXPECT_FALSE(prov.contains("No stored wizard"));
    EXPECT_EQ(listOf(job->getFollowUpArguments()), std::vector<std::string>{"intro.wiz"});
    EXPECT_TRUE(job->isFollowUpPending());
}

TEST_F(WizardProvisioningJobTest, withoutComparisonAnEqualWizardIsStoredWithAFollowUp) {
    provtest::writeFile(flash("wizard/intro.wiz"), WIZARD);
    ino_t before = contenttest::inodeOf(flash("wizard/intro.wiz"));
    makeJob(false);
    ASSERT_TRUE(downloaded(WIZARD).isSuccess());
    EXPECT_NE(contenttest::inodeOf(flash("wizard/intro.wiz")), before);
    EXPECT_EQ(prov.indexOf(line("No wizard comparison is done")), 1) << prov.dump();
    EXPECT_FALSE(prov.contains("are equal"));
    EXPECT_TRUE(job->isFollowUpPending());
}

TEST_F(WizardProvisioningJobTest, unreadableWorkFileReturnsTheErrorWithItsMessage) {
    makeJob(true);
    XCode result = job->onSuccessfulFileDownload();
    ASSERT_TRUE(result.isErr());
    EXPECT_EQ(result.getString(), "Cannot read content of downloaded file");
    EXPECT_EQ(xfer.levelOf(xferLine("Cannot read content of downloaded file (0x10000002)")), 6)
        << xfer.dump();
    expectNoFollowUp();
    EXPECT_TRUE(wizardFolder().empty());
}

TEST_F(WizardProvisioningJobTest, pathEndingInDotDotIsRefused) {
    makeJob(true, "/w/..");
    XCode result = downloaded(WIZARD);
    ASSERT_TRUE(result.isErr());
    EXPECT_EQ(result.getString(), "INVALID FILE NAME: /flash/wizard/..");
    ASSERT_EQ(xfer.lines().size(), 1u);
    EXPECT_EQ(xfer.levelOf(xferLine("INVALID FILE NAME: /flash/wizard/.. (0x7FFFFFFF)")), 6)
        << xfer.dump();
    expectNoFollowUp();
    EXPECT_TRUE(wizardFolder().empty());
    // Flash holds exactly the folders it had.
    for (const auto& entry : std::filesystem::directory_iterator(flash(""))) {
        EXPECT_TRUE(entry.is_directory()) << entry.path();
    }
    EXPECT_TRUE(event.lines().empty());
}

TEST_F(WizardProvisioningJobTest, pathThatIsOnlyDotDotIsRefused) {
    makeJob(false, "..");
    XCode result = downloaded(WIZARD);
    EXPECT_EQ(result.getString(), "INVALID FILE NAME: /flash/wizard/..");
    expectNoFollowUp();
}

TEST_F(WizardProvisioningJobTest, failedOpenReturnsTheFileErrorWithoutFollowUp) {
    ASSERT_EQ(0, ::rmdir(flash("wizard").c_str()));
    provtest::writeFile(flash("wizard"), "in the way");
    makeJob(true);
    XCode result = downloaded(WIZARD);
    ASSERT_TRUE(result.isErr());
    EXPECT_EQ(result.getString(), "CANNOT OPEN /flash/wizard/intro.wiz: Not a directory");
    ASSERT_EQ(xfer.lines().size(), 1u);
    EXPECT_EQ(xfer.levelOf(xferLine(result.toString().str())), 6) << xfer.dump();
    EXPECT_EQ(provtest::readFile(flash("wizard")), "in the way");
    expectNoFollowUp();
    EXPECT_TRUE(event.lines().empty());
}

TEST_F(WizardProvisioningJobTest, failedWriteKeepsTheOldWizard) {
    provtest::writeFile(flash("wizard/intro.wiz"), OTHER_WIZARD);
    makeJob(true);
    download(WIZARD);
    XCode result;
    {
        contenttest::FileSizeLimit limit(8);
        result = job->onSuccessfulFileDownload();
    }
    ASSERT_TRUE(result.isErr());
    EXPECT_EQ(result.getString(), "CANNOT WRITE /flash/wizard/intro.wiz: File too large");
    EXPECT_EQ(
        xfer.levelOf(xferLine("CANNOT WRITE /flash/wizard/intro.wiz: File too large (0x1000001B)")),
        6)
        << xfer.dump();
    EXPECT_EQ(provtest::readFile(flash("wizard/intro.wiz")), OTHER_WIZARD);
    EXPECT_EQ(wizardFolder(), std::vector<std::string>{"intro.wiz"});
    expectNoFollowUp();
}

}  // namespace
