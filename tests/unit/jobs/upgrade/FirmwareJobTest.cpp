// The firmware job's flows, driven directly, with the update controller replaced by the test
// hook that records each call.

#include <gtest/gtest.h>

#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "engine/Monitors.h"
#include "jobs/upgrade/FirmwareProvisioningJob.h"
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
using provtest::OpenFirmwareJob;

const char* const NEWER_MANIFEST = "sw_type=X\nsw_version=1.3\nsw_build_num=1\n";
const char* const ACTIVE_MANIFEST = "sw_type=X\nsw_version=1.2\nsw_build_num=7\n";

class FirmwareJobTest : public ::testing::Test {
  protected:
    void SetUp() override {
        Device::SET_ROOT(device.path().c_str());
        ASSERT_TRUE(Device::PREPARE().isSuccess());
        DB::Table::ProvisioningStatusHooks::RESET();
        MON_PROV = &prov;
        MON_XFER = &xfer;
        MON_EVENT = &event;
        UpdateController::SET_INTERCEPTOR([this](const UpdateController::Request& request) {
            requests.push_back(request);
            return intercept;
        });
        // The host path of a file in the device's work directory: the job uses it as it is.
        workFile =
            Device::MAP_PATH(("/tmp/provisioning/" + provtest::uniqueName("fw")).c_str()).str();
    }
    void TearDown() override {
        job.reset();
        UpdateController::SET_INTERCEPTOR(nullptr);
        MON_PROV = nullptr;
        MON_XFER = nullptr;
        MON_EVENT = nullptr;
        std::remove(workFile.c_str());
    }

    OpenFirmwareJob& makeJob(bool compare, unsigned int nextImage = 2,
                             unsigned int activeImage = 1) {
        job = std::make_unique<OpenFirmwareJob>(
            loop, "fw", ProvisioningJob::None, compare, KtList<String>(), credentials, resolver,
            handler, "X 1.0 1", "X 1.1 1", "X 1.2 7", nextImage, activeImage);
        return *job;
    }

    // The job's steps run as events of its loop, as the location walk runs them.
    XCode onLoop(const std::function<XCode()>& step) {
        XCode result;
        loop.post([&] { result = step(); });
        loop.runPending();
        return result;
    }

    // A tar archive at the work file holding `manifest` as its member "manifest".
    void makeArchive(const std::string& manifest) {
        provtest::writeFile(staging.file("manifest"), manifest);
        provtest::writeFile(staging.file("image"), "IMAGE");
        ASSERT_TRUE(provtest::makeTar(workFile, staging.path(), {"manifest", "image"}));
    }

    XCode downloadedTar(const std::string& manifest) {
        makeArchive(manifest);
        job->setDownloaded("tftp://127.0.0.1/fw/firmware.tar", workFile.c_str(), 0, "127.0.0.1", 0,
                           "/fw/firmware.tar");
        return onLoop([this] { return job->onSuccessfulFileDownload(); });
    }

    XCode downloadedManifest(const std::string& text,
                             const char* location = "tftp://127.0.0.1:69/fw/image.manifest",
                             const char* remotePath = "/fw/image.manifest") {
        provtest::writeFile(workFile, text);
        job->setDownloaded(location, workFile.c_str(), 0, "127.0.0.1", 69, remotePath);
        return onLoop([this] { return job->onSuccessfulFileDownload(); });
    }

    bool terminate(XCode result, bool second) {
        bool reported = UpdateController::REPORT_TERMINATED(job->controllerHandler(), "done",
                                                            result, false, second);
        loop.runUntil([this] { return !handler.results.empty(); }, 5s);
        return reported;
    }

    std::string xferLine(const std::string& text) const {
        return "fw : " + std::string(job->getDownloadLocation().c_str()) + " -> flash: : " + text;
    }

