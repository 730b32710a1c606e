#pragma once

#include <memory>
#include <mutex>

#include "platform/String.h"
#include "platform/XCode.h"

// The device contract: every declaration below is part of the interface.
#pragma GCC visibility push(default)

// The slice of the device's configuration database that provisioning writes: the provisioning
// status record and its location field.
namespace DB {

// A string field of a record. Thread-safe.
class FieldString {
  public:
    // Stores the value; a mirrored field first writes its file (atomically) and fails, keeping
    // the old value, only when that write fails.
    [[nodiscard]] XCode operator=(const String& value);
    String get() const;

  private:
    friend struct SystemProvisioningStatusRecord;
    mutable std::mutex mutex_;
    String value_;
    String mirrorName_;  // file name under <root>/status/, empty for no mirror
};

struct SystemProvisioningStatusRecord {
    SystemProvisioningStatusRecord() { location.mirrorName_ = "provisioning-location"; }
    FieldString location;
};

template <typename T>
using Ptr = std::shared_ptr<T>;

enum ObjectType_ : unsigned int {};
enum ObjectStatus_ : unsigned int {};

namespace Table {
namespace Cfg {
namespace QueryAllByKey {
struct Key {
    Key(ObjectType_ type, ObjectStatus_ status) : objectType(type), objectStatus(status) {}
    ObjectType_ objectType;
    ObjectStatus_ objectStatus;
};
}  // namespace QueryAllByKey
}  // namespace Cfg

class SystemProvisioningStatus {
  public:
    // The record for the key; an error when there is none (only key (2, 10) exists, and only
    // while the database is available).
    [[nodiscard]] static XCode find(const Cfg::QueryAllByKey::Key& key,
                                    Ptr<SystemProvisioningStatusRecord>& record);
    // The lookup's error: "NO STATUS RECORD FOR KEY (<t>, <s>)".
};

}  // namespace Table
}  // namespace DB

#pragma GCC visibility pop
