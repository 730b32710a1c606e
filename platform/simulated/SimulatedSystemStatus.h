#pragma once

#include <map>
#include <mutex>

#include "platform/SystemStatus.h"

// The simulated device as its hosts (provctl) drive it: exported.
#pragma GCC visibility push(default)

// The system-status interface of the simulated device: a busy flag per subsystem, kept in memory
// and mirrored to <root>/status/subsystem-<n> as "busy" or "idle" (no mirror while no device
// directory is set). Thread-safe.
class SimulatedSystemStatus : public ISystemStatus {
  public:
    // Records the flag; an error only when the mirror file cannot be written (the flag in memory
    // is set all the same).
    XCode setSubsystemBusy(unsigned int subsystem, bool busy) override;
    // False for a subsystem that was never set.
    bool isBusy(unsigned int subsystem) const;
    // How often the flag of `subsystem` was set, busy or idle.
    unsigned int changes(unsigned int subsystem) const;

  private:
    mutable std::mutex mutex_;
    std::map<unsigned int, bool> busy_;
    std::map<unsigned int, unsigned int> changes_;
};

#pragma GCC visibility pop
