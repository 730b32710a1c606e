// The configuration job after a download: comparison with the stored configuration, validation,
// store or execution, and the lines it leaves on the three monitors.

#include "jobs/content/ConfigProvisioningJob.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <memory>
#include <string>

#include "platform/Cli.h"
#include "support/RejectedCommands.h"
#include "unit/jobs/content/ContentJobSupport.h"

namespace {

using contenttest::OpenJob;
using OpenConfigJob = OpenJob<ConfigProvisioningJob>;

const char* LOCATION = "tftp://127.0.0.1/configs/unit.cfg";
const std::string VALID =
    "cli version 4.10\ncontext ip router\n  interface lan\nport ethernet 0 0\n";
const std::string VALID_OTHER =
    "cli version 5\ncontext ip router\n  interface wan\nport ethernet 0 1\n";
// Executable by the simulated system, but not a full configuration.
const std::string PARTIAL = "hostname gateway\nntp server 10.0.0.1\n";

class ConfigProvisioningJobTest : public contenttest::ContentJobTest {
  protected:
    void makeJob(bool compare) {
        job = std::make_unique<OpenConfigJob>(loop, "cfg", ProvisioningJob::None, compare,
                                              KtList<String>(), credentials, resolver, handler);
        job->setDownloaded(LOCATION, workFile.c_str(), "/configs/unit.cfg");
    }
    XCode downloaded(const std::string& content) {
        download(content);
        return job->onSuccessfulFileDownload();
    }
    void storeStartup(const std::string& content) {
        String error;
        ASSERT_TRUE(
            CLI::STORE_CONFIGURATION_CONTENT("startup-config", content.c_str(), error).isSuccess())
            << error.c_str();
    }
    std::string startupFile() const { return device.file("config/startup-config"); }
    std::string runningFile() const { return device.file("running-config"); }
    static std::string line(const std::string& text) { return "[cfg] " + text; }
    static std::string xferLine(const std::string& destination, const std::string& result) {
        return std::string("cfg : ") + LOCATION + " -> " + destination + " : " + result;
    }

