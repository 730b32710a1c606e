#pragma once

#include <vector>

#include "platform/String.h"
#include "platform/XCode.h"

// The device contract: every declaration below is part of the interface.
#pragma GCC visibility push(default)

// The device's update controller. It works in the background and reports on the event loop of
// the thread that started the upgrade (KtEventLoop::current()): any number of progress reports,
// then exactly one termination. Termination: `first` tells that a slot was written, `second` that
// post-upgrade actions are needed; an error says what failed.
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

}  // namespace UpdateController

#pragma GCC visibility pop
