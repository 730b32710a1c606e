#include "transfer/ProvisioningCredentials.h"

namespace {

// The wild-card realm.
const String WILD_CARD_REALM;

// A host as compared: lower case, an IPv6 address without brackets ("[::1]" as a location writes
// it and "::1" as a configuration may give it name one host).
String comparableHost(const String& host) {
    String bare = host.startsWith("[") && host.endsWith("]") && host.length() >= 2
                      ? host.substring(1, host.length() - 1)
                      : host;
    return bare.toLowerCase();
}

}  // namespace

ProvisioningCredentials::ProvisioningCredentials() : table(BUCKETS) {}

ProvisioningCredentials::ProvisioningCredentials(const ProvisioningCredentials& other) = default;

ProvisioningCredentials& ProvisioningCredentials::operator=(const ProvisioningCredentials& other) =
    default;

ProvisioningCredentials::~ProvisioningCredentials() = default;

XCode ProvisioningCredentials::add(const String& realm, const String& user,
                                   const String& password) {
    return add(realm, user, password, String());
}

XCode ProvisioningCredentials::add(const String& realm, const String& user, const String& password,
                                   const String& host) {
    if (!table.insert(realm, Credentials{user, password, host})) {
        XCode result(-1);
        result.setStringF("Credentials for realm '%s' already exists.", realm.c_str());
        return result;
    }
    return XCode();
}

const ProvisioningCredentials::Credentials* ProvisioningCredentials::findFor(
    const String& realm, const String& host) const {
    const Credentials* found = table.find(realm);
    if (found == nullptr || found->host.isEmpty()) {
        return found;
    }
    return comparableHost(found->host) == comparableHost(host) ? found : nullptr;
}

XCode ProvisioningCredentials::get(const String& realm, String& user, String& password) const {
    return getForHost(realm, String(), user, password);
}

XCode ProvisioningCredentials::getForHost(const String& realm, const String& host, String& user,
                                          String& password) const {
    const Credentials* found = findFor(realm, host);
    if (found == nullptr) {
        found = findFor(WILD_CARD_REALM, host);
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
    const Credentials* found = findFor(WILD_CARD_REALM, String());
    if (found == nullptr) {
        XCode result(-1);
        result.setString("No credentials for wild-card realm found.");
        return result;
    }
    user = found->user;
    password = found->password;
    return XCode();
}
