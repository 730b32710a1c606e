#include "platform/KtFunction.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <future>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/String.h"
#include "platform/XCode.h"

namespace {

constexpr std::chrono::milliseconds DEADLINE = std::chrono::seconds(30);

// True when another thread cannot take the loop's lock right now.
bool loopLockHeldElsewhere(KtEventLoop& loop) {
    bool taken = false;
    std::thread other([&] {
        taken = loop.lock().try_lock();
        if (taken) {
            loop.lock().unlock();
        }
    });
    other.join();
    return !taken;
}

// --- empty functions ---------------------------------------------------------------------------

TEST(KtFunctionTest, defaultFunctionIsEmptyAndCallsNothing) {
    Kt::Function<void(XCode)> function;
    EXPECT_FALSE(function);
    function(XCode(-1));
    function.setDontCancelOnDestruction(true);
    function.cancelPending();
}

// --- direct ------------------------------------------------------------------------------------

TEST(KtFunctionTest, directRunsAtOnceOnCallersThread) {
    std::thread::id ranOn;
    String received;
    Kt::Function<void(String)> function(Kt::directCall(), [&](String text) {
        ranOn = std::this_thread::get_id();
        received = text;
    });
    EXPECT_TRUE(function);
    std::thread caller([&] {
        function("line");
        EXPECT_EQ(ranOn, std::this_thread::get_id());
        EXPECT_EQ(received, String("line"));
    });
    caller.join();
    EXPECT_NE(ranOn, std::this_thread::get_id());
}

TEST(KtFunctionTest, directTakesNoLock) {
    KtEventLoop loop;
    bool held = true;
    Kt::Function<void(XCode)> function(Kt::directCall(),
                                       [&](XCode) { held = loopLockHeldElsewhere(loop); });
    function(XCode());
    EXPECT_FALSE(held);
}

// --- sync --------------------------------------------------------------------------------------

TEST(KtFunctionTest, syncRunsAtOnceOnCallersThread) {
    KtEventLoop loop;
    std::thread::id ranOn;
    XCode received;
    Kt::Function<void(XCode)> function(Kt::syncCall(loop), [&](XCode code) {
        ranOn = std::this_thread::get_id();
        received = code;
    });
    function(XCode(-1));
    EXPECT_EQ(ranOn, std::this_thread::get_id());
    EXPECT_EQ(received.getValue(), 0x7FFFFFFFu);
    EXPECT_EQ(loop.pendingEvents(), 0u);
}

TEST(KtFunctionTest, syncRunsUnderTheLoopLock) {
    KtEventLoop loop;
    bool held = false;
    Kt::Function<void(XCode)> function(Kt::syncCall(loop),
                                       [&](XCode) { held = loopLockHeldElsewhere(loop); });
    function(XCode());
    EXPECT_TRUE(held);
    EXPECT_FALSE(loopLockHeldElsewhere(loop));
}

TEST(KtFunctionTest, syncDoesNotOverlapAnEventOnTheLoopThread) {
    KtEventLoop loop;
    std::atomic<bool> inEvent{false};
    std::atomic<bool> sawEvent{true};
    std::mutex mutex;
    std::condition_variable changed;
    bool calling = false;
    bool targetRan = false;
    bool eventDone = false;

    Kt::Function<void(XCode)> function(Kt::syncCall(loop), [&](XCode) {
        sawEvent = inEvent.load();
        std::lock_guard<std::mutex> guard(mutex);
        targetRan = true;
        changed.notify_all();
    });
    std::promise<void> eventStarted;
    std::thread caller([&, started = eventStarted.get_future()] {
        started.wait();
        {
            std::lock_guard<std::mutex> guard(mutex);
            calling = true;
            changed.notify_all();
        }
        function(XCode());
    });
    loop.post([&] {
        inEvent = true;
        eventStarted.set_value();
        std::unique_lock<std::mutex> lock(mutex);
        changed.wait(lock, [&] { return calling; });
        // A window in which a sync call that ignored the loop's lock would run; a correct one
        // waits for this event to end.
        changed.wait_for(lock, std::chrono::milliseconds(50), [&] { return targetRan; });
        inEvent = false;
        eventDone = true;
    });
    loop.runPending();
    caller.join();
    EXPECT_TRUE(eventDone);
    EXPECT_TRUE(targetRan);
    EXPECT_FALSE(sawEvent);
}

TEST(KtFunctionTest, syncFromAnEventOnTheSameLoopRunsAtOnce) {
    KtEventLoop loop;
    std::vector<int> order;
    Kt::Function<void(XCode)> function(Kt::syncCall(loop), [&](XCode) { order.push_back(2); });
    loop.post([&] {
        order.push_back(1);
        function(XCode());
        order.push_back(3);
    });
    loop.runPending();
    EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
}

// --- async -------------------------------------------------------------------------------------

TEST(KtFunctionTest, asyncRunsLaterOnTheLoopThread) {
    KtEventLoop loop;
    std::thread::id ranOn;
    bool ran = false;
    Kt::Function<void(XCode)> function(Kt::asyncCall(loop), [&](XCode) {
        ranOn = std::this_thread::get_id();
        ran = true;
    });
    std::thread caller([&] { function(XCode()); });
    caller.join();
    EXPECT_FALSE(ran);
    EXPECT_EQ(loop.pendingEvents(), 1u);
    ASSERT_TRUE(loop.runUntil([&] { return ran; }, DEADLINE));
    EXPECT_EQ(ranOn, std::this_thread::get_id());
}

TEST(KtFunctionTest, asyncFromAnEventRunsAfterIt) {
    KtEventLoop loop;
    std::vector<int> order;
    Kt::Function<void(XCode)> function(Kt::asyncCall(loop), [&](XCode) { order.push_back(3); });
    loop.post([&] {
        order.push_back(1);
        function(XCode());
        order.push_back(2);
    });
    ASSERT_TRUE(loop.runUntil([&] { return order.size() == 3; }, DEADLINE));
    EXPECT_EQ(order, (std::vector<int>{1, 2, 3}));
}

TEST(KtFunctionTest, asyncDeliversInOrderFromAnotherThread) {
    KtEventLoop loop;
    constexpr int CALLS = 1000;
    std::vector<unsigned> received;
    Kt::Function<void(XCode)> function(Kt::asyncCall(loop),
                                       [&](XCode code) { received.push_back(code.getValue()); });
    std::thread worker([function] {
        for (int i = 0; i < CALLS; ++i) {
            function(XCode(i));
        }
    });
    bool finished = loop.runUntil([&] { return received.size() == CALLS; }, DEADLINE);
    worker.join();
    ASSERT_TRUE(finished);
    for (int i = 0; i < CALLS; ++i) {
        EXPECT_EQ(received[static_cast<std::size_t>(i)], static_cast<unsigned>(i));
    }
}

TEST(KtFunctionTest, asyncKeepsCodeAndMessageOfEachDelivery) {
    KtEventLoop loop;
    std::vector<std::pair<XCode, String>> received;
    Kt::Function<void(XCode, String)> function(
        Kt::asyncCall(loop), [&](XCode code, String text) { received.emplace_back(code, text); });
    XCode failed(-1);
    failed.setString("EXITED WITH STATUS 1");
    String line = "first line";
    function(failed, line);
    failed.setString("CHANGED AFTER CALL");
    line = "changed";
    function(XCode(), "second line");
    loop.runPending();
    ASSERT_EQ(received.size(), 2u);
    EXPECT_EQ(received[0].first.getValue(), 0x7FFFFFFFu);
    EXPECT_EQ(received[0].first.getString(), String("EXITED WITH STATUS 1"));
    EXPECT_EQ(received[0].second, String("first line"));
    EXPECT_TRUE(received[1].first.isSuccess());
    EXPECT_EQ(received[1].second, String("second line"));
}

TEST(KtFunctionTest, asyncDeliveriesOfTwoFunctionsInterleaveInCallOrder) {
    KtEventLoop loop;
    std::vector<String> order;
    Kt::Function<void(String)> output(Kt::asyncCall(loop),
                                      [&](String line) { order.push_back("out:" + line); });
    Kt::Function<void(XCode)> result(Kt::asyncCall(loop),
                                     [&](XCode) { order.push_back("result"); });
    output("a");
    output("b");
    result(XCode());
    loop.runPending();
    EXPECT_EQ(order, (std::vector<String>{"out:a", "out:b", "result"}));
}

// --- cancel on destruction ---------------------------------------------------------------------

TEST(KtFunctionTest, destroyingTheLastHandleCancelsQueuedDeliveries) {
    KtEventLoop loop;
    int delivered = 0;
    auto function = std::make_unique<Kt::Function<void(XCode)>>(Kt::asyncCall(loop),
                                                                [&](XCode) { ++delivered; });
    (*function)(XCode());
    (*function)(XCode());
    function.reset();
    loop.runPending();
    EXPECT_EQ(delivered, 0);
}

TEST(KtFunctionTest, destroyingOneOfTwoHandlesKeepsDeliveries) {
    KtEventLoop loop;
    int delivered = 0;
    auto function = std::make_unique<Kt::Function<void(XCode)>>(Kt::asyncCall(loop),
                                                                [&](XCode) { ++delivered; });
    Kt::Function<void(XCode)> copy = *function;
    (*function)(XCode());
    function.reset();
    loop.runPending();
    EXPECT_EQ(delivered, 1);
}

TEST(KtFunctionTest, destroyingLastHandleInsideADeliveryCancelsTheRest) {
    KtEventLoop loop;
    std::vector<unsigned> delivered;
    std::unique_ptr<Kt::Function<void(XCode)>> function;
    function = std::make_unique<Kt::Function<void(XCode)>>(Kt::asyncCall(loop), [&](XCode code) {
        delivered.push_back(code.getValue());
        function.reset();
    });
    (*function)(XCode(1));
    (*function)(XCode(2));
    (*function)(XCode(3));
    loop.runPending();
    EXPECT_EQ(delivered, std::vector<unsigned>{1});
}

TEST(KtFunctionTest, releasingQueuedDeliveriesReleasesTheTarget) {
    KtEventLoop loop;
    auto owned = std::make_shared<int>(0);
    auto function = std::make_unique<Kt::Function<void(XCode)>>(Kt::asyncCall(loop),
                                                                [owned](XCode) { ++*owned; });
    (*function)(XCode());
    function.reset();
    loop.runPending();
    EXPECT_EQ(*owned, 0);
    EXPECT_EQ(owned.use_count(), 1);
}

TEST(KtFunctionTest, dontCancelOnDestructionKeepsQueuedDeliveries) {
    KtEventLoop loop;
    auto owned = std::make_shared<int>(0);
    std::vector<unsigned> delivered;
    auto function = std::make_unique<Kt::Function<void(XCode)>>(
        Kt::asyncCall(loop), [&delivered, owned](XCode code) {
            delivered.push_back(code.getValue());
            ++*owned;
        });
    function->setDontCancelOnDestruction(true);
    (*function)(XCode(1));
    (*function)(XCode(2));
    function.reset();
    loop.runPending();
    EXPECT_EQ(delivered, (std::vector<unsigned>{1, 2}));
    // Once delivered, nothing holds the target any more.
    EXPECT_EQ(owned.use_count(), 1);
}

TEST(KtFunctionTest, dontCancelFromBackgroundThreadAfterOwnerDropsHandle) {
    // The shell's pattern: the caller keeps no handle, the background thread delivers its result
    // and drops its copy; the result still arrives.
    KtEventLoop loop;
    bool delivered = false;
    std::thread worker;
    {
        Kt::Function<void(XCode)> function(Kt::asyncCall(loop), [&](XCode) { delivered = true; });
        function.setDontCancelOnDestruction(true);
        worker = std::thread([function]() mutable {
            function(XCode());
            function = {};
        });
    }
    bool finished = loop.runUntil([&] { return delivered; }, DEADLINE);
    worker.join();
    EXPECT_TRUE(finished);
}

TEST(KtFunctionTest, dontCancelIsSharedByCopies) {
    KtEventLoop loop;
    int delivered = 0;
    auto function = std::make_unique<Kt::Function<void(XCode)>>(Kt::asyncCall(loop),
                                                                [&](XCode) { ++delivered; });
    auto copy = std::make_unique<Kt::Function<void(XCode)>>(*function);
    copy->setDontCancelOnDestruction(true);
    (*function)(XCode());
    function.reset();
    copy.reset();
    loop.runPending();
    EXPECT_EQ(delivered, 1);
}

TEST(KtFunctionTest, dontCancelCanBeTurnedOffAgain) {
    KtEventLoop loop;
    int delivered = 0;
    auto function = std::make_unique<Kt::Function<void(XCode)>>(Kt::asyncCall(loop),
                                                                [&](XCode) { ++delivered; });
    function->setDontCancelOnDestruction(true);
    function->setDontCancelOnDestruction(false);
    (*function)(XCode());
    function.reset();
    loop.runPending();
    EXPECT_EQ(delivered, 0);
}

TEST(KtFunctionTest, cancelPendingDropsQueuedButLaterCallsDeliver) {
    KtEventLoop loop;
    std::vector<String> delivered;
    Kt::Function<void(String)> function(Kt::asyncCall(loop),
                                        [&](String text) { delivered.push_back(text); });
    function("dropped 1");
    function("dropped 2");
    function.cancelPending();
    function("kept");
    loop.runPending();
    EXPECT_EQ(delivered, std::vector<String>{"kept"});
}

TEST(KtFunctionTest, directAndSyncIgnoreHandleDestruction) {
    // Destruction only concerns queued deliveries; direct and sync calls have none.
    KtEventLoop loop;
    int delivered = 0;
    {
        Kt::Function<void(XCode)> direct(Kt::directCall(), [&](XCode) { ++delivered; });
        Kt::Function<void(XCode)> sync(Kt::syncCall(loop), [&](XCode) { ++delivered; });
        direct(XCode());
        sync(XCode());
    }
    EXPECT_EQ(delivered, 2);
    EXPECT_EQ(loop.pendingEvents(), 0u);
}

}  // namespace
