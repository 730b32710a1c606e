// Firmware and script jobs end to end: real tar archives, busybox tftp against tftpd-hpa, GNU wget
// against lighttpd, and the simulated update controller writing the device's image slots.

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "engine/Monitors.h"
#include "jobs/upgrade/FirmwareProvisioningJob.h"
#include "jobs/upgrade/ScriptProvisioningJob.h"
#include "platform/Shell.h"
#include "platform/StatusDb.h"
#include "platform/UpdateController.h"
#include "platform/posix/ShellControl.h"
#include "platform/simulated/DeviceDirectory.h"
#include "platform/simulated/SimulatedUpdateController.h"
#include "platform/simulated/SlotState.h"
#include "platform/testing/StatusDbHooks.h"
#include "platform/testing/UpdateControllerHooks.h"
#include "support/CaptureMonitor.h"
#include "support/Certificates.h"
#include "support/HttpServer.h"
#include "support/RejectedCommands.h"
#include "support/TempDir.h"
#include "support/TftpServer.h"
#include "support/UpgradeSupport.h"

namespace {

using namespace std::chrono_literals;
using provtest::CaptureMonitor;

const char* const ACTIVE_VERSION = "X 1.2 7";
const std::string NEWER_MANIFEST = "sw_type=X\nsw_version=1.3\nsw_build_num=1\n";
const std::string ACTIVE_MANIFEST = "sw_type=X\nsw_version=1.2\nsw_build_num=7\n";

std::string imageBytes(std::size_t size) {
    std::string image(size, '\0');
    for (std::size_t i = 0; i < size; ++i) {
        image[i] = static_cast<char>((i * 7919) % 253);
    }
    return image;
}

class UpgradeTest : public ::testing::Test {
  protected:
    void SetUp() override {
        Device::SET_ROOT(device.path().c_str());
        ASSERT_TRUE(Device::PREPARE().isSuccess());
        DB::Table::ProvisioningStatusHooks::RESET();
        Kt::ShellControl::SET_TOOL("tftp", {"busybox", "tftp"});
        MON_PROV = &prov;
        MON_XFER = &xfer;
        MON_EVENT = &event;
        unique = provtest::uniqueName("up");
        // What the slots hold at the moment the handler is told.
        handler.then = [this](ProvisioningJob&, const XCode&) {
            slotTwoWhenTold = readIfExists(device.file("slots/2"));
            slotOneWhenTold = readIfExists(device.file("slots/1"));
            SlotState state;
            if (SlotState::LOAD(state).isSuccess()) {
                stateWhenTold = state;
            }
        };
    }
    void TearDown() override {
        firmware.reset();
        script.reset();
        UpdateController::SET_INTERCEPTOR(nullptr);
        EXPECT_TRUE(UpdateController::WAIT_IDLE(60s));
        MON_PROV = nullptr;
        MON_XFER = nullptr;
        MON_EVENT = nullptr;
        for (const char* suffix : {".tar", ".manifest"}) {
            std::remove(
                (Device::MAP_PATH("/tmp/provisioning").str() + "/" + unique + suffix).c_str());
        }
    }

    static std::string readIfExists(const std::string& path) {
        return provtest::fileExists(path) ? provtest::readFile(path) : std::string("<none>");
    }

    FirmwareProvisioningJob& makeFirmware(const std::string& location, bool compare,
                                          unsigned int nextImage = 2,
                                          unsigned int activeImage = 1) {
        KtList<String> locations;
        locations.pushBack(location.c_str());
        firmware = std::make_unique<FirmwareProvisioningJob>(
            loop, unique.c_str(), ProvisioningJob::None, compare, locations, credentials, resolver,
            handler, "X 1.0 1", "X 1.1 1", ACTIVE_VERSION, nextImage, activeImage);
        return *firmware;
    }

    ScriptProvisioningJob& makeScript(const std::string& location, bool compare) {
        KtList<String> locations;
        locations.pushBack(location.c_str());
        script = std::make_unique<ScriptProvisioningJob>(loop, unique.c_str(),
                                                         ProvisioningJob::None, compare, locations,
                                                         credentials, resolver, handler);
        return *script;
    }

