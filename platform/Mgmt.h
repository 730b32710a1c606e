#pragma once

#include <mutex>

#include "platform/XCode.h"

// The device contract: every declaration below is part of the interface.
#pragma GCC visibility push(default)

// The management layer's lock that guards the device values while expressions are resolved.
class KtEventSync {
  public:
    // Success once taken (recursive: the holder may take it again); an error at once, without
    // waiting, when another thread holds it; the caller tries again.
    [[nodiscard]] XCode lock();
    // Releases one successful lock() of the calling thread.
    void unlock();

  private:
    std::recursive_timed_mutex mutex_;
};

template <typename Lock>
class KtAutoLock {
  public:
    explicit KtAutoLock(Lock& lock) : lock_(lock) {}
    ~KtAutoLock() { lock_.unlock(); }
    KtAutoLock(const KtAutoLock&) = delete;
    KtAutoLock& operator=(const KtAutoLock&) = delete;

  private:
    Lock& lock_;
};

class IManagement {
  public:
    KtEventSync& getEventSync() { return sync_; }

  private:
    KtEventSync sync_;
};

namespace MGMT {
IManagement& INSTANCE();
}

#pragma GCC visibility pop
