#include "platform/KtEventLoop.h"

namespace {
thread_local KtEventLoop* t_currentLoop = nullptr;

class CurrentLoopScope {
  public:
    explicit CurrentLoopScope(KtEventLoop* loop) : previous_(t_currentLoop) {
        t_currentLoop = loop;
    }
    ~CurrentLoopScope() { t_currentLoop = previous_; }
    CurrentLoopScope(const CurrentLoopScope&) = delete;
    CurrentLoopScope& operator=(const CurrentLoopScope&) = delete;

  private:
    KtEventLoop* previous_;
};
}  // namespace

KtEventLoop::~KtEventLoop() = default;

KtEventLoop* KtEventLoop::current() {
    return t_currentLoop;
}

void KtEventLoop::post(Event event) {
    {
        std::lock_guard<std::mutex> guard(queueMutex_);
        queue_.push_back(std::move(event));
    }
    wakeUp_.notify_one();
}

void KtEventLoop::stop() {
    {
        std::lock_guard<std::mutex> guard(queueMutex_);
        stopped_ = true;
    }
    wakeUp_.notify_all();
}

std::size_t KtEventLoop::pendingEvents() const {
    std::lock_guard<std::mutex> guard(queueMutex_);
    return queue_.size();
}

bool KtEventLoop::runOne(std::unique_lock<std::mutex>& queueLock) {
    if (queue_.empty()) {
        return false;
    }
    Event event = std::move(queue_.front());
    queue_.pop_front();
    queueLock.unlock();
    {
        std::lock_guard<std::recursive_mutex> guard(eventLock_);
        event();
    }
    // Released before the queue is locked again: what the event captured may post on destruction.
    event = nullptr;
    queueLock.lock();
    return true;
}

void KtEventLoop::run() {
    CurrentLoopScope scope(this);
    std::unique_lock<std::mutex> queueLock(queueMutex_);
    while (!stopped_) {
        if (!runOne(queueLock)) {
            wakeUp_.wait(queueLock, [this] { return stopped_ || !queue_.empty(); });
        }
    }
    stopped_ = false;
}

bool KtEventLoop::runUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
    CurrentLoopScope scope(this);
    auto deadline = std::chrono::steady_clock::now() + timeout;
    std::unique_lock<std::mutex> queueLock(queueMutex_);
    while (true) {
        queueLock.unlock();
        bool finished = done();
        queueLock.lock();
        if (finished) {
            return true;
        }
        if (runOne(queueLock)) {
            // A loop that never runs dry still ends at the deadline.
            if (std::chrono::steady_clock::now() >= deadline) {
                queueLock.unlock();
                return done();
            }
        } else if (!wakeUp_.wait_until(queueLock, deadline, [this] { return !queue_.empty(); })) {
            queueLock.unlock();
            return done();
        }
    }
}

void KtEventLoop::runPending() {
    CurrentLoopScope scope(this);
    std::unique_lock<std::mutex> queueLock(queueMutex_);
    std::size_t count = queue_.size();
    while (count-- > 0 && runOne(queueLock)) {
    }
}
