// The script job: its fingerprint in flash, its comparison and the end of a run, with the update
// controller replaced by the test hook that records each call.

#include <gtest/gtest.h>

#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "engine/Monitors.h"
#include "jobs/upgrade/ScriptProvisioningJob.h"
#include "platform/StatusDb.h"
#include "platform/UpdateController.h"
#include "platform/UriUtil.h"
#include "platform/simulated/DeviceDirectory.h"
#include "platform/testing/StatusDbHooks.h"
#include "platform/testing/UpdateControllerHooks.h"
#include "support/CaptureMonitor.h"
#include "support/TempDir.h"
#include "support/UpgradeSupport.h"

namespace {

using namespace std::chrono_literals;
using provtest::CaptureMonitor;
using provtest::OpenScriptJob;

// 20 characters at the end that tell the scripts apart.
const std::string TAIL_A = "hostname gateway-aa\n";
const std::string TAIL_B = "hostname gateway-bb\n";

class ScriptJobTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(TAIL_A.size(), 20u);
        Device::SET_ROOT(device.path().c_str());
        ASSERT_TRUE(Device::PREPARE().isSuccess());
        DB::Table::ProvisioningStatusHooks::RESET();
        MON_PROV = &prov;
        MON_XFER = &xfer;
        MON_EVENT = &event;
        UpdateController::SET_INTERCEPTOR([this](const UpdateController::Request& request) {
            requests.push_back(request);
            return XCode(XCode::SUCCESS);
        });
        jobName = provtest::uniqueName("script");
        // The host path of a file in the device's work directory: the job uses it as it is.
        workFile = Device::MAP_PATH(("/tmp/provisioning/" + jobName).c_str()).str();
    }
    void TearDown() override {
        job.reset();
        UpdateController::SET_INTERCEPTOR(nullptr);
        MON_PROV = nullptr;
        MON_XFER = nullptr;
        MON_EVENT = nullptr;
        std::remove(workFile.c_str());
    }

    void makeJob(bool compare) {
        job = std::make_unique<OpenScriptJob>(loop, jobName.c_str(), ProvisioningJob::None, compare,
                                              KtList<String>(), credentials, resolver, handler);
    }

    XCode onLoop(const std::function<XCode()>& step) {
        XCode result;
        loop.post([&] { result = step(); });
        loop.runPending();
        return result;
    }

    XCode downloaded(const std::string& script) {
        provtest::writeFile(workFile, script);
        job->setDownloaded("tftp://127.0.0.1/scripts/run.manifest", workFile.c_str(), 0,
                           "127.0.0.1", 0, "/scripts/run.manifest");
        return onLoop([this] { return job->onSuccessfulFileDownload(); });
    }

    bool terminate(XCode result, bool second = true) {
        bool reported = UpdateController::REPORT_TERMINATED(job->controllerHandler(), "done",
                                                            result, false, second);
        loop.runUntil([this] { return !handler.results.empty(); }, 5s);
        return reported;
    }

    std::string storedPath() const { return device.file("flash/provisioning/" + jobName); }
    std::string line(const char* text) const { return "[" + jobName + "] " + text; }
    std::string xferLine(const std::string& text) const {
        return jobName + " : tftp://127.0.0.1/scripts/run.manifest -> flash: : " + text;
    }

    provtest::TempDir device{"prov-scriptjob"};
    provtest::TempDir staging{"prov-scriptjob-src"};
    KtEventLoop loop;
    ProvisioningCredentials credentials;
    ExpressionResolver resolver;
    provtest::RecordingJobHandler handler;
    CaptureMonitor prov{"PROV"};
    CaptureMonitor xfer{"XFER"};
    CaptureMonitor event{"EVENT"};
    std::vector<UpdateController::Request> requests;
    std::string jobName;
    std::string workFile;
    std::unique_ptr<OpenScriptJob> job;
};

TEST_F(ScriptJobTest, constructorSetsTheDestinationAndAnEmptyChecksum) {
    makeJob(true);
    EXPECT_EQ(job->getUploadLocation(), "flash:");
    EXPECT_TRUE(job->getChecksum().isEmpty());
}

TEST_F(ScriptJobTest, failedLocationIsLoggedAndTheWalkGoesOn) {
    makeJob(true);
    EXPECT_TRUE(job->onFailedFileDownload().isSuccess());
    EXPECT_GE(prov.indexOf(line("FAILED TO DOWNLOAD SCRIPT")), 0);
}

