// The two upload jobs: the file they prepare before any transfer, and the failures that end them
// before a location is tried.

#include "jobs/content/UploadProvisioningJob.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "platform/Cli.h"
#include "platform/testing/ShellHooks.h"
#include "support/Process.h"
#include "unit/jobs/content/ContentJobSupport.h"

namespace {

using contenttest::OpenJob;
using OpenUploadJob = OpenJob<UploadProvisioningJob>;
using OpenCdrJob = OpenJob<CdrUploadJob>;

const std::string STARTUP = "cli version 4\ncontext ip router\ninterface lan\nport ethernet 0 0\n";

class UploadProvisioningJobTest : public contenttest::ContentJobTest {
  protected:
    std::unique_ptr<OpenUploadJob> makeJob(const KtList<String>& locations) {
        return std::make_unique<OpenUploadJob>(loop, "up", ProvisioningJob::None, false, locations,
                                               credentials, resolver, handler);
    }
    void storeStartup(const std::string& content) {
        String error;
        ASSERT_TRUE(
            CLI::STORE_CONFIGURATION_CONTENT("startup-config", content.c_str(), error).isSuccess())
            << error.c_str();
    }
    // A location whose transfer, were it ever started, would wait on a port that never answers.
    String silentLocation() const {
        return String::format("tftp://127.0.0.1:%u/%s.cfg", silent.port(), unique.c_str());
    }

