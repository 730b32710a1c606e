#include "platform/Mgmt.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <future>
#include <thread>

namespace {

// Tries the lock once on another thread; true when it was taken (it is released again).
bool lockFromAnotherThread(KtEventSync& sync) {
    return std::async(std::launch::async,
                      [&sync] {
                          XCode result = sync.lock();
                          if (result.isSuccess()) {
                              sync.unlock();
                          }
                          return result.isSuccess();
                      })
        .get();
}

TEST(MgmtTest, instanceIsOneObject) {
    EXPECT_EQ(&MGMT::INSTANCE(), &MGMT::INSTANCE());
    EXPECT_EQ(&MGMT::INSTANCE().getEventSync(), &MGMT::INSTANCE().getEventSync());
}

TEST(MgmtTest, freeLockIsTaken) {
    KtEventSync sync;
    ASSERT_TRUE(sync.lock().isSuccess());
    sync.unlock();
}

TEST(MgmtTest, holderMayTakeTheLockAgain) {
    KtEventSync sync;
    ASSERT_TRUE(sync.lock().isSuccess());
    ASSERT_TRUE(sync.lock().isSuccess());
    sync.unlock();
    EXPECT_FALSE(lockFromAnotherThread(sync));  // still held once
    sync.unlock();
    EXPECT_TRUE(lockFromAnotherThread(sync));
}

TEST(MgmtTest, lockHeldByAnotherThreadFailsAtOnce) {
    KtEventSync sync;
    std::promise<void> taken;
    std::promise<void> release;
    std::thread holder([&] {
        ASSERT_TRUE(sync.lock().isSuccess());
        taken.set_value();
        release.get_future().wait();
        sync.unlock();
    });
    taken.get_future().wait();
    XCode result = sync.lock();
    EXPECT_TRUE(result.isErr());
    EXPECT_EQ(result, XCode::family(XCode::ERRNO_FAMILY, EBUSY));
    release.set_value();
    holder.join();
    ASSERT_TRUE(sync.lock().isSuccess());
    sync.unlock();
}

TEST(MgmtTest, retryingSucceedsOnceTheHolderLetsGo) {
    KtEventSync& sync = MGMT::INSTANCE().getEventSync();
    ASSERT_TRUE(sync.lock().isSuccess());
    std::promise<void> failedOnce;
    std::thread waiter([&] {
        bool reported = false;
        while (sync.lock().isErr()) {
            if (!reported) {
                failedOnce.set_value();
                reported = true;
            }
        }
        KtAutoLock<KtEventSync> hold(sync);
        EXPECT_TRUE(reported);
    });
    failedOnce.get_future().wait();
    sync.unlock();
    waiter.join();
    EXPECT_TRUE(lockFromAnotherThread(sync));
}

TEST(MgmtTest, autoLockReleasesAtTheEndOfItsScope) {
    KtEventSync sync;
    {
        ASSERT_TRUE(sync.lock().isSuccess());
        KtAutoLock<KtEventSync> hold(sync);
        EXPECT_FALSE(lockFromAnotherThread(sync));
    }
    EXPECT_TRUE(lockFromAnotherThread(sync));
}

}  // namespace
