#include "transfer/ProvisioningCredentials.h"

namespace {

// The wild-card realm.
const String WILD_CARD_REALM;

}  // namespace

ProvisioningCredentials::ProvisioningCredentials() : table(BUCKETS) {}

ProvisioningCredentials::ProvisioningCredentials(const ProvisioningCredentials& other) = default;

ProvisioningCredentials& ProvisioningCredentials::operator=(const ProvisioningCredentials& other) =
    default;

ProvisioningCredentials::~ProvisioningCredentials() = default;

XCode ProvisioningCredentials::add(const String& realm, const String& user,
                                   const String& password) {
    if (!table.insert(realm, Credentials{user, password})) {
        XCode result(-1);
        result.setStringF("Credentials for realm '%s' already exists.", realm.c_str());
        return result;
    }
    return XCode();
}

XCode ProvisioningCredentials::get(const String& realm, String& user, String& password) const {
    const Credentials* found = table.find(realm);
    if (found == nullptr) {
        found = table.find(WILD_CARD_REALM);
    }
    if (found == nullptr) {
        XCode result(-1);
        result.setStringF("Neither credentials for realm '%s' nor wild-card realm found.",
                          realm.c_str());
        return result;
    }
    user = found->user;
    password = found->password;
    return XCode();
}

XCode ProvisioningCredentials::get(String& user, String& password) const {
    const Credentials* found = table.find(WILD_CARD_REALM);
    if (found == nullptr) {
        XCode result(-1);
        result.setString("No credentials for wild-card realm found.");
        return result;
    }
    user = found->user;
    password = found->password;
    return XCode();
}