TEST_F(ScriptJobTest, fingerprintIsTheLastTwentyCharacters) {
    makeJob(false);
    ASSERT_TRUE(downloaded("interface eth0\nip address dhcp\n" + TAIL_A).isSuccess());
    EXPECT_EQ(job->getChecksum(), String(TAIL_A.c_str()));
}

TEST_F(ScriptJobTest, scriptOfExactlyTwentyCharactersIsItsOwnFingerprint) {
    makeJob(false);
    ASSERT_TRUE(downloaded(TAIL_A).isSuccess());
    EXPECT_EQ(job->getChecksum(), String(TAIL_A.c_str()));
    EXPECT_EQ(requests.size(), 1u);
}

TEST_F(ScriptJobTest, scriptOfNineteenCharactersIsRefused) {
    makeJob(false);
    XCode result = downloaded(TAIL_A.substr(1));
    EXPECT_EQ(result.getString(), "Size of downloaded script too small");
    EXPECT_TRUE(requests.empty());
    EXPECT_EQ(xfer.indexOf(xferLine("Size of downloaded script too small (0x7FFFFFFF)")), 0)
        << xfer.dump();
}

TEST_F(ScriptJobTest, capitalTarIsRefused) {
    makeJob(false);
    provtest::writeFile(workFile, TAIL_A);
    job->setDownloaded("tftp://127.0.0.1/SCRIPT.TAR", workFile.c_str(), 0, "127.0.0.1", 0,
                       "/SCRIPT.TAR");
    XCode result = onLoop([this] { return job->onSuccessfulFileDownload(); });
    EXPECT_EQ(result.getString(), "Provisioned file type not supported");
    EXPECT_TRUE(requests.empty());
    EXPECT_TRUE(xfer.lines().empty());
}

TEST_F(ScriptJobTest, manifestFlowHandsTheLocationToTheController) {
    makeJob(false);
    job->setRealm("u", "p", UriUtil::buildOrigin("tftp", "127.0.0.1", 0));
    ASSERT_TRUE(downloaded("interface eth0\n" + TAIL_A).isSuccess());
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_TRUE(requests[0].withCredentials);
    EXPECT_EQ(requests[0].files[0], "tftp://127.0.0.1/scripts/run.manifest");
    EXPECT_EQ(requests[0].files[1], "flash:");
    EXPECT_EQ(requests[0].user, "u");
    EXPECT_EQ(requests[0].password, "p");
    EXPECT_EQ(requests[0].caller, "Provisioning");
    EXPECT_TRUE(job->isAsyncPending());
    int downloadedLine = prov.indexOf(line("Successfully downloaded script"));
    int comparison = prov.indexOf(line("No script comparison is done"));
    int executing = prov.indexOf(line("Executing script"));
    EXPECT_GE(downloadedLine, 0) << prov.dump();
    EXPECT_GT(comparison, downloadedLine);
    EXPECT_GT(executing, comparison);
    // No content is logged by this job.
    EXPECT_LT(prov.find("interface eth0"), 0);
}

TEST_F(ScriptJobTest, tarFlowHandsTheArchiveToTheController) {
    makeJob(false);
    provtest::writeFile(staging.file("manifest"), "interface eth0\n" + TAIL_A);
    ASSERT_TRUE(provtest::makeTar(workFile, staging.path(), {"manifest"}));
    job->setDownloaded("tftp://127.0.0.1/scripts/run.tar", workFile.c_str(), 0, "127.0.0.1", 0,
                       "/scripts/run.tar");
    ASSERT_TRUE(onLoop([this] { return job->onSuccessfulFileDownload(); }).isSuccess());
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_FALSE(requests[0].withCredentials);
    EXPECT_EQ(requests[0].files[0], String(("file:" + workFile).c_str()));
    EXPECT_EQ(requests[0].files[1], "flash:");
    EXPECT_EQ(job->getChecksum(), String(TAIL_A.c_str()));
    EXPECT_GE(prov.indexOf(line("Successfully downloaded script")), 0);
    EXPECT_GE(prov.indexOf(line("Executing script")), 0);
}

