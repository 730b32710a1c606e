#include "platform/simulated/UpdateSession.h"

namespace UpdateController {

std::shared_ptr<Session> Session::CREATE(CallbackHandler* handler, KtEventLoop& loop,
                                         Forget forget) {
    std::shared_ptr<Session> session(new Session(handler, std::move(forget)));
    // The deliveries hold the session weakly: the registry keeps it until its termination has
    // been delivered or it was cancelled.
    std::weak_ptr<Session> weak = session;
    session->progress_ = Kt::Function<void(String)>(Kt::asyncCall(loop), [weak](String text) {
        if (std::shared_ptr<Session> self = weak.lock()) {
            self->deliverProgress(text);
        }
    });
    session->terminated_ = Kt::Function<void(String, XCode, bool, bool)>(
        Kt::asyncCall(loop), [weak](String text, XCode result, bool first, bool second) {
            if (std::shared_ptr<Session> self = weak.lock()) {
                self->deliverTerminated(text, result, first, second);
            }
        });
    return session;
}

bool Session::postProgress(const String& text) {
    std::lock_guard<std::mutex> lock(postMutex_);
    if (cancelled_ || terminationPosted_) {
        return false;
    }
    progress_(text);
    return true;
}

bool Session::postTerminated(const String& text, const XCode& result, bool first, bool second) {
    std::lock_guard<std::mutex> lock(postMutex_);
    if (cancelled_ || terminationPosted_) {
        return false;
    }
    terminationPosted_ = true;
    terminated_(text, result, first, second);
    return true;
}

void Session::cancel() {
    stopRequested_ = true;
    {
        std::lock_guard<std::mutex> lock(postMutex_);
        cancelled_ = true;
    }
    {
        // Waits for a report running on another thread; from inside a report (the handler
        // cancels while it is being called) the lock is already ours.
        std::lock_guard<std::recursive_mutex> lock(deliveryMutex_);
        silenced_ = true;
    }
    progress_.cancelPending();
    terminated_.cancelPending();
}

void Session::deliverProgress(const String& text) {
    std::lock_guard<std::recursive_mutex> lock(deliveryMutex_);
    if (!silenced_) {
        handler_->onUpgradeProgressUpdate(text);
    }
}

void Session::deliverTerminated(const String& text, XCode result, bool first, bool second) {
    std::lock_guard<std::recursive_mutex> lock(deliveryMutex_);
    if (silenced_) {
        return;
    }
    silenced_ = true;
    // Unregistered before the call: the handler may destroy itself (and cancel) inside it, or
    // start another upgrade.
    forget_(this);
    handler_->onUpgradeTerminated(text, result, first, second);
}

}  // namespace UpdateController
