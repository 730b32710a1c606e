#pragma once

#include <vector>

#include "String.h"
#include "XCode.h"

// The device's update controller, simulated on the device directory: two image slots
// (slots/1, slots/2) and their state (slots/state). It works in the background and reports on
// the event loop of the thread that started the upgrade (KtEventLoop::current()), exactly once.
namespace UpdateController {

class CallbackHandler {
public:
    virtual ~CallbackHandler() = default;
    virtual void onUpgradeProgressUpdate(const String& text) = 0;
    virtual void onUpgradeTerminated(const String& text, XCode result, bool first,
                                     bool second) = 0;
};

// `files`: the source ("file:/tmp/provisioning/x" for a tar archive holding "manifest" and maybe
// "image"), then the destination ("flash:").
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
// Forgets the handler: an upgrade still running for it reports nothing (the job is gone).
void CANCEL(CallbackHandler* handler);

}  // namespace UpdateController