TEST_F(ScriptJobTest, successfulRunWritesTheFingerprintAndSetsTheFlags) {
    makeJob(false);
    ASSERT_TRUE(downloaded("interface eth0\n" + TAIL_A).isSuccess());
    EXPECT_FALSE(provtest::fileExists(storedPath()));
    ASSERT_TRUE(terminate(XCode(XCode::SUCCESS), true));
    ASSERT_EQ(handler.results.size(), 1u);
    EXPECT_TRUE(handler.results[0].isSuccess());
    EXPECT_EQ(provtest::readFile(storedPath()), TAIL_A);
    EXPECT_EQ(job->getImageAction(), ProvisioningJob::SetNextToInactive);
    EXPECT_TRUE(job->getActivationFlag());
    EXPECT_TRUE(job->getPostUpgradeFlag());
    EXPECT_GE(prov.indexOf(line("Successfully executed script")), 0) << prov.dump();
    EXPECT_GE(prov.indexOf("[" + jobName +
                           "/Update] Terminated: " + XCode(XCode::SUCCESS).toString().c_str()),
              0);
    EXPECT_EQ(event.indexOf(line("Successfully executed updated script")), 0) << event.dump();
    EXPECT_EQ(xfer.indexOf(xferLine("succeeded")), 0) << xfer.dump();
}

TEST_F(ScriptJobTest, unchangedTailWithCompareDoesNotRun) {
    provtest::writeFile(storedPath(), TAIL_A);
    makeJob(true);
    // Differs from the last run only before its last 20 characters.
    XCode result = downloaded("interface eth1\nsomething else\n" + TAIL_A);
    EXPECT_TRUE(result.isSuccess());
    EXPECT_TRUE(requests.empty());
    EXPECT_FALSE(job->isAsyncPending());
    EXPECT_GE(prov.indexOf(line("Downloaded and stored scripts are equal")), 0) << prov.dump();
    EXPECT_LT(prov.find("Executing script"), 0);
    EXPECT_TRUE(xfer.lines().empty());
}

TEST_F(ScriptJobTest, changedTailWithCompareRunsWithoutComparisonLine) {
    provtest::writeFile(storedPath(), TAIL_A);
    makeJob(true);
    ASSERT_TRUE(downloaded("interface eth0\n" + TAIL_B).isSuccess());
    EXPECT_EQ(requests.size(), 1u);
    EXPECT_LT(prov.find("scripts are equal"), 0);
    EXPECT_LT(prov.find("No previous version"), 0);
    EXPECT_LT(prov.find("No script comparison"), 0);
}

TEST_F(ScriptJobTest, storedFileWithALineEndIsNotEqual) {
    provtest::writeFile(storedPath(), TAIL_A + "\n");
    makeJob(true);
    ASSERT_TRUE(downloaded("interface eth0\n" + TAIL_A).isSuccess());
    EXPECT_EQ(requests.size(), 1u);
}

TEST_F(ScriptJobTest, compareWithoutStoredFileRunsAndCreatesIt) {
    makeJob(true);
    ASSERT_TRUE(downloaded("interface eth0\n" + TAIL_B).isSuccess());
    EXPECT_GE(prov.indexOf(line("No previous version of the script")), 0) << prov.dump();
    ASSERT_EQ(requests.size(), 1u);
    ASSERT_TRUE(terminate(XCode(XCode::SUCCESS)));
    EXPECT_EQ(provtest::readFile(storedPath()), TAIL_B);
}

TEST_F(ScriptJobTest, withoutCompareTheFileIsNeverReadButStillWritten) {
    provtest::writeFile(storedPath(), TAIL_A);
    makeJob(false);
    ASSERT_TRUE(downloaded("interface eth0\n" + TAIL_A).isSuccess());
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_LT(prov.find("scripts are equal"), 0);
    provtest::writeFile(storedPath(), "replaced meanwhile");
    ASSERT_TRUE(terminate(XCode(XCode::SUCCESS)));
    EXPECT_EQ(provtest::readFile(storedPath()), TAIL_A);
}

TEST_F(ScriptJobTest, failedRunLeavesTheFingerprintAlone) {
    provtest::writeFile(storedPath(), TAIL_A);
    makeJob(true);
    ASSERT_TRUE(downloaded("interface eth0\n" + TAIL_B).isSuccess());
    ASSERT_TRUE(terminate(XCode(-1).setString("SCRIPT FAILED AT LINE 1: x")));
    ASSERT_EQ(handler.results.size(), 1u);
    EXPECT_EQ(handler.results[0].getString(), "SCRIPT FAILED AT LINE 1: x");
    EXPECT_EQ(provtest::readFile(storedPath()), TAIL_A);
    EXPECT_EQ(job->getImageAction(), ProvisioningJob::UpdateImageInfo);
    EXPECT_FALSE(job->getActivationFlag());
    EXPECT_FALSE(job->getPostUpgradeFlag());
    EXPECT_EQ(xfer.indexOf(xferLine("SCRIPT FAILED AT LINE 1: x")), 0) << xfer.dump();
    EXPECT_TRUE(event.lines().empty());
}

