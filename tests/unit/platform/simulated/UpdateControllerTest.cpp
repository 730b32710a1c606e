// The simulated update controller: argument checks, image slots, scripts, archive safety and the
// delivery of its reports.

#include "platform/UpdateController.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/FileNode.h"
#include "platform/KtEventLoop.h"
#include "platform/posix/FileNodeCaps.h"
#include "platform/simulated/DeviceDirectory.h"
#include "platform/simulated/SimulatedUpdateController.h"
#include "platform/simulated/SlotState.h"
#include "platform/testing/UpdateControllerHooks.h"
#include "support/RejectedCommands.h"
#include "support/TempDir.h"
#include "support/UpgradeSupport.h"

namespace {

using namespace std::chrono_literals;

struct Termination {
    std::string text;
    XCode result;
    bool first;
    bool second;
};

struct RecordingUpgradeHandler : UpdateController::CallbackHandler {
    ~RecordingUpgradeHandler() override { UpdateController::CANCEL(this); }
    void onUpgradeProgressUpdate(const String& text) override {
        progress.push_back(text.str());
        if (cancelOnProgress) {
            UpdateController::CANCEL(this);
        }
    }
    void onUpgradeTerminated(const String& text, XCode result, bool first, bool second) override {
        terminations.push_back({text.str(), result, first, second});
        if (whenTerminated) {
            whenTerminated();
        }
    }
    std::function<void()> whenTerminated;
    std::vector<std::string> progress;
    std::vector<Termination> terminations;
    bool cancelOnProgress = false;
};

class UpdateControllerTest : public ::testing::Test {
  protected:
    void SetUp() override {
        Device::SET_ROOT(device.path().c_str());
        ASSERT_TRUE(Device::PREPARE().isSuccess());
        // A host path in the device's work directory: the controller uses it as it is.
        archive = Device::MAP_PATH("/tmp/provisioning").str() + "/" + provtest::uniqueName("ctl") +
                  ".tar";
    }
    void TearDown() override {
        UpdateController::CANCEL(&handler);
        UpdateController::SET_INTERCEPTOR(nullptr);
        EXPECT_TRUE(UpdateController::WAIT_IDLE(20s));
        FileNode::SET_CONTENT_CAP(FileNode::DEFAULT_CONTENT_CAP);
        std::remove(archive.c_str());
    }

    // Starts on the loop, as a job does, and returns the start's result.
    XCode start(const std::string& source, const char* action = "update",
                const char* destination = "flash:") {
        XCode started;
        loop.post([&] {
            std::vector<String> files{source.c_str(), destination};
            String output;
            started = UpdateController::PERFORM_UPGRADE_IMAGE_JOB(action, files, "", output,
                                                                  "Provisioning", &handler);
        });
        loop.runPending();
        return started;
    }

    const Termination& runToEnd() {
        EXPECT_TRUE(loop.runUntil([this] { return !handler.terminations.empty(); }, 20s));
        EXPECT_TRUE(UpdateController::WAIT_IDLE(20s));
        loop.runPending();
        EXPECT_EQ(handler.terminations.size(), 1u);
        static const Termination none{"", XCode(-1), false, false};
        return handler.terminations.empty() ? none : handler.terminations.front();
    }

    // The private directory of the last upgrade, from its first report.
    std::string workDirectory() const {
        for (const std::string& text : handler.progress) {
            if (text.rfind("working in ", 0) == 0) {
                return text.substr(11);
            }
        }
        return std::string();
    }

    void tarOf(const std::vector<std::string>& members, bool keepNames = false) {
        ASSERT_TRUE(provtest::makeTar(archive, staging.path(), members, keepNames));
    }

    SlotState slots() const {
        SlotState state;
        EXPECT_TRUE(SlotState::LOAD(state).isSuccess());
        return state;
    }

