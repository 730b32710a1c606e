// provctl's monitors outlive the update controller's workers: a cancelled upgrade still in a
// fetch ends before the event monitor it logs on is taken down.

#include "host/StderrMonitors.h"

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "engine/Monitors.h"
#include "platform/KtEventLoop.h"
#include "platform/Shell.h"
#include "platform/UpdateController.h"
#include "platform/posix/ShellControl.h"
#include "platform/simulated/DeviceDirectory.h"
#include "platform/simulated/SimulatedUpdateController.h"
#include "support/FixtureServer.h"
#include "support/TempDir.h"

namespace {

using namespace std::chrono_literals;

struct FetchWatcher : UpdateController::CallbackHandler {
    void onUpgradeProgressUpdate(const String& text) override {
        fetching = fetching || text.startsWith("fetching ");
    }
    void onUpgradeTerminated(const String&, XCode, bool, bool) override {}
    bool fetching = false;
};

class StderrMonitorsTest : public ::testing::Test {
  protected:
    void SetUp() override {
        Device::SET_ROOT(device.path().c_str());
        ASSERT_TRUE(Device::PREPARE().isSuccess());
        // The fetch below is ended by the deadline, not by the server.
        Kt::ShellControl::SET_COMMAND_DEADLINE(3s);
    }
    void TearDown() override {
        Kt::ShellControl::SET_COMMAND_DEADLINE(Kt::ShellControl::DEFAULT_COMMAND_DEADLINE);
        EXPECT_TRUE(UpdateController::WAIT_IDLE(20s));
    }

    provtest::TempDir device{"prov-monitors-dev"};
    KtEventLoop loop;
};

TEST_F(StderrMonitorsTest, goingAwayWaitsForTheControllersWorkers) {
    provtest::FixtureServer server;
    // A manifest that takes far longer than the deadline to arrive.
    server.route("/slow.manifest",
                 {provtest::FixtureResponse::slow(std::string(4096, '#'), 1, 500)});
    ASSERT_TRUE(server.start());
    FetchWatcher handler;
    auto monitors = std::make_unique<Provctl::StderrMonitors>(0);
    XCode started;
    loop.post([&] {
        std::vector<String> files{server.url("/slow.manifest").c_str(), "flash:"};
        String output;
        started = UpdateController::PERFORM_UPGRADE_IMAGE_JOB("update", files, "", output,
                                                              "Provisioning", &handler);
    });
    loop.runPending();
    ASSERT_TRUE(started.isSuccess()) << started.toString().c_str();
    ASSERT_TRUE(loop.runUntil([&handler] { return handler.fetching; }, 20s));
    // The job that asked for it is gone: the worker stops after the fetch it is in.
    UpdateController::CANCEL(&handler);
    ASSERT_EQ(UpdateController::RUNNING_UPGRADES(), 1u);
    monitors.reset();
    EXPECT_EQ(UpdateController::RUNNING_UPGRADES(), 0u);
    EXPECT_EQ(MON_EVENT, nullptr);
}

}  // namespace