    std::unique_ptr<OpenConfigJob> job;
};

TEST_F(ConfigProvisioningJobTest, constructorNamesTheStartupConfigurationAsDestination) {
    makeJob(true);
    EXPECT_EQ(job->getUploadLocation(), "startup-config");
    EXPECT_TRUE(job->isComparisonAllowed());
    EXPECT_FALSE(job->getActivationFlag());
}

TEST_F(ConfigProvisioningJobTest, failedLocationIsLoggedAtLevelThreeAndTheWalkGoesOn) {
    makeJob(true);
    EXPECT_TRUE(job->onFailedFileDownload().isSuccess());
    EXPECT_EQ(prov.levelOf(line("FAILED TO DOWNLOAD CONFIGURATION")), 3) << prov.dump();
    EXPECT_TRUE(xfer.lines().empty());
}

TEST_F(ConfigProvisioningJobTest, newConfigurationIsStoredWithItsLines) {
    makeJob(true);
    job->setActivationFlag(false);
    XCode result = downloaded(VALID);
    ASSERT_TRUE(result.isSuccess()) << result.toString().c_str();
    EXPECT_EQ(provtest::readFile(startupFile()), VALID);
    EXPECT_TRUE(job->getActivationFlag());

    int downloadedAt = prov.indexOf(line("Successfully downloaded configuration"));
    int noStoredAt =
        prov.indexOf(line("No stored configuration: No configuration 'startup-config' stored"));
    int storingAt = prov.indexOf(line("Storing configuration"));
    EXPECT_EQ(downloadedAt, 0) << prov.dump();
    EXPECT_GT(noStoredAt, downloadedAt);
    EXPECT_GT(storingAt, noStoredAt);
    for (const auto& entry : prov.entries()) {
        EXPECT_EQ(entry.level, 6) << entry.text;
    }
    ASSERT_EQ(event.lines().size(), 1u);
    EXPECT_EQ(event.levelOf(line("Received and stored configuration update")), 6);
    ASSERT_EQ(xfer.lines().size(), 1u);
    EXPECT_EQ(xfer.levelOf(xferLine("startup-config", "succeeded")), 6) << xfer.dump();
}

TEST_F(ConfigProvisioningJobTest, equalButInvalidFailsValidationAfterTheComparison) {
    const std::string noInterface = "cli version 4\ncontext ip router\nport ethernet 0 0\n";
    storeStartup(noInterface);
    makeJob(true);
    job->setActivationFlag(true);
    XCode result = downloaded(noInterface);
    ASSERT_TRUE(result.isErr());
    EXPECT_EQ(result.getValue(), XCode::GENERIC_FAILURE);
    EXPECT_EQ(result.getString(), "DOWNLOADED FILE IS NOT A VALID CONFIGURATION");
    EXPECT_GE(prov.indexOf(line("Downloaded and stored configurations are equal")), 0)
        << prov.dump();
    EXPECT_EQ(xfer.levelOf(xferLine("startup-config", result.toString().str())), 6) << xfer.dump();
    EXPECT_EQ(xfer.lines().size(), 1u);
    EXPECT_TRUE(event.lines().empty());
    EXPECT_TRUE(job->getActivationFlag());
}

TEST_F(ConfigProvisioningJobTest, equalAndValidSucceedsSilentlyWithoutStoring) {
    storeStartup(VALID);
    ino_t before = contenttest::inodeOf(startupFile());
    makeJob(true);
    job->setActivationFlag(false);
    XCode result = downloaded(VALID);
    EXPECT_TRUE(result.isSuccess()) << result.toString().c_str();
    EXPECT_GE(prov.indexOf(line("Downloaded and stored configurations are equal")), 0);
    EXPECT_FALSE(prov.contains("Storing configuration"));
    EXPECT_EQ(contenttest::inodeOf(startupFile()), before);
    EXPECT_TRUE(xfer.lines().empty()) << xfer.dump();
    EXPECT_TRUE(event.lines().empty());
    EXPECT_FALSE(job->getActivationFlag());
}

TEST_F(ConfigProvisioningJobTest, equalAndValidLeavesASetActivationFlagSet) {
    storeStartup(VALID);
    makeJob(true);
    job->setActivationFlag(true);
    EXPECT_TRUE(downloaded(VALID).isSuccess());
    EXPECT_TRUE(job->getActivationFlag());
}

TEST_F(ConfigProvisioningJobTest, trailingLineFeedMakesTheTextsDifferent) {
    storeStartup(VALID);
    makeJob(true);
    XCode result = downloaded(VALID + "\n");
    ASSERT_TRUE(result.isSuccess()) << result.toString().c_str();
    EXPECT_FALSE(prov.contains("are equal"));
    EXPECT_GE(prov.indexOf(line("Storing configuration")), 0);
    EXPECT_EQ(provtest::readFile(startupFile()), VALID + "\n");
    EXPECT_GE(xfer.indexOf(xferLine("startup-config", "succeeded")), 0);
}

TEST_F(ConfigProvisioningJobTest, changedConfigurationReplacesTheStoredOneWhole) {
    storeStartup(VALID_OTHER + "! a long tail that the new text does not have\n");
    makeJob(true);
    ASSERT_TRUE(downloaded(VALID).isSuccess());
    EXPECT_EQ(provtest::readFile(startupFile()), VALID);
}

TEST_F(ConfigProvisioningJobTest, withoutComparisonTheStoreIsNeverRead) {
    // A stored configuration that cannot be read: the job must not even try.
    provtest::makeDirs(startupFile());
    makeJob(false);
    XCode result = downloaded(VALID);
    // The directory in the way makes the store fail; what matters here is the comparison.
    EXPECT_GE(prov.indexOf(line("No configuration comparison performed")), 0) << prov.dump();
    EXPECT_FALSE(prov.contains("No stored configuration"));
    EXPECT_FALSE(prov.contains("are equal"));
    EXPECT_GE(prov.indexOf(line("Storing configuration")), 0);
    EXPECT_TRUE(result.isErr());
}

TEST_F(ConfigProvisioningJobTest, withoutComparisonAnEqualConfigurationIsStoredAgain) {
    storeStartup(VALID);
    ino_t before = contenttest::inodeOf(startupFile());
    makeJob(false);
    ASSERT_TRUE(downloaded(VALID).isSuccess());
    EXPECT_NE(contenttest::inodeOf(startupFile()), before);
    EXPECT_TRUE(job->getActivationFlag());
    EXPECT_GE(xfer.indexOf(xferLine("startup-config", "succeeded")), 0);
    EXPECT_GE(event.indexOf(line("Received and stored configuration update")), 0);
}

TEST_F(ConfigProvisioningJobTest, withoutComparisonAnInvalidConfigurationIsStillRefused) {
    makeJob(false);
    XCode result = downloaded(PARTIAL);
    EXPECT_EQ(result.getString(), "DOWNLOADED FILE IS NOT A VALID CONFIGURATION");
    EXPECT_EQ(contenttest::inodeOf(startupFile()), 0u);
    EXPECT_FALSE(prov.contains("Storing configuration"));
}

TEST_F(ConfigProvisioningJobTest, unreadableStoredConfigurationIsLoggedWithTheStoresReason) {
    provtest::makeDirs(startupFile());
    makeJob(true);
    XCode result = downloaded(VALID);
    EXPECT_GE(prov.find("[cfg] No stored configuration: Cannot read configuration "
                        "'startup-config': "),
              0)
        << prov.dump();
    EXPECT_TRUE(result.isErr());
}

TEST_F(ConfigProvisioningJobTest, missingWorkFileCannotBeRead) {
    makeJob(true);
    job->setActivationFlag(true);
    XCode result = job->onSuccessfulFileDownload();
    ASSERT_TRUE(result.isErr());
    EXPECT_EQ(result.getString(), "Cannot read content of downloaded file");
    EXPECT_EQ(result.getFamily(), XCode::ERRNO_FAMILY);
    EXPECT_EQ(prov.lines().size(), 1u) << prov.dump();
    EXPECT_EQ(xfer.levelOf(xferLine("startup-config",
                                    "Cannot read content of downloaded file (0x10000002)")),
              6)
        << xfer.dump();
    EXPECT_TRUE(job->getActivationFlag());
    EXPECT_EQ(contenttest::inodeOf(startupFile()), 0u);
}

TEST_F(ConfigProvisioningJobTest, workFileThatIsADirectoryCannotBeRead) {
    provtest::makeDirs(workFile);
    makeJob(true);
    XCode result = job->onSuccessfulFileDownload();
    ::rmdir(workFile.c_str());
    ASSERT_TRUE(result.isErr());
    EXPECT_EQ(result.getString(), "Cannot read content of downloaded file");
    EXPECT_GE(xfer.indexOf(xferLine("startup-config", result.toString().str())), 0);
}

TEST_F(ConfigProvisioningJobTest, storeFailureReportsTheStoresReasonAndKeepsTheOldFile) {
    const std::string old = "cli version 4\n";
    storeStartup(old);
    makeJob(true);
    job->setActivationFlag(false);
    download(VALID);
    XCode result;
    {
        // The new text cannot be written beyond this size.
        contenttest::FileSizeLimit limit(8);
        result = job->onSuccessfulFileDownload();
    }
    ASSERT_TRUE(result.isErr());
    EXPECT_EQ(result.getString(), "Cannot store configuration 'startup-config': File too large");
    EXPECT_GE(prov.indexOf(line("Storing configuration")), 0);
    EXPECT_EQ(xfer.levelOf(xferLine("startup-config", result.toString().str())), 6) << xfer.dump();
    EXPECT_EQ(xfer.lines().size(), 1u);
    EXPECT_TRUE(event.lines().empty());
    EXPECT_FALSE(job->getActivationFlag());
    EXPECT_EQ(provtest::readFile(startupFile()), old);
}

TEST_F(ConfigProvisioningJobTest, storeFailureLeavesASetActivationFlagSet) {
    // A file where the configuration directory should be.
    ASSERT_EQ(0, ::rmdir(device.file("config").c_str()));
    provtest::writeFile(device.file("config"), "not a directory");
    makeJob(false);
    job->setActivationFlag(true);
    XCode result = downloaded(VALID);
    ASSERT_TRUE(result.isErr());
    EXPECT_EQ(result.getString(), "Cannot store configuration 'startup-config': Not a directory");
    EXPECT_GE(xfer.indexOf(xferLine("startup-config", result.toString().str())), 0) << xfer.dump();
    EXPECT_TRUE(job->getActivationFlag());
    EXPECT_EQ(provtest::readFile(device.file("config")), "not a directory");
}

TEST_F(ConfigProvisioningJobTest, afterA201EvenAnInvalidTextIsExecuted) {
    storeStartup(VALID);
    makeJob(true);
    job->setComparisonAllowed(false);
    job->setActivationFlag(true);
    XCode result = downloaded(PARTIAL);
    ASSERT_TRUE(result.isSuccess()) << result.toString().c_str();
    EXPECT_EQ(provtest::readFile(runningFile()), PARTIAL);
    EXPECT_EQ(provtest::readFile(startupFile()), VALID);
    EXPECT_FALSE(job->getActivationFlag());

    EXPECT_EQ(prov.indexOf(line("Successfully downloaded configuration")), 0) << prov.dump();
    int executingAt = prov.indexOf(line("Executing configuration"));
    EXPECT_EQ(executingAt, 1);
    // The executor writes its output to MON_PROV.
    EXPECT_GT(prov.indexOf("[CmdExec] hostname gateway"), executingAt);
    EXPECT_FALSE(prov.contains("comparison"));
    EXPECT_FALSE(prov.contains("No stored configuration"));
    EXPECT_FALSE(prov.contains("Storing"));
    ASSERT_EQ(event.lines().size(), 1u);
    EXPECT_EQ(event.levelOf(line("Received and executed configuration")), 6);
    ASSERT_EQ(xfer.lines().size(), 1u);
    EXPECT_EQ(xfer.levelOf(xferLine("running-config", "succeeded")), 6) << xfer.dump();
}

TEST_F(ConfigProvisioningJobTest, failedExecutionReturnsTheExecutorsErrorAndKeepsTheFlag) {
    makeJob(true);
    job->setComparisonAllowed(false);
    job->setActivationFlag(true);
    provtest::RejectedCommands rejected({"frobnicate *"});
    XCode result = downloaded("hostname gateway\nfrobnicate now\n");
    ASSERT_TRUE(result.isErr());
    EXPECT_EQ(result.getString(), "EXECUTION FAILED AT LINE 2: frobnicate now");
    EXPECT_TRUE(job->getActivationFlag());
    EXPECT_TRUE(event.lines().empty());
    EXPECT_EQ(xfer.levelOf(xferLine("running-config", result.toString().str())), 6) << xfer.dump();
    EXPECT_EQ(contenttest::inodeOf(runningFile()), 0u);
}

TEST_F(ConfigProvisioningJobTest, transferLogLineCarriesTheDetailBeforeTheResult) {
    makeJob(true);
    job->addXferLogEntry("succeeded", "(42 bytes)");
    job->setComparisonAllowed(false);
    job->addXferLogEntry("failed", "");
    std::vector<std::string> lines = xfer.lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0],
              std::string("cfg : ") + LOCATION + " -> startup-config (42 bytes) : succeeded");
    EXPECT_EQ(lines[1], xferLine("running-config", "failed"));
}

