#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <vector>

#include "platform/String.h"
#include "platform/XCode.h"

// The device's update controller, simulated on the device directory: two image slots
// (slots/1, slots/2) and their state (slots/state, see SlotState.h). It works in the background
// and reports on the event loop of the thread that started the upgrade (KtEventLoop::current()):
// any number of progress reports, then exactly one termination.
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

class CallbackHandler {
  public:
    virtual ~CallbackHandler() = default;
    virtual void onUpgradeProgressUpdate(const String& text) = 0;
    virtual void onUpgradeTerminated(const String& text, XCode result, bool first, bool second) = 0;
};

// `files`: the source ("file:/tmp/provisioning/x" for a tar archive holding "manifest" and maybe
// "image"), then the destination ("flash:"). Refused at once (nothing runs, nothing is reported):
// an action other than "update", not exactly two files, a destination other than "flash:", a
// null handler, a handler with an upgrade still running, a source that is neither "file:" nor a
// tftp, http or https URI, or a caller without a running event loop. `output` gets one line
// about what was started.
[[nodiscard]] XCode PERFORM_UPGRADE_IMAGE_JOB(const String& action, std::vector<String>& files,
                                              const String& arg3, String& output,
                                              const String& caller, CallbackHandler* handler);
// The same for a manifest (or script) that the controller fetches itself from a tftp, http or
// https URI, with these credentials and HTTPS settings.
[[nodiscard]] XCode PERFORM_UPGRADE_IMAGE_JOB(const String& action, std::vector<String>& files,
                                              const String& arg3, const String& user,
                                              const String& password, const String& auth1,
                                              const String& auth2, const String& auth3,
                                              String& output, const String& caller,
                                              CallbackHandler* handler);
// Forgets the handler: when this returns, no report reaches it any more, queued ones included,
// and the background work stops at its next step. Call it from the handler's destructor; it may
// be called from inside a report to that handler.
void CANCEL(CallbackHandler* handler);

// ---- For hosts and tests ----

// One PERFORM_UPGRADE_IMAGE_JOB call as the caller made it.
struct Request {
    String action;
    std::vector<String> files;
    String arg3;
    String user;
    String password;
    String auth1;
    String auth2;
    String auth3;
    String caller;
    bool withCredentials = false;  // the long form
    CallbackHandler* handler = nullptr;
};

// Test hook: a set interceptor takes every later call instead of the simulated controller, after
// the check for the caller's event loop and before any other check. Its error is the call's
// result (the upgrade "refuses to start"); its success makes the handler's upgrade run until the
// test ends it with REPORT_TERMINATED. An empty function restores the simulation.
using Interceptor = std::function<XCode(const Request& request)>;
void SET_INTERCEPTOR(Interceptor interceptor);
// Reports for the upgrade running for `handler`, from any thread, delivered on the handler's
// loop like the controller's own. False when no upgrade runs for it, or (termination) when its
// termination was already reported.
bool REPORT_PROGRESS(CallbackHandler* handler, const String& text);
bool REPORT_TERMINATED(CallbackHandler* handler, const String& text, XCode result, bool first,
                       bool second);

// Number of upgrades whose background work has not ended yet, cancelled ones included.
std::size_t RUNNING_UPGRADES();
// Waits until no background work runs and joins its workers; false when the timeout passed
// first. A cancelled upgrade ends after its current step (at most one command, which has the
// shell's deadline). Hosts call it before they tear down the monitors that scripts log on
// (MON_EVENT, as it was when the upgrade started).
bool WAIT_IDLE(std::chrono::milliseconds timeout);

}  // namespace UpdateController
