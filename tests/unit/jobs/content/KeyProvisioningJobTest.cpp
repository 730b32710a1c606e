// The key job after a download: the comparison with "/flash/preferences/key", the store, the
// activation flag, and failures that return the file error with its message.

#include "jobs/content/KeyProvisioningJob.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <memory>
#include <string>

#include "unit/jobs/content/ContentJobSupport.h"

namespace {

using contenttest::OpenJob;
using OpenKeyJob = OpenJob<KeyProvisioningJob>;

const char* LOCATION = "tftp://127.0.0.1/keys/unit.key";
const std::string KEY = "-----BEGIN KEY-----\nAAAABBBBCCCC\n-----END KEY-----\n";
const std::string OTHER_KEY = "-----BEGIN KEY-----\nDDDD\n-----END KEY-----\n";

class KeyProvisioningJobTest : public contenttest::ContentJobTest {
  protected:
    void makeJob(bool compare) {
        job = std::make_unique<OpenKeyJob>(loop, "key", ProvisioningJob::None, compare,
                                           KtList<String>(), credentials, resolver, handler);
        job->setDownloaded(LOCATION, workFile.c_str(), "/keys/unit.key");
    }
    XCode downloaded(const std::string& content) {
        download(content);
        return job->onSuccessfulFileDownload();
    }
    std::string keyFile() const { return flash("preferences/key"); }
    static std::string line(const std::string& text) { return "[key] " + text; }
    // The key job names no destination: the line shows it empty.
    static std::string xferLine(const std::string& result) {
        return std::string("key : ") + LOCATION + " ->  : " + result;
    }