    provtest::TempDir device{"prov-ctl"};
    provtest::TempDir staging{"prov-ctl-src"};
    KtEventLoop loop;
    RecordingUpgradeHandler handler;
    std::string archive;
};

const char* const MANIFEST = "sw_type=X\nsw_version=1.3\nsw_build_num=1\n";

TEST_F(UpdateControllerTest, imageGoesToTheInactiveSlotWithItsVersion) {
    provtest::writeFile(staging.file("manifest"), MANIFEST);
    provtest::writeFile(staging.file("image"), "IMAGE-BYTES");
    tarOf({"manifest", "image"});
    bool workLeftWhenTold = true;
    handler.whenTerminated = [&] {
        workLeftWhenTold = !workDirectory().empty() && provtest::fileExists(workDirectory());
    };
    ASSERT_TRUE(start("file:" + archive).isSuccess());
    const Termination& end = runToEnd();
    EXPECT_TRUE(end.result.isSuccess()) << end.result.toString().c_str();
    EXPECT_TRUE(end.first);
    EXPECT_TRUE(end.second);
    EXPECT_EQ(end.text, "image X 1.3 1 written to slot 2");
    EXPECT_FALSE(workLeftWhenTold);
    EXPECT_EQ(provtest::readFile(device.file("slots/2")), "IMAGE-BYTES");
    EXPECT_FALSE(provtest::fileExists(device.file("slots/1")));
    SlotState state = slots();
    EXPECT_EQ(state.version2, "X 1.3 1");
    EXPECT_EQ(state.version1, "");
    EXPECT_EQ(state.active, 1u);
    EXPECT_EQ(state.next, 1u);
    ASSERT_FALSE(handler.progress.empty());
    EXPECT_EQ(handler.progress.back(), "written 11 of 11 bytes");
    std::string work = workDirectory();
    ASSERT_FALSE(work.empty());
    EXPECT_FALSE(provtest::fileExists(work));
}

TEST_F(UpdateControllerTest, slotOneIsWrittenWhileSlotTwoRuns) {
    SlotState running;
    running.active = 2;
    running.next = 2;
    running.version2 = "X 1.2 7";
    ASSERT_TRUE(SlotState::STORE(running).isSuccess());
    provtest::writeFile(staging.file("manifest"), MANIFEST);
    provtest::writeFile(staging.file("image"), "NEW");
    tarOf({"manifest", "image"});
    ASSERT_TRUE(start("file:" + archive).isSuccess());
    EXPECT_TRUE(runToEnd().result.isSuccess());
    EXPECT_EQ(provtest::readFile(device.file("slots/1")), "NEW");
    SlotState state = slots();
    EXPECT_EQ(state.version1, "X 1.3 1");
    EXPECT_EQ(state.version2, "X 1.2 7");
    EXPECT_EQ(state.active, 2u);
}

TEST_F(UpdateControllerTest, largeImageIsCopiedWholeWithSeveralProgressReports) {
    std::string image(3 * 1024 * 1024 + 17, '\0');
    for (std::size_t i = 0; i < image.size(); ++i) {
        image[i] = static_cast<char>(i * 131 % 251);
    }
    provtest::writeFile(staging.file("manifest"), MANIFEST);
    provtest::writeFile(staging.file("image"), image);
    tarOf({"manifest", "image"});
    ASSERT_TRUE(start("file:" + archive).isSuccess());
    EXPECT_TRUE(runToEnd().result.isSuccess());
    EXPECT_TRUE(provtest::readFile(device.file("slots/2")) == image);
    int written = 0;
    for (const std::string& text : handler.progress) {
        written += text.rfind("written ", 0) == 0 ? 1 : 0;
    }
    EXPECT_GE(written, 4);
    EXPECT_EQ(handler.progress.back(), "written " + std::to_string(image.size()) + " of " +
                                           std::to_string(image.size()) + " bytes");
}

TEST_F(UpdateControllerTest, archiveWithoutImageIsAScriptRunLineByLine) {
    provtest::writeFile(staging.file("manifest"), "hostname one\n\ninterface eth0\n");
    tarOf({"manifest"});
    ASSERT_TRUE(start("file:" + archive).isSuccess());
    const Termination& end = runToEnd();
    EXPECT_TRUE(end.result.isSuccess()) << end.result.toString().c_str();
    EXPECT_FALSE(end.first);
    EXPECT_FALSE(end.second);
    EXPECT_EQ(provtest::readFile(device.file("running-config")), "hostname one\ninterface eth0\n");
    EXPECT_FALSE(provtest::fileExists(device.file("slots/2")));
}

TEST_F(UpdateControllerTest, failingScriptLineIsNamed) {
    provtest::RejectedCommands rejected({"bogus *"});
    provtest::writeFile(staging.file("manifest"), "hostname one\nbogus command\nhostname two\n");
    tarOf({"manifest"});
    ASSERT_TRUE(start("file:" + archive).isSuccess());
    const Termination& end = runToEnd();
    EXPECT_TRUE(end.result.isErr());
    EXPECT_EQ(end.result.getString().str().rfind("SCRIPT FAILED AT LINE 2: ", 0), 0u)
        << end.result.getString().c_str();
    EXPECT_NE(end.result.getString().str().find("bogus command"), std::string::npos);
    // The lines before the failing one have run; the ones after it have not.
    EXPECT_EQ(provtest::readFile(device.file("running-config")), "hostname one\n");
}

TEST_F(UpdateControllerTest, manifestNamingAnImageThatIsNotThereFails) {
    provtest::writeFile(staging.file("manifest"), std::string(MANIFEST) + "image=image\n");
    tarOf({"manifest"});
    ASSERT_TRUE(start("file:" + archive).isSuccess());
    const Termination& end = runToEnd();
    EXPECT_EQ(end.result.getString(), "IMAGE MISSING IN ARCHIVE");
    EXPECT_FALSE(provtest::fileExists(device.file("slots/2")));
}

TEST_F(UpdateControllerTest, archiveWithoutManifestFails) {
    provtest::writeFile(staging.file("image"), "IMAGE");
    tarOf({"image"});
    ASSERT_TRUE(start("file:" + archive).isSuccess());
    EXPECT_EQ(runToEnd().result.getString(), "MANIFEST MISSING IN ARCHIVE");
}

TEST_F(UpdateControllerTest, fileThatIsNotAnArchiveFails) {
    provtest::writeFile(archive, "plain text, not an archive\n");
    ASSERT_TRUE(start("file:" + archive).isSuccess());
    const Termination& end = runToEnd();
    EXPECT_EQ(end.result.getString().str().rfind("CANNOT LIST ARCHIVE " + archive, 0), 0u)
        << end.result.getString().c_str();
}

TEST_F(UpdateControllerTest, memberClimbingOutIsRefusedAndNothingLandsOutside) {
    provtest::TempDir outside{"prov-ctl-outside"};
    const std::string escaped = provtest::uniqueName("escaped");
    provtest::makeDirs(staging.file("sub"));
    provtest::writeFile(staging.file("manifest"), MANIFEST);
    provtest::writeFile(staging.file("image"), "IMAGE");
    provtest::writeFile(staging.file(escaped), "EVIL");
    tarOf({"manifest", "image", "sub/../" + escaped}, true);
    ASSERT_TRUE(start("file:" + archive).isSuccess());
    const Termination& end = runToEnd();
    EXPECT_EQ(end.result.getString(),
              String(("UNSAFE MEMBER IN ARCHIVE: sub/../" + escaped).c_str()));
    EXPECT_FALSE(provtest::fileExists(device.file("slots/2")));
    EXPECT_FALSE(provtest::fileExists(Device::MAP_PATH("/tmp/provisioning").str() + "/" + escaped));
    EXPECT_FALSE(provtest::fileExists("/tmp/" + escaped));
}

TEST_F(UpdateControllerTest, absoluteMemberIsRefused) {
    provtest::TempDir elsewhere{"prov-ctl-abs"};
    const std::string absolute = elsewhere.file("evil");
    provtest::writeFile(absolute, "EVIL");
    provtest::writeFile(staging.file("manifest"), MANIFEST);
    provtest::writeFile(staging.file("image"), "IMAGE");
    tarOf({"manifest", "image", absolute}, true);
    std::remove(absolute.c_str());
    ASSERT_TRUE(start("file:" + archive).isSuccess());
    const Termination& end = runToEnd();
    EXPECT_EQ(end.result.getString().str(), "UNSAFE MEMBER IN ARCHIVE: " + absolute);
    EXPECT_FALSE(provtest::fileExists(absolute));
    EXPECT_FALSE(provtest::fileExists(device.file("slots/2")));
}

TEST_F(UpdateControllerTest, quotedMemberNamesAreReadBackExactly) {
    provtest::writeFile(staging.file("manifest"), MANIFEST);
    provtest::writeFile(staging.file("image"), "IMAGE");
    provtest::writeFile(staging.file("odd \"name\" \\ here"), "x");
    tarOf({"manifest", "odd \"name\" \\ here", "image"});
    ASSERT_TRUE(start("file:" + archive).isSuccess());
    EXPECT_TRUE(runToEnd().result.isSuccess());
    EXPECT_EQ(provtest::readFile(device.file("slots/2")), "IMAGE");
}

TEST_F(UpdateControllerTest, imageThatIsALinkIsRefused) {
    provtest::writeFile(staging.file("manifest"), MANIFEST);
    ASSERT_EQ(
        0,
        provtest::runCommand({"/bin/ln", "-s", "/etc/hostname", staging.file("image")}).exitStatus);
    tarOf({"manifest", "image"});
    ASSERT_TRUE(start("file:" + archive).isSuccess());
    EXPECT_EQ(runToEnd().result.getString().str(), "IMAGE IS NOT A FILE");
    EXPECT_FALSE(provtest::fileExists(device.file("slots/2")));
}

// A FIFO has no writer: opening it to read would block the upgrade for ever.
TEST_F(UpdateControllerTest, manifestThatIsAFifoIsRefusedWithoutBlocking) {
    provtest::writeFile(staging.file("image"), "IMAGE");
    ASSERT_EQ(0, provtest::runCommand({"/usr/bin/mkfifo", staging.file("manifest")}).exitStatus);
    tarOf({"manifest", "image"});
    ASSERT_TRUE(start("file:" + archive).isSuccess());
    EXPECT_EQ(runToEnd().result.getString().str(), "MANIFEST IS NOT A FILE");
    EXPECT_FALSE(provtest::fileExists(device.file("slots/2")));
}

// A script of a gigabyte would be held in memory whole: past the content cap it is refused.
TEST_F(UpdateControllerTest, scriptOverTheContentCapIsRefused) {
    provtest::writeFile(staging.file("manifest"), std::string(2048, '#') + "\n");
    tarOf({"manifest"});
    FileNode::SET_CONTENT_CAP(1024);
    ASSERT_TRUE(start("file:" + archive).isSuccess());
    EXPECT_EQ(runToEnd().result.getString().str(), "MANIFEST TOO LARGE");
}

TEST_F(UpdateControllerTest, invalidArgumentsAreRefusedAtOnce) {
    EXPECT_EQ(start("file:" + archive, "install").getString(),
              "UNSUPPORTED UPGRADE ACTION install");
    EXPECT_EQ(start("file:" + archive, "update", "flash:x").getString(),
              "UNSUPPORTED UPGRADE DESTINATION flash:x");
    EXPECT_EQ(start("ftp://127.0.0.1/x").getString(),
              "UNSUPPORTED UPGRADE SOURCE ftp://127.0.0.1/x");
    EXPECT_EQ(start("file:").getString(), "UNSUPPORTED UPGRADE SOURCE file:");
    EXPECT_EQ(start("/tmp/provisioning/x").getString(),
              "UNSUPPORTED UPGRADE SOURCE /tmp/provisioning/x");
    XCode started;
    loop.post([&] {
        std::vector<String> files{"file:/tmp/provisioning/x"};
        String output;
        started = UpdateController::PERFORM_UPGRADE_IMAGE_JOB("update", files, "", output,
                                                              "Provisioning", &handler);
    });
    loop.runPending();
    EXPECT_EQ(started.getString(), "UPGRADE NEEDS TWO FILES, GOT 1");
    loop.post([&] {
        std::vector<String> files{"file:/tmp/provisioning/x", "flash:"};
        String output;
        started = UpdateController::PERFORM_UPGRADE_IMAGE_JOB("update", files, "", output,
                                                              "Provisioning", nullptr);
    });
    loop.runPending();
    EXPECT_EQ(started.getString(), "NO UPGRADE HANDLER");
    EXPECT_EQ(UpdateController::RUNNING_UPGRADES(), 0u);
    loop.runPending();
    EXPECT_TRUE(handler.progress.empty());
    EXPECT_TRUE(handler.terminations.empty());
}

TEST_F(UpdateControllerTest, callerWithoutEventLoopIsRefused) {
    std::vector<String> files{String(("file:" + archive).c_str()), "flash:"};
    String output;
    XCode started = UpdateController::PERFORM_UPGRADE_IMAGE_JOB("update", files, "", output,
                                                                "Provisioning", &handler);
    EXPECT_EQ(started.getString(), "NO EVENT LOOP FOR UPGRADE REPORTS");
    EXPECT_EQ(UpdateController::RUNNING_UPGRADES(), 0u);
}

TEST_F(UpdateControllerTest, secondUpgradeForTheSameHandlerIsRefused) {
    UpdateController::SET_INTERCEPTOR(
        [](const UpdateController::Request&) { return XCode(XCode::SUCCESS); });
    ASSERT_TRUE(start("file:" + archive).isSuccess());
    EXPECT_EQ(start("file:" + archive).getString(), "UPGRADE ALREADY RUNNING");
    ASSERT_TRUE(
        UpdateController::REPORT_TERMINATED(&handler, "done", XCode(XCode::SUCCESS), false, false));
    loop.runPending();
    EXPECT_EQ(handler.terminations.size(), 1u);
    // Once terminated, the handler may start again.
    EXPECT_TRUE(start("file:" + archive).isSuccess());
}

TEST_F(UpdateControllerTest, cancelledUpgradeReportsNothingAndCleansUp) {
    std::string image(8 * 1024 * 1024, 'x');
    provtest::writeFile(staging.file("manifest"), MANIFEST);
    provtest::writeFile(staging.file("image"), image);
    tarOf({"manifest", "image"});
    ASSERT_TRUE(start("file:" + archive).isSuccess());
    UpdateController::CANCEL(&handler);
    ASSERT_TRUE(UpdateController::WAIT_IDLE(20s));
    loop.runPending();
    EXPECT_TRUE(handler.progress.empty());
    EXPECT_TRUE(handler.terminations.empty());
    // Whatever the work had reached, no temporary is left beside the slots.
    for (const auto& entry : std::filesystem::directory_iterator(device.file("slots"))) {
        EXPECT_NE(entry.path().filename().string()[0], '.') << entry.path();
    }
}

TEST_F(UpdateControllerTest, handlerThatCancelsInsideAReportHearsNothingMore) {
    handler.cancelOnProgress = true;
    provtest::writeFile(staging.file("manifest"), MANIFEST);
    provtest::writeFile(staging.file("image"), "IMAGE");
    tarOf({"manifest", "image"});
    ASSERT_TRUE(start("file:" + archive).isSuccess());
    EXPECT_TRUE(loop.runUntil([this] { return !handler.progress.empty(); }, 20s));
    ASSERT_TRUE(UpdateController::WAIT_IDLE(20s));
    loop.runPending();
    EXPECT_EQ(handler.progress.size(), 1u);
    EXPECT_TRUE(handler.terminations.empty());
}

TEST_F(UpdateControllerTest, interceptorSeesTheCallAndItsErrorRefusesTheStart) {
    std::vector<UpdateController::Request> seen;
    UpdateController::SET_INTERCEPTOR([&seen](const UpdateController::Request& request) {
        seen.push_back(request);
        return XCode(-1).setString("NO");
    });
    XCode started;
    loop.post([&] {
        std::vector<String> files{"https://h/x.manifest", "flash:"};
        String output;
        started = UpdateController::PERFORM_UPGRADE_IMAGE_JOB(
            "update", files, "", "u", "p", "a1", "a2", "a3", output, "Provisioning", &handler);
    });
    loop.runPending();
    EXPECT_EQ(started.getString(), "NO");
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_TRUE(seen[0].withCredentials);
    EXPECT_EQ(seen[0].user, "u");
    EXPECT_EQ(seen[0].auth3, "a3");
    EXPECT_FALSE(
        UpdateController::REPORT_TERMINATED(&handler, "x", XCode(XCode::SUCCESS), false, false));
}

}  // namespace
