#pragma once

#include <functional>
#include <vector>

#include "platform/String.h"
#include "platform/UpdateController.h"
#include "platform/XCode.h"

// Test hooks of the simulated update controller: taking its calls over, and reporting for an
// upgrade that a test runs.
namespace UpdateController {

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

}  // namespace UpdateController
