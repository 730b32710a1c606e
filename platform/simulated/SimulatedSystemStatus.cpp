#include "platform/simulated/SimulatedSystemStatus.h"

#include "platform/KtFile.h"
#include "platform/simulated/DeviceDirectory.h"

XCode SimulatedSystemStatus::setSubsystemBusy(unsigned int subsystem, bool busy) {
    std::lock_guard<std::mutex> lock(mutex_);
    busy_[subsystem] = busy;
    ++changes_[subsystem];
    const String& root = Device::ROOT();
    if (root.isEmpty()) {
        return XCode::SUCCESS;
    }
    XCode result = Device::MAKE_DIRECTORIES(root + "/status");
    if (result.isErr()) {
        return result;
    }
    return KtFile::WRITE_TEXT_FILE(root + String::format("/status/subsystem-%u", subsystem),
                                   busy ? "busy" : "idle", false);
}

bool SimulatedSystemStatus::isBusy(unsigned int subsystem) const {
    std::lock_guard<std::mutex> lock(mutex_);
    auto found = busy_.find(subsystem);
    return found != busy_.end() && found->second;
}

unsigned int SimulatedSystemStatus::changes(unsigned int subsystem) const {
    std::lock_guard<std::mutex> lock(mutex_);
    auto found = changes_.find(subsystem);
    return found == changes_.end() ? 0U : found->second;
}
