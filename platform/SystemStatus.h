#pragma once

#include <list>
#include <memory>
#include <mutex>

#include "platform/String.h"
#include "platform/XCode.h"

// The device contract: every declaration below is part of the interface.
#pragma GCC visibility push(default)

// The device's driver repository and its system-status interface (busy flags per subsystem).

using DriverId = unsigned int;
DriverId DID_SystemStatus();

class ISystemStatus {
  public:
    virtual ~ISystemStatus() = default;
    static const char* IID() { return "ISystemStatus"; }
    virtual XCode setSubsystemBusy(unsigned int subsystem, bool busy) = 0;
};

class KtLockPtr;

// Reference-counted interface pointer that can be locked for exclusive use during one call.
template <typename T>
class KtPPtr {
  public:
    KtPPtr() = default;
    KtPPtr(std::shared_ptr<T> object, std::shared_ptr<std::recursive_mutex> mutex)
        : object_(std::move(object)), mutex_(std::move(mutex)) {}
    explicit operator bool() const { return object_ != nullptr; }
    T* operator->() const { return object_.get(); }
    KtLockPtr getLock() const;
    void release() {
        object_.reset();
        mutex_.reset();
    }

  private:
    std::shared_ptr<T> object_;
    std::shared_ptr<std::recursive_mutex> mutex_;
};

class KtLockPtr {
  public:
    explicit KtLockPtr(std::shared_ptr<std::recursive_mutex> mutex) : mutex_(std::move(mutex)) {
        if (mutex_) {
            mutex_->lock();
        }
    }
    ~KtLockPtr() { unlock(); }
    KtLockPtr(const KtLockPtr&) = delete;
    KtLockPtr& operator=(const KtLockPtr&) = delete;
    void unlock() {
        if (mutex_) {
            mutex_->unlock();
            mutex_.reset();
        }
    }

  private:
    std::shared_ptr<std::recursive_mutex> mutex_;
};

template <typename T>
KtLockPtr KtPPtr<T>::getLock() const {
    return KtLockPtr(mutex_);
}

class IDriverRepository {
  public:
    // Registration is the host's (tests register fakes).
    void registerInterface(DriverId driver, const String& name,
                           std::shared_ptr<ISystemStatus> interface);
    void unregisterAll();

    template <typename T>
    void getDriverInterfaces(DriverId driver, const String& name, std::list<KtPPtr<T>>& out);

  private:
    struct Entry {
        DriverId driver;
        String name;
        std::shared_ptr<ISystemStatus> interface;
        std::shared_ptr<std::recursive_mutex> mutex;
    };
    std::mutex mutex_;
    std::list<Entry> entries_;
};

// An empty name matches every registered name.
template <>
void IDriverRepository::getDriverInterfaces<ISystemStatus>(DriverId driver, const String& name,
                                                           std::list<KtPPtr<ISystemStatus>>& out);

namespace DRIVER {
IDriverRepository& INSTANCE();
}

#pragma GCC visibility pop
