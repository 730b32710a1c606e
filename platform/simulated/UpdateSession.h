#pragma once

// One upgrade's link to its handler, for the simulated update controller. Private to the
// platform (not installed).

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>

#include "platform/KtEventLoop.h"
#include "platform/KtFunction.h"
#include "platform/String.h"
#include "platform/UpdateController.h"
#include "platform/XCode.h"

namespace UpdateController {

// The background work posts reports through the session; they are delivered on the handler's
// loop. Cancelling stops every later post and delivery, and waits for a delivery under way on
// another thread.
class Session {
  public:
    // Called on the handler's loop just before the termination is delivered, so that the
    // handler may start another upgrade (or cancel) from inside the delivery.
    using Forget = std::function<void(const Session* session)>;

    static std::shared_ptr<Session> CREATE(CallbackHandler* handler, KtEventLoop& loop,
                                           Forget forget);

    CallbackHandler* handler() const { return handler_; }
    bool stopRequested() const { return stopRequested_.load(); }

    // Any thread. False once cancelled or terminated.
    bool postProgress(const String& text);
    bool postTerminated(const String& text, const XCode& result, bool first, bool second);
    // Any thread, also from inside a delivery to the handler.
    void cancel();

  private:
    Session(CallbackHandler* handler, Forget forget)
        : handler_(handler), forget_(std::move(forget)) {}
    void deliverProgress(const String& text);
    void deliverTerminated(const String& text, XCode result, bool first, bool second);

    CallbackHandler* const handler_;
    const Forget forget_;
    std::atomic<bool> stopRequested_{false};
    std::mutex postMutex_;
    bool cancelled_ = false;              // guarded by postMutex_
    bool terminationPosted_ = false;      // guarded by postMutex_
    std::recursive_mutex deliveryMutex_;  // held while a report runs
    bool silenced_ = false;               // guarded by deliveryMutex_
    Kt::Function<void(String)> progress_;
    Kt::Function<void(String, XCode, bool, bool)> terminated_;
};

}  // namespace UpdateController
