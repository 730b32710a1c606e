#pragma once

#include <functional>

#include "platform/simulated/SimulatedUpdateController.h"

// Test hooks of the simulated update controller.
namespace UpdateController {

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
