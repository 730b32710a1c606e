#pragma once

#include <utility>
#include <vector>

#include "platform/Cli.h"
#include "platform/String.h"
#include "platform/simulated/SimulatedCmdExec.h"

namespace provtest {

// The simulated running system refuses the commands that match `patterns` while this object
// lives, and none after: a test that fails half-way leaves no pattern to the next one.
class RejectedCommands {
  public:
    explicit RejectedCommands(std::vector<String> patterns) {
        CmdExec::SET_REJECTED_COMMANDS(std::move(patterns));
    }
    ~RejectedCommands() { CmdExec::SET_REJECTED_COMMANDS({}); }
    RejectedCommands(const RejectedCommands&) = delete;
    RejectedCommands& operator=(const RejectedCommands&) = delete;
};

}  // namespace provtest