    // Executes the job, waits for the handler, then for the controller to be idle, and makes sure
    // nothing more arrives.
    void run(ProvisioningJob& job) {
        std::size_t before = handler.results.size();
        XCode started = job.execute();
        if (started.isSuccess()) {
            ASSERT_TRUE(loop.runUntil([&] { return handler.results.size() > before; }, 60s))
                << prov.dump();
        }
        ASSERT_TRUE(UpdateController::WAIT_IDLE(60s));
        loop.runPending();
        ASSERT_EQ(handler.results.size(), before + 1) << prov.dump();
    }

    const XCode& lastResult() const { return handler.results.back(); }

    // An archive in the staging directory holding "manifest" and, unless empty, "image".
    std::string stageArchive(const std::string& manifest, const std::string& image) {
        provtest::writeFile(staging.file("manifest"), manifest);
        std::vector<std::string> members{"manifest"};
        if (!image.empty()) {
            provtest::writeFile(staging.file("image"), image);
            members.push_back("image");
        }
        std::string archive = archives.file(unique + ".tar");
        EXPECT_TRUE(provtest::makeTar(archive, staging.path(), members));
        return provtest::readFile(archive);
    }

    provtest::TempDir device{"prov-upgrade"};
    provtest::TempDir staging{"prov-upgrade-src"};
    provtest::TempDir archives{"prov-upgrade-tar"};
    KtEventLoop loop;
    ProvisioningCredentials credentials;
    ExpressionResolver resolver;
    provtest::RecordingJobHandler handler;
    CaptureMonitor prov{"PROV"};
    CaptureMonitor xfer{"XFER"};
    CaptureMonitor event{"EVENT"};
    std::string unique;
    std::unique_ptr<FirmwareProvisioningJob> firmware;
    std::unique_ptr<ScriptProvisioningJob> script;
    std::string slotOneWhenTold;
    std::string slotTwoWhenTold;
    SlotState stateWhenTold;
};

// --- Firmware ---

TEST_F(UpgradeTest, firmwareArchiveOverTftpIsWrittenToTheInactiveSlotBeforeTheHandlerIsTold) {
    const std::string image = imageBytes(300 * 1024 + 5);
    provtest::TftpServer server;
    server.put("fw/" + unique + ".tar", stageArchive(NEWER_MANIFEST, image));
    ASSERT_TRUE(server.start());
    auto& job = makeFirmware(
        "tftp://127.0.0.1:" + std::to_string(server.port()) + "/fw/" + unique + ".tar", true);
    run(job);
    EXPECT_TRUE(lastResult().isSuccess()) << lastResult().toString().c_str() << prov.dump();
    EXPECT_TRUE(slotTwoWhenTold == image) << "slot 2 holds " << slotTwoWhenTold.size() << " bytes";
    EXPECT_EQ(slotOneWhenTold, "<none>");
    EXPECT_EQ(stateWhenTold.version2, "X 1.3 1");
    EXPECT_EQ(stateWhenTold.active, 1u);
    EXPECT_EQ(job.getImageAction(), ProvisioningJob::UpdateImageInfo);
    EXPECT_TRUE(job.getActivationFlag());
    EXPECT_TRUE(job.getPostUpgradeFlag());
    EXPECT_GE(xfer.count(" -> flash: : succeeded"), 1) << xfer.dump();
    EXPECT_GE(prov.find("Successfully updated firmware."), 0);
}

TEST_F(UpgradeTest, firmwareWithTheRunningVersionStartsNothing) {
    provtest::TftpServer server;
    server.put(unique + ".tar", stageArchive(ACTIVE_MANIFEST, "IMAGE"));
    ASSERT_TRUE(server.start());
    auto& job = makeFirmware(
        "tftp://127.0.0.1:" + std::to_string(server.port()) + "/" + unique + ".tar", true);
    run(job);
    EXPECT_TRUE(lastResult().isSuccess()) << lastResult().toString().c_str();
    EXPECT_EQ(job.getImageAction(), ProvisioningJob::UpdateImageInfo);
    EXPECT_FALSE(job.getActivationFlag());
    EXPECT_FALSE(provtest::fileExists(device.file("slots/2")));
    EXPECT_LT(prov.find("Upgrading firmware"), 0);
}

TEST_F(UpgradeTest, firmwareManifestOverHttpHasTheControllerFetchTheImageBesideIt) {
    const std::string image = imageBytes(70000);
    provtest::HttpServer server;
    server.put("/fw/" + unique + ".manifest", NEWER_MANIFEST + "image=" + unique + ".bin\n");
    server.put("/fw/" + unique + ".bin", image);
    ASSERT_TRUE(server.start());
    auto& job = makeFirmware(server.url("/fw/" + unique + ".manifest"), true, 1, 1);
    run(job);
    EXPECT_TRUE(lastResult().isSuccess()) << lastResult().toString().c_str() << prov.dump();
    EXPECT_TRUE(slotTwoWhenTold == image);
    EXPECT_EQ(stateWhenTold.version2, "X 1.3 1");
    EXPECT_EQ(job.getImageAction(), ProvisioningJob::SwapNextImage);
    EXPECT_GE(prov.find("Executing script"), 0);
}

TEST_F(UpgradeTest, firmwareManifestBehindAuthenticationIsFetchedWithTheSameCredentials) {
    const std::string image = imageBytes(4096);
    provtest::HttpServer server;
    server.options().auth.push_back(
        {"/secure/", "devices", provtest::HttpServer::Scheme::Basic, "dev", "s3cret"});
    server.put("/secure/" + unique + ".manifest", NEWER_MANIFEST + "image=" + unique + ".bin\n");
    server.put("/secure/" + unique + ".bin", image);
    ASSERT_TRUE(server.start());
    ASSERT_TRUE(credentials.add("", "dev", "s3cret").isSuccess());
    auto& job = makeFirmware(server.url("/secure/" + unique + ".manifest"), false);
    run(job);
    EXPECT_TRUE(lastResult().isSuccess()) << lastResult().toString().c_str() << prov.dump();
    EXPECT_TRUE(slotTwoWhenTold == image);
}

// The manifest's location carries a login, a query whose value holds a slash, and a fragment,
// on ::1: the job and then the controller answer the server with the login (one origin), and
// the image is fetched beside the manifest's path, not beside its query.
TEST_F(UpgradeTest, firmwareManifestWithLoginAndQueryOnIpv6HasTheImageFetchedBesideIt) {
    const std::string image = imageBytes(4096);
    provtest::HttpServer::Options options;
    options.ipv6 = true;
    options.auth = {
        {"/secure/", "devices", provtest::HttpServer::Scheme::Digest, "dev", "s3c:ret"}};
    provtest::HttpServer server(options);
    server.put("/secure/" + unique + ".manifest", NEWER_MANIFEST + "image=" + unique + ".bin\n");
    server.put("/secure/" + unique + ".bin", image);
    ASSERT_TRUE(server.start());
    std::string url = server.url("/secure/" + unique + ".manifest");
    ASSERT_EQ(url.rfind("http://[::1]:", 0), 0U);
    auto& job = makeFirmware("http://dev:s3c%3Aret@" + url.substr(7) + "?dir=a/b#top", false);
    run(job);
    EXPECT_TRUE(lastResult().isSuccess()) << lastResult().toString().c_str() << prov.dump();
    EXPECT_TRUE(slotTwoWhenTold == image) << "slot 2 holds " << slotTwoWhenTold.size() << " bytes";
    EXPECT_FALSE(prov.contains("s3c")) << prov.dump();
}

TEST_F(UpgradeTest, firmwareManifestOverHttpsUsesTheJobsCaCertificate) {
    const provtest::Certificates& certs = provtest::Certificates::get();
    ASSERT_TRUE(certs.ok()) << certs.error();
    const std::string image = imageBytes(10000);
    provtest::HttpServer::Options options;
    options.https = true;
    provtest::HttpServer server(options);
    server.put("/fw/" + unique + ".manifest", NEWER_MANIFEST + "image=/img/" + unique + ".bin\n");
    server.put("/img/" + unique + ".bin", image);
    ASSERT_TRUE(server.start());
    auto& job = makeFirmware(server.url("/fw/" + unique + ".manifest"), false);
    job.setAuthentication(certs.rootCa().c_str(), "", "");
    run(job);
    EXPECT_TRUE(lastResult().isSuccess()) << lastResult().toString().c_str() << prov.dump();
    EXPECT_TRUE(slotTwoWhenTold == image);
}

TEST_F(UpgradeTest, missingImageOnTheServerFailsTheUpgradeOnce) {
    provtest::HttpServer server;
    server.put("/fw/" + unique + ".manifest", NEWER_MANIFEST + "image=gone.bin\n");
    ASSERT_TRUE(server.start());
    auto& job = makeFirmware(server.url("/fw/" + unique + ".manifest"), false, 1, 1);
    run(job);
    const std::string expected = "CANNOT FETCH " + server.url("/fw/gone.bin") + ": ";
    EXPECT_EQ(lastResult().getString().str().rfind(expected, 0), 0u)
        << lastResult().getString().c_str();
    EXPECT_EQ(job.getImageAction(), ProvisioningJob::UpdateImageInfo);
    EXPECT_EQ(slotTwoWhenTold, "<none>");
    EXPECT_EQ(xfer.count(expected), 1) << xfer.dump();
}

TEST_F(UpgradeTest, archiveWhoseManifestNamesAMissingImageFails) {
    provtest::TftpServer server;
    server.put(unique + ".tar", stageArchive(NEWER_MANIFEST + "image=image\n", ""));
    ASSERT_TRUE(server.start());
    auto& job = makeFirmware(
        "tftp://127.0.0.1:" + std::to_string(server.port()) + "/" + unique + ".tar", false);
    run(job);
    EXPECT_EQ(lastResult().getString(), "IMAGE MISSING IN ARCHIVE");
    EXPECT_EQ(slotTwoWhenTold, "<none>");
}

TEST_F(UpgradeTest, controllerThatFailsToStartEndsTheJobOnce) {
    UpdateController::SET_INTERCEPTOR([](const UpdateController::Request&) {
        return XCode(-1).setString("UPDATE SERVICE DOWN");
    });
    provtest::HttpServer server;
    server.put("/fw/" + unique + ".manifest", NEWER_MANIFEST + "image=x.bin\n");
    ASSERT_TRUE(server.start());
    auto& job = makeFirmware(server.url("/fw/" + unique + ".manifest"), false);
    run(job);
    EXPECT_EQ(lastResult().getString(), "UPDATE SERVICE DOWN");
    EXPECT_EQ(xfer.count("UPDATE SERVICE DOWN (0x7FFFFFFF)"), 1) << xfer.dump();
    EXPECT_GE(prov.find("EXECUTION FAILED: UPDATE SERVICE DOWN"), 0);
}

TEST_F(UpgradeTest, jobDestroyedWhileTheControllerWorksIsNeverCalledBack) {
    provtest::TftpServer server;
    server.put(unique + ".tar", stageArchive(NEWER_MANIFEST, imageBytes(4 * 1024 * 1024)));
    ASSERT_TRUE(server.start());
    auto& job = makeFirmware(
        "tftp://127.0.0.1:" + std::to_string(server.port()) + "/" + unique + ".tar", false);
    ASSERT_TRUE(job.execute().isSuccess());
    // Checked after each event: the event that logs this line also hands the work over, and the
    // controller's termination can only arrive in a later event.
    ASSERT_TRUE(loop.runUntil([this] { return prov.contains("Upgrading firmware"); }, 60s))
        << prov.dump();
    firmware.reset();
    ASSERT_TRUE(UpdateController::WAIT_IDLE(60s));
    loop.runPending();
    EXPECT_TRUE(handler.results.empty());
    EXPECT_EQ(xfer.count("succeeded"), 0);
}

TEST_F(UpgradeTest, membersClimbingOutNeverLandOutsideTheWorkDirectoryOrTheSlots) {
    provtest::TempDir elsewhere{"prov-upgrade-abs"};
    const std::string absolute = elsewhere.file("planted");
    const std::string climbing = "/tmp/" + unique + "-climbed";
    provtest::writeFile(staging.file("manifest"), NEWER_MANIFEST);
    provtest::writeFile(staging.file("image"), "IMAGE");
    provtest::writeFile(absolute, "ABSOLUTE");
    provtest::writeFile(climbing, "CLIMBED");
    // staging is /tmp/prov-upgrade-src-XXXX: "../<name>" from there is /tmp/<name>.
    const std::string archive = archives.file(unique + ".tar");
    ASSERT_TRUE(provtest::makeTar(archive, staging.path(),
                                  {"manifest", "image", "../" + unique + "-climbed", absolute},
                                  true));
    std::remove(absolute.c_str());
    std::remove(climbing.c_str());
    provtest::TftpServer server;
    server.put(unique + ".tar", provtest::readFile(archive));
    ASSERT_TRUE(server.start());
    auto& job = makeFirmware(
        "tftp://127.0.0.1:" + std::to_string(server.port()) + "/" + unique + ".tar", false);
    run(job);
    EXPECT_EQ(lastResult().getString().str(),
              "UNSAFE MEMBER IN ARCHIVE: ../" + unique + "-climbed");
    EXPECT_FALSE(provtest::fileExists(absolute));
    EXPECT_FALSE(provtest::fileExists(climbing));
    EXPECT_FALSE(provtest::fileExists(Device::MAP_PATH("/tmp/provisioning").str() + "/" + unique +
                                      "-climbed"));
    EXPECT_FALSE(provtest::fileExists(Device::MAP_PATH("/tmp/provisioning").str() + absolute));
    EXPECT_EQ(slotTwoWhenTold, "<none>");
    EXPECT_FALSE(provtest::fileExists(device.file("slots/2")));
}

// --- Scripts ---

TEST_F(UpgradeTest, scriptRunsOnceAndAnUnchangedTailIsSkippedNextTime) {
    provtest::TftpServer server;
    const std::string text = "hostname first\ninterface eth0\nhostname gateway-01\n";
    server.put(unique + ".manifest", text);
    ASSERT_TRUE(server.start());
    const std::string location =
        "tftp://127.0.0.1:" + std::to_string(server.port()) + "/" + unique + ".manifest";

    run(makeScript(location, true));
    EXPECT_TRUE(lastResult().isSuccess()) << lastResult().toString().c_str() << prov.dump();
    EXPECT_EQ(script->getImageAction(), ProvisioningJob::SetNextToInactive);
    EXPECT_TRUE(script->getActivationFlag());
    const std::string ran = provtest::readFile(device.file("running-config"));
    EXPECT_EQ(ran, text);
    EXPECT_EQ(provtest::readFile(device.file("flash/provisioning/" + unique)),
              text.substr(text.size() - 20));

    // Changed only before its last 20 characters: the same script as far as the job can tell.
    server.put(unique + ".manifest", "hostname other\n" + text);
    run(makeScript(location, true));
    EXPECT_TRUE(lastResult().isSuccess());
    EXPECT_GE(prov.find("Downloaded and stored scripts are equal"), 0);
    EXPECT_EQ(provtest::readFile(device.file("running-config")), ran);
    EXPECT_EQ(handler.results.size(), 2u);
}

TEST_F(UpgradeTest, scriptArchiveOverHttpRuns) {
    provtest::HttpServer server;
    const std::string text = "hostname from-archive\ninterface eth1\n";
    server.put("/s/" + unique + ".tar", stageArchive(text, ""));
    ASSERT_TRUE(server.start());
    run(makeScript(server.url("/s/" + unique + ".tar"), false));
    EXPECT_TRUE(lastResult().isSuccess()) << lastResult().toString().c_str() << prov.dump();
    EXPECT_EQ(provtest::readFile(device.file("running-config")), text);
    EXPECT_FALSE(script->getPostUpgradeFlag());
}

TEST_F(UpgradeTest, failingScriptLineEndsTheJobOnceAndKeepsTheFingerprint) {
    provtest::HttpServer server;
    server.put("/s/" + unique + ".manifest", "hostname ok\nno-such-command here\nhostname no\n");
    provtest::RejectedCommands rejected({"no-such-command *"});
    ASSERT_TRUE(server.start());
    run(makeScript(server.url("/s/" + unique + ".manifest"), false));
    EXPECT_EQ(lastResult().getString().str().rfind("SCRIPT FAILED AT LINE 2: ", 0), 0u)
        << lastResult().getString().c_str();
    EXPECT_EQ(script->getImageAction(), ProvisioningJob::UpdateImageInfo);
    EXPECT_FALSE(provtest::fileExists(device.file("flash/provisioning/" + unique)));
    EXPECT_EQ(provtest::readFile(device.file("running-config")), "hostname ok\n");
}

TEST_F(UpgradeTest, downloadThatFailsEverywhereEndsTheJobOnce) {
    provtest::TftpServer server;
    ASSERT_TRUE(server.start());
    run(makeScript("tftp://127.0.0.1:" + std::to_string(server.port()) + "/" + unique + ".manifest",
                   false));
    EXPECT_TRUE(lastResult().isErr());
    EXPECT_GE(prov.find("FAILED TO DOWNLOAD SCRIPT"), 0);
    EXPECT_EQ(UpdateController::RUNNING_UPGRADES(), 0u);
}

}  // namespace
