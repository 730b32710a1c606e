#pragma once

#include <condition_variable>
#include <mutex>

#include "platform/XCode.h"

// The device contract: every declaration below is part of the interface.
#pragma GCC visibility push(default)

class KtSemaphore {
  public:
    enum TimeSource { MONOTONIC = 0 };
    KtSemaphore(int initial, int maximum, TimeSource source = MONOTONIC);
    [[nodiscard]] XCode wait();
    // An error when the count is already at its maximum.
    XCode signal();

  private:
    std::mutex mutex_;
    std::condition_variable available_;
    int count_;
    int maximum_;
};

#pragma GCC visibility pop
