#include "platform/KtSemaphore.h"

KtSemaphore::KtSemaphore(int initial, int maximum, TimeSource /*source*/)
    : count_(initial), maximum_(maximum) {}

XCode KtSemaphore::wait() {
    std::unique_lock<std::mutex> lock(mutex_);
    available_.wait(lock, [this] { return count_ > 0; });
    --count_;
    return XCode(XCode::SUCCESS);
}

XCode KtSemaphore::signal() {
    {
        std::lock_guard<std::mutex> guard(mutex_);
        if (count_ >= maximum_) {
            return XCode::FAILURE("SEMAPHORE COUNT AT MAXIMUM");
        }
        ++count_;
    }
    available_.notify_one();
    return XCode(XCode::SUCCESS);
}
