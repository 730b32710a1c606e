#include "platform/StatusDb.h"

#include "platform/KtFile.h"
#include "platform/simulated/DeviceDirectory.h"
#include "platform/simulated/SimulatedStatusDb.h"
#include "platform/testing/StatusDbHooks.h"

namespace DB {

XCode FieldString::operator=(const String& value) {
    std::lock_guard<std::mutex> lock(mutex_);
    const String& root = Device::ROOT();
    if (!mirrorName_.isEmpty() && !root.isEmpty()) {
        XCode result = Device::MAKE_DIRECTORIES(root + "/status");
        if (result.isSuccess()) {
            result = KtFile::WRITE_TEXT_FILE(root + "/status/" + mirrorName_, value, false);
        }
        if (result.isErr()) {
            return result;
        }
    }
    value_ = value;
    return XCode::SUCCESS;
}

String FieldString::get() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return value_;
}

namespace Table {

namespace {

constexpr unsigned int PROVISIONING_OBJECT_TYPE = 2;
constexpr unsigned int PROVISIONING_OBJECT_STATUS = 10;

struct Database {
    std::mutex mutex;
    bool available = true;
    Ptr<SystemProvisioningStatusRecord> record = std::make_shared<SystemProvisioningStatusRecord>();
};

Database& database() {
    static Database instance;
    return instance;
}

}  // namespace

XCode SystemProvisioningStatus::find(const Cfg::QueryAllByKey::Key& key,
                                     Ptr<SystemProvisioningStatusRecord>& record) {
    Database& db = database();
    std::lock_guard<std::mutex> lock(db.mutex);
    if (!db.available || key.objectType != PROVISIONING_OBJECT_TYPE ||
        key.objectStatus != PROVISIONING_OBJECT_STATUS) {
        return XCode::FAILURE_F("NO STATUS RECORD FOR KEY (%u, %u)",
                                static_cast<unsigned int>(key.objectType),
                                static_cast<unsigned int>(key.objectStatus));
    }
    record = db.record;
    return XCode::SUCCESS;
}

void ProvisioningStatusHooks::SET_AVAILABLE(bool available) {
    Database& db = database();
    std::lock_guard<std::mutex> lock(db.mutex);
    db.available = available;
}

Ptr<SystemProvisioningStatusRecord> SimulatedProvisioningStatus::RECORD() {
    Database& db = database();
    std::lock_guard<std::mutex> lock(db.mutex);
    return db.record;
}

void ProvisioningStatusHooks::RESET() {
    Database& db = database();
    std::lock_guard<std::mutex> lock(db.mutex);
    db.available = true;
    db.record = std::make_shared<SystemProvisioningStatusRecord>();
}

}  // namespace Table
}  // namespace DB
