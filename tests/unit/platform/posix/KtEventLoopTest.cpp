#include "platform/KtEventLoop.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <thread>
#include <vector>

namespace {

// Long enough never to matter on a loaded machine; a lost event fails instead of hanging.
constexpr std::chrono::milliseconds DEADLINE = std::chrono::seconds(30);

TEST(KtEventLoopTest, runsPostedEventsInOrder) {
    KtEventLoop loop;
    std::vector<int> order;
    for (int i = 0; i < 5; ++i) {
        loop.post([&order, i] { order.push_back(i); });
    }
    EXPECT_EQ(loop.pendingEvents(), 5u);
    ASSERT_TRUE(loop.runUntil([&] { return order.size() == 5; }, DEADLINE));
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3, 4}));
    EXPECT_EQ(loop.pendingEvents(), 0u);
}

TEST(KtEventLoopTest, postsFromOtherThreadsRunOnLoopThreadInEachThreadsOrder) {
    KtEventLoop loop;
    constexpr int THREADS = 4;
    constexpr int EVENTS = 500;
    const std::thread::id loopThread = std::this_thread::get_id();
    std::vector<std::vector<int>> received(THREADS);
    int total = 0;
    bool allOnLoopThread = true;
    std::vector<std::thread> posters;
    for (int t = 0; t < THREADS; ++t) {
        posters.emplace_back([&, t] {
            for (int i = 0; i < EVENTS; ++i) {
                loop.post([&, t, i] {
                    received[static_cast<std::size_t>(t)].push_back(i);
                    allOnLoopThread = allOnLoopThread && std::this_thread::get_id() == loopThread;
                    ++total;
                });
            }
        });
    }
    bool finished = loop.runUntil([&] { return total == THREADS * EVENTS; }, DEADLINE);
    for (auto& poster : posters) {
        poster.join();
    }
    ASSERT_TRUE(finished);
    EXPECT_TRUE(allOnLoopThread);
    for (const auto& fromOne : received) {
        ASSERT_EQ(fromOne.size(), static_cast<std::size_t>(EVENTS));
        for (int i = 0; i < EVENTS; ++i) {
            EXPECT_EQ(fromOne[static_cast<std::size_t>(i)], i);
        }
    }
}

TEST(KtEventLoopTest, stopFromAnotherThreadEndsRun) {
    KtEventLoop loop;
    std::promise<void> running;
    std::thread stopper([&loop, future = running.get_future()] {
        future.wait();
        loop.stop();
    });
    // stop() arrives while run() executes this event or waits for the next: either way it returns.
    loop.post([&running] { running.set_value(); });
    loop.run();
    stopper.join();
    EXPECT_EQ(loop.pendingEvents(), 0u);
}

TEST(KtEventLoopTest, stopReturnsAfterTheEventInProgress) {
    KtEventLoop loop;
    int ran = 0;
    loop.post([&] {
        ++ran;
        loop.stop();
    });
    loop.post([&] { ++ran; });
    loop.run();
    EXPECT_EQ(ran, 1);
    EXPECT_EQ(loop.pendingEvents(), 1u);
}

TEST(KtEventLoopTest, stopBeforeRunReturnsAtOnceAndLoopRunsAgainLater) {
    KtEventLoop loop;
    int ran = 0;
    loop.post([&] { ++ran; });
    loop.stop();
    loop.run();
    EXPECT_EQ(ran, 0);
    loop.post([&] { loop.stop(); });
    loop.run();
    EXPECT_EQ(ran, 1);
}

TEST(KtEventLoopTest, runUntilTimesOutWithoutEvents) {
    KtEventLoop loop;
    EXPECT_FALSE(loop.runUntil([] { return false; }, std::chrono::milliseconds(20)));
}

TEST(KtEventLoopTest, runUntilTimesOutWhileEventsKeepComing) {
    KtEventLoop loop;
    std::function<void()> again;
    int ran = 0;
    again = [&] {
        ++ran;
        loop.post(again);
    };
    loop.post(again);
    EXPECT_FALSE(loop.runUntil([] { return false; }, std::chrono::milliseconds(20)));
    EXPECT_GT(ran, 0);
}

TEST(KtEventLoopTest, runUntilChecksPredicateOnceMoreAtDeadline) {
    KtEventLoop loop;
    int checks = 0;
    // False at the first check; nothing is posted, so only the check at the deadline sees true.
    EXPECT_TRUE(loop.runUntil([&] { return checks++ > 0; }, std::chrono::milliseconds(20)));
    EXPECT_EQ(checks, 2);
}

TEST(KtEventLoopTest, runUntilChecksPredicateAfterEachEvent) {
    KtEventLoop loop;
    int count = 0;
    for (int i = 0; i < 3; ++i) {
        loop.post([&] { ++count; });
    }
    ASSERT_TRUE(loop.runUntil([&] { return count == 2; }, DEADLINE));
    EXPECT_EQ(count, 2);
    EXPECT_EQ(loop.pendingEvents(), 1u);
}