    provtest::TempDir device{"prov-fwjob"};
    provtest::TempDir staging{"prov-fwjob-src"};
    KtEventLoop loop;
    ProvisioningCredentials credentials;
    ExpressionResolver resolver;
    provtest::RecordingJobHandler handler;
    CaptureMonitor prov{"PROV"};
    CaptureMonitor xfer{"XFER"};
    CaptureMonitor event{"EVENT"};
    std::vector<UpdateController::Request> requests;
    XCode intercept;
    std::string workFile;
    std::unique_ptr<OpenFirmwareJob> job;
};

TEST_F(FirmwareJobTest, constructorSetsTheDestinationAndNothingElse) {
    makeJob(true);
    EXPECT_EQ(job->getUploadLocation(), "flash:");
    EXPECT_EQ(job->getImageAction(), ProvisioningJob::NoAction);
    EXPECT_FALSE(job->getActivationFlag());
    EXPECT_FALSE(job->isAsyncPending());
    EXPECT_TRUE(prov.lines().empty());
}

TEST_F(FirmwareJobTest, failedLocationIsLoggedAndTheWalkGoesOn) {
    makeJob(true);
    XCode result = job->onFailedFileDownload();
    EXPECT_TRUE(result.isSuccess());
    EXPECT_EQ(prov.levelOf("[fw] FAILED TO DOWNLOAD FIRMWARE"), 6);
}

TEST_F(FirmwareJobTest, tarLocationTakesTheTarFlowAndHandsTheArchiveToTheController) {
    makeJob(false);
    XCode result = downloadedTar(NEWER_MANIFEST);
    ASSERT_TRUE(result.isSuccess()) << result.toString().c_str() << prov.dump();
    ASSERT_EQ(requests.size(), 1u);
    const UpdateController::Request& request = requests[0];
    EXPECT_EQ(request.action, "update");
    ASSERT_EQ(request.files.size(), 2u);
    EXPECT_EQ(request.files[0], String(("file:" + workFile).c_str()));
    EXPECT_EQ(request.files[1], "flash:");
    EXPECT_EQ(request.arg3, "");
    EXPECT_EQ(request.caller, "Provisioning");
    EXPECT_FALSE(request.withCredentials);
    EXPECT_EQ(request.handler, job->controllerHandler());
    EXPECT_TRUE(job->isAsyncPending());
    EXPECT_TRUE(handler.results.empty());

    int downloaded = prov.indexOf("[fw] Successfully downloaded firmware");
    int heading = prov.indexOf("[fw] Extracted manifest file content");
    int content = prov.indexOf(std::string("[fw]   ") + NEWER_MANIFEST);
    int upgrading = prov.indexOf("[fw] Upgrading firmware");
    EXPECT_GE(downloaded, 0) << prov.dump();
    EXPECT_GT(heading, downloaded);
    EXPECT_GT(content, heading);
    EXPECT_GT(upgrading, content);
    // The extracted manifest stays where the tar flow put it.
    EXPECT_EQ(provtest::readFile(Device::MAP_PATH("/tmp/provisioning/manifest").str()),
              NEWER_MANIFEST);
}

TEST_F(FirmwareJobTest, tarSuffixWinsOverManifest) {
    makeJob(false);
    makeArchive(NEWER_MANIFEST);
    job->setDownloaded("tftp://127.0.0.1/fw/manifest.tar", workFile.c_str(), 0, "127.0.0.1", 0,
                       "/fw/manifest.tar");
    ASSERT_TRUE(onLoop([this] { return job->onSuccessfulFileDownload(); }).isSuccess());
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_FALSE(requests[0].withCredentials);
}

