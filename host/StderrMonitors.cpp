#include "host/StderrMonitors.h"

#include <cstdio>

#include "engine/Monitors.h"

namespace Provctl {

namespace {

void writeToStderr(const RTD::Monitor& monitor, int level, const String& line) {
    const String text = StderrMonitors::FORMAT(monitor.getName(), level, line);
    std::fwrite(text.data(), 1, static_cast<std::size_t>(text.length()), stderr);
    std::fflush(stderr);
}

}  // namespace

StderrMonitors::StderrMonitors(int level)
    : prov_("PROV", level, writeToStderr),
      xfer_("XFER", level, writeToStderr),
      event_("EVENT", level, writeToStderr) {
    MON_PROV = &prov_;
    MON_XFER = &xfer_;
    MON_EVENT = &event_;
}

StderrMonitors::~StderrMonitors() {
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
