#pragma once

#include "platform/StatusDb.h"

// The simulated device as its hosts (provctl) drive it: exported.
#pragma GCC visibility push(default)

// The simulated database keeps the provisioning status record in memory and mirrors the location
// into the device directory's "status/provisioning-location".
namespace DB {
namespace Table {

class SimulatedProvisioningStatus {
  public:
    // The record that lookups find, for the host that shows it.
    static Ptr<SystemProvisioningStatusRecord> RECORD();
};

}  // namespace Table
}  // namespace DB

#pragma GCC visibility pop