TEST_F(FirmwareJobTest, manifestNamesTakeTheManifestFlow) {
    for (const char* name : {"/fw/image.manifest", "/manifest", "/fw/xmanifest"}) {
        requests.clear();
        makeJob(false);
        std::string location = std::string("tftp://127.0.0.1:69") + name;
        XCode result = downloadedManifest(NEWER_MANIFEST, location.c_str(), name);
        ASSERT_TRUE(result.isSuccess()) << name << ": " << result.toString().c_str();
        ASSERT_EQ(requests.size(), 1u) << name;
        EXPECT_TRUE(requests[0].withCredentials);
        EXPECT_EQ(requests[0].files[0], UriUtil::buildUri("tftp", "127.0.0.1", 69, name));
        EXPECT_EQ(requests[0].files[1], "flash:");
    }
}

TEST_F(FirmwareJobTest, manifestFlowLogsTheContentAndTheScriptWording) {
    makeJob(false);
    ASSERT_TRUE(downloadedManifest(NEWER_MANIFEST).isSuccess());
    int downloaded = prov.indexOf("[fw] Successfully downloaded manifest");
    int heading = prov.indexOf("[fw] Downloaded manifest file content");
    int content = prov.indexOf(std::string("[fw]   ") + NEWER_MANIFEST);
    int executing = prov.indexOf("[fw] Executing script");
    EXPECT_GE(downloaded, 0) << prov.dump();
    EXPECT_GT(heading, downloaded);
    EXPECT_GT(content, heading);
    EXPECT_GT(executing, content);
    EXPECT_LT(prov.find("Upgrading firmware"), 0);
}

TEST_F(FirmwareJobTest, capitalTarIsRefusedWithoutTransferLogEntry) {
    makeJob(false);
    makeArchive(NEWER_MANIFEST);
    job->setDownloaded("tftp://127.0.0.1/FIRMWARE.TAR", workFile.c_str(), 0, "127.0.0.1", 0,
                       "/FIRMWARE.TAR");
    XCode result = onLoop([this] { return job->onSuccessfulFileDownload(); });
    EXPECT_EQ(result.getValue(), 0x7FFFFFFFu);
    EXPECT_EQ(result.getString(), "Provisioned file type not supported");
    EXPECT_TRUE(requests.empty());
    EXPECT_TRUE(xfer.lines().empty()) << xfer.dump();
}

TEST_F(FirmwareJobTest, otherNamesAreRefused) {
    for (const char* name :
         {"/fw/image.bin", "/fw/manifest.txt", "/fw/firmware.tar.gz", "/fw/Manifest"}) {
        makeJob(false);
        XCode result = downloadedManifest(NEWER_MANIFEST,
                                          (std::string("tftp://127.0.0.1") + name).c_str(), name);
        EXPECT_EQ(result.getString(), "Provisioned file type not supported") << name;
    }
    EXPECT_TRUE(requests.empty());
}

TEST_F(FirmwareJobTest, manifestOfNineteenCharactersIsTooSmall) {
    makeJob(false);
    const std::string text = "sw_type=abcdefghij\n";
    ASSERT_EQ(text.size(), 19u);
    XCode result = downloadedManifest(text);
    EXPECT_EQ(result.getValue(), 0x7FFFFFFFu);
    EXPECT_EQ(result.getString(), "Size of downloaded script too small");
    EXPECT_TRUE(requests.empty());
    EXPECT_EQ(xfer.indexOf(xferLine("Size of downloaded script too small (0x7FFFFFFF)")), 0)
        << xfer.dump();
    EXPECT_LT(prov.find("Downloaded manifest file content"), 0);
}

TEST_F(FirmwareJobTest, manifestOfTwentyCharactersIsParsed) {
    makeJob(false);
    const std::string text = "sw_type=abcdefghijk\n";
    ASSERT_EQ(text.size(), 20u);
    XCode result = downloadedManifest(text);
    EXPECT_EQ(result.getString(), "SOFTWARE INFORMATIONS ARE MISSING IN MANIFEST");
    EXPECT_GE(prov.indexOf("[fw] Downloaded manifest file content"), 0);
    EXPECT_EQ(xfer.indexOf(xferLine("SOFTWARE INFORMATIONS ARE MISSING IN MANIFEST (0x7FFFFFFF)")),
              0)
        << xfer.dump();
}