TEST_F(ConfigProvisioningJobTest, nullMonitorsLogNothingAndTheJobStillWorks) {
    MON_PROV = nullptr;
    MON_XFER = nullptr;
    MON_EVENT = nullptr;
    makeJob(true);
    EXPECT_TRUE(downloaded(VALID).isSuccess());
    EXPECT_EQ(provtest::readFile(startupFile()), VALID);
}

// The validity rules, in order, and the CLI version scan.
struct VersionCase {
    const char* text;
    unsigned int version;
};

class CliMajorVersionTest : public ::testing::TestWithParam<VersionCase> {};

TEST_P(CliMajorVersionTest, yieldsTheVersionOfTheFirstCliVersionStatement) {
    EXPECT_EQ(ConfigProvisioningJob::getCliMajorVersion(GetParam().text), GetParam().version)
        << GetParam().text;
}

INSTANTIATE_TEST_SUITE_P(
    Statements, CliMajorVersionTest,
    ::testing::Values(VersionCase{"cli version 4\n", 4}, VersionCase{"cli version 3\n", 3},
                      VersionCase{"interface x\ncli version 4", 0},
                      VersionCase{"cliversion 4\n", 0}, VersionCase{"cli 4\n", 0},
                      VersionCase{"cli    version 12\n", 12},
                      VersionCase{"cli foo\nport x\ncli version 5\n", 5},
                      VersionCase{"cli version 4.12\n", 4}, VersionCase{"cli  version R5\n", 5},
                      VersionCase{"cli version\n", 0}, VersionCase{"cli version none\n", 0},
                      VersionCase{"cli version 7\ncli version 9\n", 7},
                      VersionCase{"cli version x\ncli version 9\n", 0}, VersionCase{"", 0},
                      VersionCase{"cli \n", 0}, VersionCase{"cli\tversion 6\n", 0},
                      VersionCase{"! cli version 8\n", 8}));

