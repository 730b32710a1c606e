#pragma once

#include "platform/KtHashTable.h"
#include "platform/String.h"
#include "platform/XCode.h"

// User names and passwords for HTTP downloads, keyed by the realm of a server's challenge. The
// entry of the empty realm is the wild-card: it answers for every realm without an entry of its
// own. Realms compare exactly, case included.
//
// A value type: the management process fills one and every job keeps its own copy. Not
// thread-safe; one thread uses an object at a time.
class ProvisioningCredentials {
  public:
    struct Credentials {
        String user;
        String password;
    };

    ProvisioningCredentials();
    // Copies keep the source's entry order (oldest first into the copy).
    ProvisioningCredentials(const ProvisioningCredentials& other);
    ProvisioningCredentials& operator=(const ProvisioningCredentials& other);
    ~ProvisioningCredentials();

    // Error "Credentials for realm '<realm>' already exists." when the realm has an entry; that
    // entry is kept as it was.
    [[nodiscard]] XCode add(const String& realm, const String& user, const String& password);
    // The realm's entry, else the wild-card's. Error "Neither credentials for realm '<realm>' nor
    // wild-card realm found." leaves `user` and `password` as they were.
    [[nodiscard]] XCode get(const String& realm, String& user, String& password) const;
    // The wild-card entry only. Error "No credentials for wild-card realm found." leaves `user`
    // and `password` as they were.
    [[nodiscard]] XCode get(String& user, String& password) const;

  private:
    static constexpr unsigned int BUCKETS = 16;

    KtStringHashTable<Credentials> table;
};