TEST_F(FirmwareJobTest, unreadableWorkFileKeepsTheFileErrorsValue) {
    makeJob(false);
    job->setDownloaded("tftp://127.0.0.1/fw/image.manifest", workFile.c_str(), 0, "127.0.0.1", 0,
                       "/fw/image.manifest");
    XCode result = onLoop([this] { return job->onSuccessfulFileDownload(); });
    EXPECT_EQ(result.getString(), "Cannot read content of downloaded script");
    EXPECT_NE(result.getValue(), 0x7FFFFFFFu);
    EXPECT_EQ(xfer.count("Cannot read content of downloaded script"), 1);
}

TEST_F(FirmwareJobTest, archiveThatTarCannotReadFailsWithTheShellsError) {
    makeJob(false);
    provtest::writeFile(workFile, "this is not a tar archive at all, just text\n");
    job->setDownloaded("tftp://127.0.0.1/fw/firmware.tar", workFile.c_str(), 0, "127.0.0.1", 0,
                       "/fw/firmware.tar");
    XCode result = onLoop([this] { return job->onSuccessfulFileDownload(); });
    EXPECT_TRUE(result.isErr());
    EXPECT_EQ(result.getFamily(), XCode::EXIT_STATUS_FAMILY) << result.toString().c_str();
    EXPECT_TRUE(requests.empty());
    EXPECT_EQ(xfer.indexOf(xferLine(result.toString().c_str())), 0) << xfer.dump();
}

TEST_F(FirmwareJobTest, unchangedVersionStartsNothingInEitherFlow) {
    {
        makeJob(true);
        XCode result = downloadedTar(ACTIVE_MANIFEST);
        EXPECT_TRUE(result.isSuccess()) << result.toString().c_str();
        EXPECT_EQ(job->getImageAction(), ProvisioningJob::UpdateImageInfo);
        EXPECT_FALSE(job->isAsyncPending());
        EXPECT_LT(prov.find("Upgrading firmware"), 0);
    }
    makeJob(true);
    XCode result = downloadedManifest(ACTIVE_MANIFEST);
    EXPECT_TRUE(result.isSuccess());
    EXPECT_EQ(job->getImageAction(), ProvisioningJob::UpdateImageInfo);
    EXPECT_FALSE(job->isAsyncPending());
    EXPECT_TRUE(requests.empty());
    EXPECT_TRUE(xfer.lines().empty()) << xfer.dump();
}

TEST_F(FirmwareJobTest, httpsManifestIsFetchedByTheControllerWithTheJobsCredentials) {
    makeJob(false);
    job->setRealm("user", "secret", UriUtil::buildOrigin("https", "10.0.0.1", 8443));
    job->setAuthentication("/flash/ca.pem", "/flash/client.pem", "/flash/client.key");
    provtest::writeFile(workFile, NEWER_MANIFEST);
    job->setDownloaded("https://10.0.0.1:8443/fw/image.manifest", workFile.c_str(), 2, "10.0.0.1",
                       8443, "/fw/image.manifest");
    ASSERT_TRUE(onLoop([this] { return job->onSuccessfulFileDownload(); }).isSuccess());
    ASSERT_EQ(requests.size(), 1u);
    const UpdateController::Request& request = requests[0];
    EXPECT_TRUE(request.withCredentials);
    EXPECT_EQ(request.files[0], "https://10.0.0.1:8443/fw/image.manifest");
    EXPECT_EQ(request.files[1], "flash:");
    EXPECT_EQ(request.action, "update");
    EXPECT_EQ(request.arg3, "");
    EXPECT_EQ(request.user, "user");
    EXPECT_EQ(request.password, "secret");
    EXPECT_EQ(request.auth1, "/flash/ca.pem");
    EXPECT_EQ(request.auth2, "/flash/client.pem");
    EXPECT_EQ(request.auth3, "/flash/client.key");
    EXPECT_EQ(request.caller, "Provisioning");
    EXPECT_EQ(request.handler, job->controllerHandler());
}

