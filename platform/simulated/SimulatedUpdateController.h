#pragma once

#include <chrono>
#include <cstddef>

#include "platform/UpdateController.h"

// The simulated device as its hosts (provctl) drive it: exported.
#pragma GCC visibility push(default)

// The simulated update controller works on the device directory: two image slots
// (slots/1, slots/2) and their state (slots/state, see SlotState.h).
//
// What it does with the source (the first of the two files; the second must be "flash:"):
// - "file:<archive>": a tar archive; every member is listed first and an archive with a member
//   whose name is absolute or holds a ".." component is refused. With a member "image" (or a
//   "manifest" that names an "image") it is firmware: "manifest" and "image" are extracted into
//   a private directory under /tmp/provisioning and the image is written to the inactive slot,
//   its version ("sw_type sw_version sw_build_num" of the manifest) recorded in slots/state.
//   Otherwise the "manifest" member is a script, run line by line through CmdExec::EXECUTE.
// - a tftp, http or https URI: fetched to a private file with the given credentials and HTTPS
//   settings; a manifest with an "image" key is firmware whose image is fetched from that key
//   (an absolute URI, or a name relative to the manifest's directory); anything else is a
//   script, run line by line.
// Termination: `first` tells that a slot was written, `second` that post-upgrade actions are
// needed (both true after an image was written, false after a script); errors say what failed
// ("IMAGE MISSING IN ARCHIVE", "CANNOT FETCH <uri>: ...", "SCRIPT FAILED AT LINE <n>: ...").
// Temporary files are removed on every path, before the termination is reported. The first progress
// report names the private work directory.
namespace UpdateController {

// Number of upgrades whose background work has not ended yet, cancelled ones included.
std::size_t RUNNING_UPGRADES();
// Waits until no background work runs and joins its workers; false when the timeout passed
// first. A cancelled upgrade ends after its current step (at most one command, which has the
// shell's deadline). Hosts call it before they tear down the monitors that scripts log on
// (MON_EVENT, as it was when the upgrade started).
bool WAIT_IDLE(std::chrono::milliseconds timeout);

}  // namespace UpdateController

#pragma GCC visibility pop