    provtest::LoopbackSocket silent = provtest::LoopbackSocket::udp();
};

TEST_F(UploadProvisioningJobTest, constructorNamesTheStartupConfigurationAsSource) {
    auto job = makeJob({});
    EXPECT_EQ(job->getDownloadLocation(), "startup-config");
    EXPECT_TRUE(job->getUploadLocation().isEmpty());
    EXPECT_EQ(job->getOutFile(), "/tmp/provisioning/file");
}

TEST_F(UploadProvisioningJobTest, fileForUploadIsTheStoredStartupConfiguration) {
    storeStartup(STARTUP);
    auto job = makeJob({});
    job->setOutFile(workFile.c_str());
    XCode result = job->getFileForUpload();
    ASSERT_TRUE(result.isSuccess()) << result.toString().c_str();
    EXPECT_EQ(provtest::readFile(workFile), STARTUP);
}

TEST_F(UploadProvisioningJobTest, fileForUploadReplacesALongerWorkFileWhole) {
    storeStartup(STARTUP);
    provtest::writeFile(workFile, STARTUP + STARTUP + "tail\n");
    auto job = makeJob({});
    job->setOutFile(workFile.c_str());
    ASSERT_TRUE(job->getFileForUpload().isSuccess());
    EXPECT_EQ(provtest::readFile(workFile), STARTUP);
}

TEST_F(UploadProvisioningJobTest, runningConfigurationIsNeverUploaded) {
    storeStartup(STARTUP);
    ASSERT_TRUE(CmdExec::EXECUTE("hostname running-only\n", true, nullptr, 0).isSuccess());
    ASSERT_EQ(provtest::readFile(device.file("running-config")), "hostname running-only\n");
    auto job = makeJob({});
    job->setOutFile(workFile.c_str());
    ASSERT_TRUE(job->getFileForUpload().isSuccess());
    EXPECT_EQ(provtest::readFile(workFile), STARTUP);
}

TEST_F(UploadProvisioningJobTest, noStoredConfigurationGivesTheStoresReason) {
    auto job = makeJob({});
    job->setOutFile(workFile.c_str());
    XCode result = job->getFileForUpload();
    ASSERT_TRUE(result.isErr());
    EXPECT_EQ(result.getString(), "No configuration 'startup-config' stored");
    EXPECT_FALSE(provtest::fileExists(workFile));
}

TEST_F(UploadProvisioningJobTest, unwritableWorkFileFailsWithItsOwnMessage) {
    storeStartup(STARTUP);
    auto job = makeJob({});
    job->setOutFile((workFile + "-missing-folder/file").c_str());
    XCode result = job->getFileForUpload();
    ASSERT_TRUE(result.isErr());
    EXPECT_EQ(result.getString(), "Cannot write content of config to temp file");
    EXPECT_EQ(result.getValue(), XCode::fromErrno(ENOENT).getValue());
}

TEST_F(UploadProvisioningJobTest, noStoredConfigurationFailsBeforeAnyTransfer) {
    auto job = makeJob({silentLocation()});
    XCode result = job->execute();
    ASSERT_TRUE(result.isErr());
    EXPECT_EQ(result.getString(), "No configuration 'startup-config' stored");
    ASSERT_EQ(handler.results.size(), 1u);
    EXPECT_EQ(handler.results[0].getString(), "No configuration 'startup-config' stored");
    EXPECT_EQ(Kt::ShellHooks::RUNNING_COMMANDS(), 0u);
    EXPECT_FALSE(prov.contains("Trying to upload")) << prov.dump();
    EXPECT_FALSE(prov.contains("Starting TFTP upload"));
    EXPECT_EQ(prov.levelOf("[up] EXECUTION FAILED: No configuration 'startup-config' stored "
                           "(0x7FFFFFFF)"),
              3)
        << prov.dump();
    EXPECT_TRUE(xfer.lines().empty());
    EXPECT_FALSE(job->isAsyncPending());
}

TEST_F(UploadProvisioningJobTest, cdrConstructorNamesTheGivenSource) {
    OpenCdrJob job(loop, "cdr", "cdr:records", ProvisioningJob::None, false, {silentLocation()},
                   credentials, resolver, handler);
    EXPECT_EQ(job.getDownloadLocation(), "cdr:records");
    EXPECT_TRUE(job.getUploadLocation().isEmpty());
}

TEST_F(UploadProvisioningJobTest, cdrFileForUploadIsNotImplementedAndWritesNothing) {
    OpenCdrJob job(loop, "cdr", "cdr:records", ProvisioningJob::None, false, {silentLocation()},
                   credentials, resolver, handler);
    job.setOutFile(workFile.c_str());
    for (int attempt = 0; attempt < 2; ++attempt) {
        XCode result = job.getFileForUpload();
        EXPECT_EQ(result.getValue(), XCode::GENERIC_FAILURE);
        EXPECT_EQ(result.getString(), "NOT IMPLEMENTED");
    }
    EXPECT_FALSE(provtest::fileExists(workFile));
}

TEST_F(UploadProvisioningJobTest, cdrUploadFailsWhateverItsLocations) {
    const std::vector<KtList<String>> lists = {
        {silentLocation()},
        {"http://127.0.0.1/cdr", "https://127.0.0.1/cdr"},
        {"ftp://127.0.0.1/cdr"},
        {"tftp://$(unknown.value)/cdr"},
        {"not a location at all", silentLocation(), "http://127.0.0.1/"},
    };
    for (const KtList<String>& locations : lists) {
        handler.results.clear();
        prov.clear();
        CdrUploadJob job(loop, "cdr", "cdr:records", ProvisioningJob::None, true, locations,
                         credentials, resolver, handler);
        XCode result = job.execute();
        EXPECT_EQ(result.getValue(), XCode::GENERIC_FAILURE);
        EXPECT_EQ(result.getString(), "NOT IMPLEMENTED");
        ASSERT_EQ(handler.results.size(), 1u);
        EXPECT_EQ(handler.results[0].getString(), "NOT IMPLEMENTED");
        EXPECT_FALSE(prov.contains("Trying to upload")) << prov.dump();
        EXPECT_EQ(Kt::ShellHooks::RUNNING_COMMANDS(), 0u);
    }
    EXPECT_TRUE(xfer.lines().empty());
}

TEST_F(UploadProvisioningJobTest, cdrUploadWithoutLocationsFailsBeforeTheJobIsAsked) {
    CdrUploadJob job(loop, "cdr", "cdr:records", ProvisioningJob::None, false, {}, credentials,
                     resolver, handler);
    EXPECT_EQ(job.execute().getString(), "NO LOCATIONS CONFIGURED");
}

}  // namespace