TEST(KtEventLoopTest, runUntilChecksPredicateBeforeFirstEvent) {
    KtEventLoop loop;
    int count = 0;
    loop.post([&] { ++count; });
    EXPECT_TRUE(loop.runUntil([] { return true; }, DEADLINE));
    EXPECT_EQ(count, 0);
    EXPECT_EQ(loop.pendingEvents(), 1u);
}

TEST(KtEventLoopTest, runUntilWakesForEventPostedFromAnotherThread) {
    KtEventLoop loop;
    bool delivered = false;
    std::thread poster([&] { loop.post([&] { delivered = true; }); });
    bool finished = loop.runUntil([&] { return delivered; }, DEADLINE);
    poster.join();
    EXPECT_TRUE(finished);
}

TEST(KtEventLoopTest, runUntilIgnoresStop) {
    KtEventLoop loop;
    int count = 0;
    loop.post([&] {
        loop.stop();
        ++count;
    });
    loop.post([&] { ++count; });
    EXPECT_TRUE(loop.runUntil([&] { return count == 2; }, DEADLINE));
}

TEST(KtEventLoopTest, runPendingRunsOnlyEventsAlreadyQueued) {
    KtEventLoop loop;
    int count = 0;
    loop.post([&] {
        ++count;
        loop.post([&] { ++count; });
    });
    loop.post([&] { ++count; });
    loop.runPending();
    EXPECT_EQ(count, 2);
    EXPECT_EQ(loop.pendingEvents(), 1u);
    loop.runPending();
    EXPECT_EQ(count, 3);
    loop.runPending();
    EXPECT_EQ(count, 3);
}

TEST(KtEventLoopTest, currentIsTheLoopRunningOnThisThread) {
    KtEventLoop loop;
    EXPECT_EQ(KtEventLoop::current(), nullptr);
    std::vector<KtEventLoop*> seen;
    loop.post([&] { seen.push_back(KtEventLoop::current()); });
    loop.runPending();
    loop.post([&] { seen.push_back(KtEventLoop::current()); });
    ASSERT_TRUE(loop.runUntil([&] { return seen.size() == 2; }, DEADLINE));
    loop.post([&] {
        seen.push_back(KtEventLoop::current());
        loop.stop();
    });
    loop.run();
    EXPECT_EQ(seen, (std::vector<KtEventLoop*>{&loop, &loop, &loop}));
    EXPECT_EQ(KtEventLoop::current(), nullptr);
}

TEST(KtEventLoopTest, currentIsNullOnOtherThreads) {
    KtEventLoop loop;
    KtEventLoop* onOtherThread = &loop;
    loop.post([&] {
        std::thread other([&] { onOtherThread = KtEventLoop::current(); });
        other.join();
    });
    loop.runPending();
    EXPECT_EQ(onOtherThread, nullptr);
}

TEST(KtEventLoopTest, currentFollowsNestedLoops) {
    KtEventLoop outer;
    KtEventLoop inner;
    std::vector<KtEventLoop*> seen;
    inner.post([&] { seen.push_back(KtEventLoop::current()); });
    outer.post([&] {
        inner.runPending();
        seen.push_back(KtEventLoop::current());
    });
    outer.runPending();
    EXPECT_EQ(seen, (std::vector<KtEventLoop*>{&inner, &outer}));
}

TEST(KtEventLoopTest, eventsRunUnderTheLoopLock) {
    KtEventLoop loop;
    bool lockedByOtherThread = true;
    loop.post([&] {
        std::thread other([&] {
            lockedByOtherThread = loop.lock().try_lock();
            if (lockedByOtherThread) {
                loop.lock().unlock();
            }
        });
        other.join();
    });
    loop.runPending();
    EXPECT_FALSE(lockedByOtherThread);
    // Between events the lock is free.
    ASSERT_TRUE(loop.lock().try_lock());
    loop.lock().unlock();
}

TEST(KtEventLoopTest, eventIsReleasedBeforeNextEventIsTaken) {
    // What an event captured is destroyed once it ran; a destructor may post to the same loop.
    KtEventLoop loop;
    struct PostOnDestruction {
        PostOnDestruction(KtEventLoop* l, int* p) : loop(l), posted(p) {}
        PostOnDestruction(const PostOnDestruction&) = delete;
        PostOnDestruction& operator=(const PostOnDestruction&) = delete;
        KtEventLoop* loop;
        int* posted;
        ~PostOnDestruction() {
            loop->post([] {});
            ++*posted;
        }
    };
    int posted = 0;
    auto state = std::make_shared<PostOnDestruction>(&loop, &posted);
    loop.post([state] {});
    state.reset();
    loop.runPending();
    EXPECT_EQ(posted, 1);
    EXPECT_EQ(loop.pendingEvents(), 1u);
}

TEST(KtEventLoopTest, destroyingLoopDropsQueuedEvents) {
    auto captured = std::make_shared<int>(0);
    {
        KtEventLoop loop;
        loop.post([captured] { ++*captured; });
        EXPECT_EQ(captured.use_count(), 2);
    }
    EXPECT_EQ(captured.use_count(), 1);
    EXPECT_EQ(*captured, 0);
}

}  // namespace
