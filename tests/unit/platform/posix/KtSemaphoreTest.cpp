#include "platform/KtSemaphore.h"

#include <gtest/gtest.h>

#include <thread>

namespace {

TEST(KtSemaphoreTest, waitTakesWhatSignalGave) {
    KtSemaphore semaphore(0, 2);
    EXPECT_TRUE(semaphore.signal().isSuccess());
    EXPECT_TRUE(semaphore.signal().isSuccess());
    EXPECT_TRUE(semaphore.wait().isSuccess());
    EXPECT_TRUE(semaphore.wait().isSuccess());
}

TEST(KtSemaphoreTest, initialCountIsAvailable) {
    KtSemaphore semaphore(1, 1);
    EXPECT_TRUE(semaphore.wait().isSuccess());
}

TEST(KtSemaphoreTest, signalAtMaximumIsAnError) {
    KtSemaphore semaphore(1, 1, KtSemaphore::MONOTONIC);
    XCode code = semaphore.signal();
    EXPECT_TRUE(code.isErr());
    EXPECT_TRUE(semaphore.wait().isSuccess());
    EXPECT_TRUE(semaphore.signal().isSuccess());
}

TEST(KtSemaphoreTest, largestMaximumAcceptsSignals) {
    KtSemaphore semaphore(0, 2147483647);
    EXPECT_TRUE(semaphore.signal().isSuccess());
    EXPECT_TRUE(semaphore.wait().isSuccess());
}

TEST(KtSemaphoreTest, waitBlocksUntilAnotherThreadSignals) {
    KtSemaphore semaphore(0, 2147483647);
    KtSemaphore handedBack(0, 1);
    int value = 0;
    std::thread other([&] {
        EXPECT_TRUE(semaphore.wait().isSuccess());
        value = 42;  // published by the signal below
        EXPECT_TRUE(handedBack.signal().isSuccess());
    });
    EXPECT_TRUE(semaphore.signal().isSuccess());
    EXPECT_TRUE(handedBack.wait().isSuccess());
    EXPECT_EQ(value, 42);
    other.join();
}

}  // namespace
