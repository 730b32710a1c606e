#pragma once

#include "platform/StatusDb.h"

// Test hooks of the simulated status database.
namespace DB {
namespace Table {

class ProvisioningStatusHooks {
  public:
    // While unavailable, every lookup fails.
    static void SET_AVAILABLE(bool available);
    // A fresh record (empty location) and the database available again.
    static void RESET();
};

}  // namespace Table
}  // namespace DB
