#include "host/StderrMonitors.h"

#include <algorithm>
#include <utility>

#include "engine/Monitors.h"
#include "host/Progress.h"
#include "platform/Shell.h"
#include "platform/UpdateController.h"
#include "platform/posix/ShellControl.h"
#include "platform/simulated/SimulatedUpdateController.h"

namespace Provctl {

namespace {

// Beyond a command's deadline: the end of the step around it.
constexpr std::chrono::minutes GRACE{1};

RTD::Monitor::Sink makeSink(const StderrMonitors::Filter& written,
                            const StderrMonitors::Observer& observer) {
    return [written, observer](const RTD::Monitor& monitor, int lineLevel, const String& line) {
        if (observer) {
            observer(monitor.getName(), lineLevel, line);
        }
        if (written(monitor.getName(), lineLevel)) {
            Stderr::WRITE(StderrMonitors::FORMAT(monitor.getName(), lineLevel, line));
        }
    };
}

StderrMonitors::Filter upTo(int level) {
    return [level](const String&, int lineLevel) { return lineLevel <= level; };
}

int enabledLevel(int level, const StderrMonitors::Observer& observer) {
    return observer ? std::max(level, static_cast<int>(ProvLog::LEVEL_PROGRESS)) : level;
}

}  // namespace

StderrMonitors::StderrMonitors(int level, Observer observer)
    : StderrMonitors(level, upTo(level), std::move(observer)) {}

StderrMonitors::StderrMonitors(int level, Filter written, Observer observer)
    : prov_("PROV", enabledLevel(level, observer), makeSink(written, observer)),
      xfer_("XFER", enabledLevel(level, observer), makeSink(written, observer)),
      event_("EVENT", enabledLevel(level, observer), makeSink(written, observer)) {
    MON_PROV = &prov_;
    MON_XFER = &xfer_;
    MON_EVENT = &event_;
}

StderrMonitors::~StderrMonitors() {
    // The update controller's workers log on the event monitor: they end before it goes. A
    // cancelled upgrade ends after its current step, which the shell's deadline bounds.
    static_cast<void>(UpdateController::WAIT_IDLE(Kt::ShellControl::COMMAND_DEADLINE() + GRACE));
    MON_PROV = nullptr;
    MON_XFER = nullptr;
    MON_EVENT = nullptr;
}

String StderrMonitors::FORMAT(const String& tag, int level, const String& text) {
    String body = text;
    while (body.endsWith("\n")) {
        body.deleteRegion(body.length() - 1, 1);
    }
    String out;
    for (const String& line : body.split('\n')) {
        out.concatf("%s %d %s\n", tag.c_str(), level, line.c_str());
    }
    return out;
}

}  // namespace Provctl