// The flow is chosen by the name the file was fetched under: a query names nothing.
TEST_F(FirmwareJobTest, queryAndFragmentDoNotChooseTheFlow) {
    struct Case {
        const char* path;
        const char* expected;  // "tar", "manifest" or the refusal
    };
    for (const Case& c :
         {Case{"/fw/image.tar?build=7", "tar"}, Case{"/fw/image.tar#part", "tar"},
          Case{"/fw/image.tar;type=i", "tar"}, Case{"/fw/image.manifest?build=7#x", "manifest"},
          Case{"/fw/get.php?f=image.tar", "Provisioned file type not supported"},
          Case{"/fw/get.php?f=image.manifest", "Provisioned file type not supported"},
          Case{"/fw/get.php?x#image.tar", "Provisioned file type not supported"}}) {
        requests.clear();
        makeJob(false);
        if (std::string(c.expected) == "tar") {
            makeArchive(NEWER_MANIFEST);
        } else {
            provtest::writeFile(workFile, NEWER_MANIFEST);
        }
        job->setDownloaded(("http://10.0.0.1" + std::string(c.path)).c_str(), workFile.c_str(), 1,
                           "10.0.0.1", 0, c.path);
        XCode result = onLoop([this] { return job->onSuccessfulFileDownload(); });
        if (std::string(c.expected) == "tar" || std::string(c.expected) == "manifest") {
            ASSERT_TRUE(result.isSuccess()) << c.path << ": " << result.toString().c_str();
            ASSERT_EQ(requests.size(), 1u) << c.path;
            EXPECT_EQ(requests[0].files[0].startsWith("file:"), std::string(c.expected) == "tar")
                << c.path;
        } else {
            EXPECT_EQ(result.getString(), c.expected) << c.path;
            EXPECT_TRUE(requests.empty()) << c.path;
        }
    }
}

// The controller fetches what the request asked for: the query goes along, the fragment not.
TEST_F(FirmwareJobTest, manifestWithAQueryIsFetchedWithItAndWithoutTheFragment) {
    makeJob(false);
    provtest::writeFile(workFile, NEWER_MANIFEST);
    job->setDownloaded("http://10.0.0.1/fw/image.manifest?build=7#top", workFile.c_str(), 1,
                       "10.0.0.1", 0, "/fw/image.manifest?build=7#top");
    ASSERT_TRUE(onLoop([this] { return job->onSuccessfulFileDownload(); }).isSuccess());
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].files[0], "http://10.0.0.1/fw/image.manifest?build=7");
}

// A login written into the location answers for its origin, ahead of the realm's credentials.
TEST_F(FirmwareJobTest, locationLoginGoesToTheControllerForItsOriginOnly) {
    for (bool sameOrigin : {true, false}) {
        requests.clear();
        makeJob(false);
        job->setRealm("realmuser", "realmpass", UriUtil::buildOrigin("https", "10.0.0.1", 8443));
        job->setLogin("locuser", "locpass",
                      UriUtil::buildOrigin("https", sameOrigin ? "10.0.0.1" : "10.0.0.2", 8443));
        provtest::writeFile(workFile, NEWER_MANIFEST);
        job->setDownloaded("https://10.0.0.1:8443/fw/image.manifest", workFile.c_str(), 2,
                           "10.0.0.1", 8443, "/fw/image.manifest");
        ASSERT_TRUE(onLoop([this] { return job->onSuccessfulFileDownload(); }).isSuccess());
        ASSERT_EQ(requests.size(), 1u);
        EXPECT_EQ(requests[0].user, sameOrigin ? "locuser" : "realmuser");
        EXPECT_EQ(requests[0].password, sameOrigin ? "locpass" : "realmpass");
    }
}

