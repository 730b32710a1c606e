#pragma once

#include "platform/Monitor.h"

namespace Provctl {

// The three monitors of the simulated device, each writing every line to standard error as
// "<TAG> <level> <text>" (PROV, XFER, EVENT), lines of a multi-line text each with the tag.
// Construction points MON_PROV, MON_XFER and MON_EVENT at them; destruction points them back at
// null. One instance at a time, owned by the thread that runs the job; the monitors themselves
// are thread-safe.
class StderrMonitors {
  public:
    explicit StderrMonitors(int level);
    ~StderrMonitors();
    StderrMonitors(const StderrMonitors&) = delete;
    StderrMonitors& operator=(const StderrMonitors&) = delete;

    // Writes `text` as the monitor `tag` would (for tests of the format).
    static String FORMAT(const String& tag, int level, const String& text);

  private:
    RTD::Monitor prov_;
    RTD::Monitor xfer_;
    RTD::Monitor event_;
};

}  // namespace Provctl