    std::unique_ptr<OpenKeyJob> job;
};

TEST_F(KeyProvisioningJobTest, constructorLeavesTheDestinationEmpty) {
    makeJob(true);
    EXPECT_TRUE(job->getUploadLocation().isEmpty());
    EXPECT_FALSE(job->getActivationFlag());
}

TEST_F(KeyProvisioningJobTest, failedLocationIsLoggedAtLevelThreeAndTheWalkGoesOn) {
    makeJob(true);
    EXPECT_TRUE(job->onFailedFileDownload().isSuccess());
    EXPECT_EQ(prov.levelOf(line("FAILED TO DOWNLOAD KEY")), 3) << prov.dump();
    EXPECT_TRUE(xfer.lines().empty());
}

TEST_F(KeyProvisioningJobTest, noStoredKeyIsLoggedAndTheKeyWritten) {
    makeJob(true);
    XCode result = downloaded(KEY);
    ASSERT_TRUE(result.isSuccess()) << result.toString().c_str();
    EXPECT_EQ(provtest::readFile(keyFile()), KEY);

    std::vector<provtest::CaptureMonitor::Entry> lines = prov.entries();
    ASSERT_EQ(lines.size(), 3u) << prov.dump();
    EXPECT_EQ(lines[0].text, line("Successfully downloaded key"));
    EXPECT_EQ(lines[1].text, line("No stored key: CANNOT OPEN /flash/preferences/key: No such file "
                                  "or directory (0x10000002)"));
    EXPECT_EQ(lines[2].text, line("Storing key"));
    for (const auto& entry : lines) {
        EXPECT_EQ(entry.level, 6) << entry.text;
    }
    ASSERT_EQ(event.lines().size(), 1u);
    EXPECT_EQ(event.levelOf(line("Received and stored key update")), 6);
    ASSERT_EQ(xfer.lines().size(), 1u);
    EXPECT_EQ(xfer.levelOf(xferLine("succeeded")), 6) << xfer.dump();
}

TEST_F(KeyProvisioningJobTest, activationIsSetOnceTheKeyIsStored) {
    makeJob(false);
    ASSERT_FALSE(job->getActivationFlag());
    ASSERT_TRUE(downloaded(KEY).isSuccess());
    EXPECT_EQ(provtest::readFile(keyFile()), KEY);
    EXPECT_TRUE(job->getActivationFlag());
}

TEST_F(KeyProvisioningJobTest, identicalKeyIsNotWrittenAndNotLogged) {
    provtest::writeFile(keyFile(), KEY);
    ino_t before = contenttest::inodeOf(keyFile());
    makeJob(true);
    XCode result = downloaded(KEY);
    EXPECT_TRUE(result.isSuccess());
    EXPECT_EQ(contenttest::inodeOf(keyFile()), before);
    EXPECT_GE(prov.indexOf(line("Downloaded and stored key are equal")), 0) << prov.dump();
    EXPECT_FALSE(prov.contains("Storing key"));
    EXPECT_TRUE(xfer.lines().empty()) << xfer.dump();
    EXPECT_TRUE(event.lines().empty());
    // Nothing stored, nothing to activate.
    EXPECT_FALSE(job->getActivationFlag());
}

TEST_F(KeyProvisioningJobTest, changedKeyReplacesTheStoredOneWhole) {
    provtest::writeFile(keyFile(), KEY + KEY);
    makeJob(true);
    ASSERT_TRUE(downloaded(OTHER_KEY).isSuccess());
    EXPECT_EQ(provtest::readFile(keyFile()), OTHER_KEY);
    EXPECT_FALSE(prov.contains("No stored key"));
    EXPECT_TRUE(job->getActivationFlag());
    EXPECT_GE(xfer.indexOf(xferLine("succeeded")), 0);
}

TEST_F(KeyProvisioningJobTest, withoutComparisonAnEqualKeyIsWrittenAgain) {
    provtest::writeFile(keyFile(), KEY);
    ino_t before = contenttest::inodeOf(keyFile());
    makeJob(false);
    ASSERT_TRUE(downloaded(KEY).isSuccess());
    EXPECT_NE(contenttest::inodeOf(keyFile()), before);
    EXPECT_EQ(prov.indexOf(line("No key comparison is done")), 1) << prov.dump();
    EXPECT_FALSE(prov.contains("are equal"));
    EXPECT_TRUE(job->getActivationFlag());
}

TEST_F(KeyProvisioningJobTest, unreadableWorkFileReturnsTheErrorWithItsMessage) {
    makeJob(true);
    XCode result = job->onSuccessfulFileDownload();
    ASSERT_TRUE(result.isErr());
    EXPECT_EQ(result.getString(), "Cannot read content of downloaded file");
    EXPECT_EQ(result.getValue(), XCode::fromErrno(ENOENT).getValue());
    EXPECT_EQ(xfer.levelOf(xferLine("Cannot read content of downloaded file (0x10000002)")), 6)
        << xfer.dump();
    EXPECT_FALSE(job->getActivationFlag());
    EXPECT_EQ(contenttest::inodeOf(keyFile()), 0u);
}

TEST_F(KeyProvisioningJobTest, failedOpenReturnsTheFileErrorAndLogsIt) {
    ASSERT_EQ(0, ::rmdir(flash("preferences").c_str()));
    provtest::writeFile(flash("preferences"), "in the way");
    makeJob(true);
    XCode result = downloaded(KEY);
    ASSERT_TRUE(result.isErr());
    EXPECT_EQ(result.getString(), "CANNOT OPEN /flash/preferences/key: Not a directory");
    EXPECT_EQ(result.getValue(), XCode::fromErrno(ENOTDIR).getValue());
    ASSERT_EQ(xfer.lines().size(), 1u);
    EXPECT_EQ(xfer.levelOf(xferLine(result.toString().str())), 6) << xfer.dump();
    EXPECT_FALSE(job->getActivationFlag());
    EXPECT_TRUE(event.lines().empty());
}

TEST_F(KeyProvisioningJobTest, failedWriteKeepsTheOldKeyAndTheFlag) {
    provtest::writeFile(keyFile(), OTHER_KEY);
    makeJob(true);
    download(KEY);
    XCode result;
    {
        contenttest::FileSizeLimit limit(8);
        result = job->onSuccessfulFileDownload();
    }
    ASSERT_TRUE(result.isErr());
    EXPECT_EQ(result.getString(), "CANNOT WRITE /flash/preferences/key: File too large");
    EXPECT_EQ(
        xfer.levelOf(xferLine("CANNOT WRITE /flash/preferences/key: File too large (0x1000001B)")),
        6)
        << xfer.dump();
    EXPECT_EQ(provtest::readFile(keyFile()), OTHER_KEY);
    EXPECT_FALSE(job->getActivationFlag());
    EXPECT_TRUE(event.lines().empty());
}

}  // namespace