TEST_F(FirmwareJobTest, httpManifestUsesTheHttpScheme) {
    makeJob(false);
    provtest::writeFile(workFile, NEWER_MANIFEST);
    job->setDownloaded("http://10.0.0.1/fw/image.manifest", workFile.c_str(), 1, "10.0.0.1", 0,
                       "/fw/image.manifest");
    ASSERT_TRUE(onLoop([this] { return job->onSuccessfulFileDownload(); }).isSuccess());
    ASSERT_EQ(requests.size(), 1u);
    EXPECT_EQ(requests[0].files[0], "http://10.0.0.1/fw/image.manifest");
}

TEST_F(FirmwareJobTest, unknownProtocolIsInvalid) {
    makeJob(false);
    provtest::writeFile(workFile, NEWER_MANIFEST);
    job->setDownloaded("x://10.0.0.1/fw/image.manifest", workFile.c_str(), 7, "10.0.0.1", 0,
                       "/fw/image.manifest");
    XCode result = onLoop([this] { return job->onSuccessfulFileDownload(); });
    EXPECT_EQ(result.getValue(), 0x7FFFFFFFu);
    EXPECT_EQ(result.getString(), "Invalid protocol");
    EXPECT_TRUE(requests.empty());
    EXPECT_FALSE(job->isAsyncPending());
    EXPECT_EQ(xfer.indexOf(xferLine("Invalid protocol (0x7FFFFFFF)")), 0) << xfer.dump();
}

TEST_F(FirmwareJobTest, controllerThatRefusesToStartFailsTheStep) {
    intercept = XCode(0x12000001u).setString("CONTROLLER BUSY");
    makeJob(false);
    XCode result = downloadedManifest(NEWER_MANIFEST);
    EXPECT_EQ(result.getValue(), 0x12000001u);
    EXPECT_EQ(result.getString(), "CONTROLLER BUSY");
    EXPECT_FALSE(job->isAsyncPending());
    EXPECT_EQ(xfer.indexOf(xferLine("CONTROLLER BUSY (0x12000001)")), 0) << xfer.dump();
    EXPECT_TRUE(handler.results.empty());
}

TEST_F(FirmwareJobTest, successfulUpgradeRecordsTheSecondFlagAndTellsTheHandlerOnce) {
    makeJob(false);
    ASSERT_TRUE(downloadedManifest(NEWER_MANIFEST).isSuccess());
    ASSERT_TRUE(terminate(XCode(XCode::SUCCESS), true));
    ASSERT_EQ(handler.results.size(), 1u);
    EXPECT_TRUE(handler.results[0].isSuccess());
    EXPECT_EQ(handler.jobs[0], job.get());
    EXPECT_TRUE(job->getPostUpgradeFlag());
    EXPECT_FALSE(job->isAsyncPending());
    EXPECT_EQ(prov.levelOf(std::string("[fw/Update] Terminated: ") +
                           XCode(XCode::SUCCESS).toString().c_str()),
              6)
        << prov.dump();
    EXPECT_GE(prov.indexOf("[fw] Successfully updated firmware."), 0);
    EXPECT_EQ(event.indexOf("[fw] Successfully executed updated script"), 0) << event.dump();
    EXPECT_EQ(xfer.indexOf(xferLine("succeeded")), 0) << xfer.dump();
    // Exactly one termination: a second report is refused and nothing more arrives.
    EXPECT_FALSE(UpdateController::REPORT_TERMINATED(job->controllerHandler(), "again",
                                                     XCode(XCode::SUCCESS), false, false));
    loop.runPending();
    EXPECT_EQ(handler.results.size(), 1u);
}

TEST_F(FirmwareJobTest, secondFlagFalseIsCopiedToo) {
    makeJob(false);
    ASSERT_TRUE(downloadedManifest(NEWER_MANIFEST).isSuccess());
    ASSERT_TRUE(terminate(XCode(XCode::SUCCESS), false));
    EXPECT_FALSE(job->getPostUpgradeFlag());
}

