#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>

// The device contract: every declaration below is part of the interface.
#pragma GCC visibility push(default)

// The loop a job runs on. The host calls run() on one thread; any thread may post(). Events run
// one at a time, in the order they were posted, with the loop's lock held (Kt::Function's sync
// delivery takes the same lock, so it never overlaps an event).
class KtEventLoop {
  public:
    using Event = std::function<void()>;

    KtEventLoop() = default;
    KtEventLoop(const KtEventLoop&) = delete;
    KtEventLoop& operator=(const KtEventLoop&) = delete;
    ~KtEventLoop();

    // Runs events until stop() is called. Returns at once if stop() came before.
    void run();
    // Runs events until `done` holds (checked after each event) or the deadline passes; false on
    // timeout. Used by hosts and tests that wait for one job.
    bool runUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout);
    // Runs the events already queued, then returns.
    void runPending();
    // Thread-safe: makes run() return after the event in progress.
    void stop();
    // Thread-safe: queues an event.
    void post(Event event);

    std::recursive_mutex& lock() { return eventLock_; }
    // The loop that is running on the calling thread, or null.
    static KtEventLoop* current();
    std::size_t pendingEvents() const;

  private:
    bool runOne(std::unique_lock<std::mutex>& queueLock);

    mutable std::mutex queueMutex_;
    std::condition_variable wakeUp_;
    std::deque<Event> queue_;
    bool stopped_ = false;
    std::recursive_mutex eventLock_;
};

#pragma GCC visibility pop