TEST_F(ScriptJobTest, refusedStartLeavesTheFingerprintAlone) {
    UpdateController::SET_INTERCEPTOR(
        [](const UpdateController::Request&) { return XCode(-1).setString("REFUSED"); });
    makeJob(false);
    XCode result = downloaded("interface eth0\n" + TAIL_A);
    EXPECT_EQ(result.getString(), "REFUSED");
    EXPECT_FALSE(job->isAsyncPending());
    EXPECT_FALSE(provtest::fileExists(storedPath()));
    EXPECT_EQ(xfer.indexOf(xferLine("REFUSED (0x7FFFFFFF)")), 0) << xfer.dump();
}

TEST_F(ScriptJobTest, fingerprintThatCannotBeWrittenFailsTheJob) {
    // A directory where the file should be: the write cannot replace it.
    provtest::makeDirs(storedPath() + "/blocked");
    makeJob(false);
    ASSERT_TRUE(downloaded("interface eth0\n" + TAIL_A).isSuccess());
    ASSERT_TRUE(terminate(XCode(XCode::SUCCESS), true));
    ASSERT_EQ(handler.results.size(), 1u);
    EXPECT_TRUE(handler.results[0].isErr());
    EXPECT_EQ(xfer.indexOf(xferLine("cannot write checksum to flash")), 0) << xfer.dump();
    EXPECT_EQ(job->getImageAction(), ProvisioningJob::NoAction);
    EXPECT_FALSE(job->getActivationFlag());
    EXPECT_FALSE(job->getPostUpgradeFlag());
    EXPECT_TRUE(event.lines().empty());
}

TEST_F(ScriptJobTest, destroyedJobIsNeverCalledBack) {
    makeJob(false);
    ASSERT_TRUE(downloaded("interface eth0\n" + TAIL_A).isSuccess());
    UpdateController::CallbackHandler* controllerSide = job->controllerHandler();
    ASSERT_TRUE(UpdateController::REPORT_TERMINATED(controllerSide, "done", XCode(XCode::SUCCESS),
                                                    false, true));
    job.reset();
    loop.runPending();
    EXPECT_TRUE(handler.results.empty());
    EXPECT_FALSE(provtest::fileExists(storedPath()));
}

}  // namespace

// --- names that would reach outside /flash/provisioning/ ------------------------------------

class ScriptJobNameTest : public ScriptJobTest {
  protected:
    // A job of that name with one location on a server that is never asked.
    XCode executeNamed(const std::string& name) {
        KtList<String> locations;
        locations.pushBack("tftp://127.0.0.1/scripts/run.manifest");
        job = std::make_unique<OpenScriptJob>(loop, String(name.data(), name.size()),
                                              ProvisioningJob::None, false, locations, credentials,
                                              resolver, handler);
        XCode result;
        loop.post([&] { result = job->execute(); });
        loop.runPending();
        return result;
    }
};

TEST_F(ScriptJobNameTest, nameOutsideTheFingerprintDirectoryIsRefusedBeforeAnyTransfer) {
    provtest::writeFile(device.file("flash/preferences/key"), "old key\n");
    for (const std::string& name :
         {std::string("../preferences/key"), std::string(".."), std::string("."), std::string(""),
          std::string("a/b"), std::string("/flash/preferences/key"), std::string("..\0x", 4)}) {
        SCOPED_TRACE(name);
        handler.results.clear();
        prov.clear();
        XCode result = executeNamed(name);
        EXPECT_TRUE(result.isErr());
        EXPECT_EQ(result.getString(),
                  String::format("INVALID SCRIPT NAME '%s'", std::string(name.c_str()).c_str()));
        loop.runPending();
        ASSERT_EQ(handler.results.size(), 1u);
        EXPECT_EQ(handler.results[0].getString(), result.getString());
        EXPECT_LT(prov.find("Trying to download"), 0) << prov.dump();
        EXPECT_FALSE(job->isAsyncPending());
        EXPECT_TRUE(requests.empty());
        EXPECT_EQ(provtest::readFile(device.file("flash/preferences/key")), "old key\n");
    }
}

TEST_F(ScriptJobNameTest, oneFileNameIsAValidName) {
    for (const char* name : {"script", "a..b", ".hidden", "...", "nightly.sh", "x y"}) {
        EXPECT_TRUE(ScriptProvisioningJob::IS_VALID_NAME(name)) << name;
    }
    EXPECT_FALSE(ScriptProvisioningJob::IS_VALID_NAME("a/"));
}