TEST_F(FirmwareJobTest, failedUpgradeResetsTheImageActionAndLogsTheBareMessage) {
    makeJob(false, 1, 1);
    ASSERT_TRUE(downloadedManifest(NEWER_MANIFEST).isSuccess());
    ASSERT_EQ(job->getImageAction(), ProvisioningJob::SwapNextImage);
    XCode failed = XCode(-1).setString("IMAGE MISSING IN ARCHIVE");
    ASSERT_TRUE(terminate(failed, true));
    ASSERT_EQ(handler.results.size(), 1u);
    EXPECT_EQ(handler.results[0].getString(), "IMAGE MISSING IN ARCHIVE");
    EXPECT_EQ(job->getImageAction(), ProvisioningJob::UpdateImageInfo);
    EXPECT_FALSE(job->getPostUpgradeFlag());
    EXPECT_EQ(xfer.indexOf(xferLine("IMAGE MISSING IN ARCHIVE")), 0) << xfer.dump();
    EXPECT_TRUE(event.lines().empty());
    EXPECT_GE(prov.indexOf("[fw/Update] Terminated: IMAGE MISSING IN ARCHIVE (0x7FFFFFFF)"), 0);
}

TEST_F(FirmwareJobTest, failureWithoutMessageLogsAnEmptyText) {
    makeJob(false);
    ASSERT_TRUE(downloadedManifest(NEWER_MANIFEST).isSuccess());
    ASSERT_TRUE(terminate(XCode(0x12000002u), false));
    EXPECT_EQ(xfer.indexOf(xferLine("")), 0) << xfer.dump();
    EXPECT_EQ(handler.results[0].getValue(), 0x12000002u);
}

TEST_F(FirmwareJobTest, progressReportsChangeNothing) {
    makeJob(false);
    ASSERT_TRUE(downloadedManifest(NEWER_MANIFEST).isSuccess());
    prov.clear();
    ASSERT_TRUE(UpdateController::REPORT_PROGRESS(job->controllerHandler(), "written 1 of 2"));
    loop.runPending();
    EXPECT_TRUE(handler.results.empty());
    EXPECT_TRUE(job->isAsyncPending());
    EXPECT_TRUE(prov.lines().empty()) << prov.dump();
}

TEST_F(FirmwareJobTest, destroyedJobIsNeverCalledBack) {
    makeJob(false);
    ASSERT_TRUE(downloadedManifest(NEWER_MANIFEST).isSuccess());
    UpdateController::CallbackHandler* controllerSide = job->controllerHandler();
    // Queued on the loop, then the job goes away before the loop runs it.
    ASSERT_TRUE(UpdateController::REPORT_PROGRESS(controllerSide, "written 1 of 2"));
    ASSERT_TRUE(UpdateController::REPORT_TERMINATED(controllerSide, "done", XCode(XCode::SUCCESS),
                                                    true, true));
    job.reset();
    loop.runPending();
    EXPECT_TRUE(handler.results.empty());
    EXPECT_TRUE(xfer.lines().empty()) << xfer.dump();
    EXPECT_FALSE(UpdateController::REPORT_TERMINATED(controllerSide, "late", XCode(XCode::SUCCESS),
                                                     true, true));
}

TEST_F(FirmwareJobTest, handlerMayDestroyTheJobWhileBeingTold) {
    makeJob(false);
    ASSERT_TRUE(downloadedManifest(NEWER_MANIFEST).isSuccess());
    handler.then = [this](ProvisioningJob&, const XCode&) { job.reset(); };
    ASSERT_TRUE(terminate(XCode(XCode::SUCCESS), true));
    EXPECT_EQ(handler.results.size(), 1u);
    EXPECT_EQ(job, nullptr);
}

}  // namespace
