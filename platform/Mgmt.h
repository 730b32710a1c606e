#pragma once

#include <mutex>

#include "XCode.h"

// The management layer's lock that guards the device values while expressions are resolved.
class KtEventSync {
public:
    // Success once taken; an error (try again) when another thread holds it.
    [[nodiscard]] XCode lock();
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
