#pragma once

#include <functional>

#include "platform/Monitor.h"

namespace Provctl {

// The three monitors of the simulated device, each writing every line to standard error as
// "<TAG> <level> <text>" (PROV, XFER, EVENT), lines of a multi-line text each with the tag.
// Construction points MON_PROV, MON_XFER and MON_EVENT at them; destruction points them back at
// null. One instance at a time, owned by the thread that runs the job; the monitors themselves
// are thread-safe.
class StderrMonitors {
  public:
    // Sees every line the monitors take, also those above the level written to standard error;
    // called on the logging thread (any thread), so it must be thread-safe and quick.
    using Observer = std::function<void(const String& tag, int level, const String& text)>;

    // Whether a line of the monitor `tag` at `level` is written to standard error.
    using Filter = std::function<bool(const String& tag, int level)>;

    // Lines up to `level` are written. With an observer the monitors take every line up to at
    // least the progress level 6, and those above `level` only reach the observer.
    explicit StderrMonitors(int level, Observer observer = nullptr);
    // The monitors take every line up to `enabledLevel` (at least 6 with an observer); those that
    // `written` accepts are written.
    StderrMonitors(int enabledLevel, Filter written, Observer observer);
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
