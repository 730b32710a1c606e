#include "platform/SystemStatus.h"

DriverId DID_SystemStatus() {
    return 0x5353;
}

void IDriverRepository::registerInterface(DriverId driver, const String& name,
                                          std::shared_ptr<ISystemStatus> interface) {
    std::lock_guard<std::mutex> lock(mutex_);
    entries_.push_back(
        Entry{driver, name, std::move(interface), std::make_shared<std::recursive_mutex>()});
}

void IDriverRepository::unregisterAll() {
    std::lock_guard<std::mutex> lock(mutex_);
    entries_.clear();
}

template <>
void IDriverRepository::getDriverInterfaces<ISystemStatus>(DriverId driver, const String& name,
                                                           std::list<KtPPtr<ISystemStatus>>& out) {
    std::lock_guard<std::mutex> lock(mutex_);
    for (const Entry& entry : entries_) {
        if (entry.driver == driver && (name.isEmpty() || entry.name == name)) {
            out.emplace_back(entry.interface, entry.mutex);
        }
    }
}

namespace DRIVER {

IDriverRepository& INSTANCE() {
    static IDriverRepository repository;
    return repository;
}

}  // namespace DRIVER