TEST(ConfigValidityTest, versionThreeIsInvalidAndFourValid) {
    String three = "cli version 3\ncontext ip router\ninterface lan\nport ethernet 0 0\n";
    String four = "cli version 4\ncontext ip router\ninterface lan\nport ethernet 0 0\n";
    EXPECT_FALSE(ConfigProvisioningJob::isValidConfig(three));
    EXPECT_TRUE(ConfigProvisioningJob::isValidConfig(four));
}

TEST(ConfigValidityTest, eachSubstringIsNeeded) {
    String noContext = "cli version 4\ninterface lan\nport ethernet 0 0\n";
    String noPort = "cli version 4\ncontext ip router\ninterface lan\n";
    String noInterface = "cli version 4\ncontext ip router\nport ethernet 0 0\n";
    String capital = "cli version 4\nContext IP router\ninterface lan\nport ethernet 0 0\n";
    EXPECT_FALSE(ConfigProvisioningJob::isValidConfig(noContext));
    EXPECT_FALSE(ConfigProvisioningJob::isValidConfig(noPort));
    EXPECT_FALSE(ConfigProvisioningJob::isValidConfig(noInterface));
    EXPECT_FALSE(ConfigProvisioningJob::isValidConfig(capital));
}

TEST(ConfigValidityTest, substringsCountAnywhereEvenInComments) {
    String commented = "! context ip port ethernet interface\ncli version 4\n";
    EXPECT_TRUE(ConfigProvisioningJob::isValidConfig(commented));
}

TEST(ConfigValidityTest, versionOnTheLastUnterminatedLineMakesTheTextInvalid) {
    String text = "context ip router\ninterface lan\nport ethernet 0 0\ncli version 4";
    EXPECT_FALSE(ConfigProvisioningJob::isValidConfig(text));
}

}  // namespace
