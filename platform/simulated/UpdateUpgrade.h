#pragma once

// One upgrade of the simulated update controller, from its source to its one termination.
// Private to the platform (not installed).

#include <memory>

#include "platform/String.h"
#include "platform/XCode.h"
#include "platform/simulated/UpdateSession.h"
#include "platform/simulated/UpdateSteps.h"
#include "platform/testing/UpdateControllerHooks.h"

namespace RTD {
class Monitor;
}

namespace UpdateController {

class Upgrade : public StepContext {
  public:
    // `eventMonitor`: where the script's commands log; the host keeps it until the controller's
    // workers have ended (UpdateController::WAIT_IDLE).
    Upgrade(std::shared_ptr<Session> session, Request request, RTD::Monitor* eventMonitor)
        : session_(std::move(session)), request_(std::move(request)), eventMonitor_(eventMonitor) {}

    // Runs on the upgrade's worker: every step, then the removal of its files, then the
    // termination (unless cancelled).
    void run();

    [[nodiscard]] XCode checkStop() const override;
    void progress(const String& text) override;

  private:
    [[nodiscard]] XCode fromArchive(const String& archive);
    [[nodiscard]] XCode fromUri(const String& uri);
    [[nodiscard]] XCode runScript(const String& script);
    [[nodiscard]] XCode writeImage(const String& imageFile, const String& version);

    std::shared_ptr<Session> session_;
    Request request_;
    RTD::Monitor* const eventMonitor_;
    WorkDirectory work_;
    String summary_;
    bool imageWritten_ = false;
};

}  // namespace UpdateController
