#pragma once

#include "platform/Export.h"
#include "platform/KtHashTable.h"
#include "platform/String.h"
#include "platform/XCode.h"

// User names and passwords for HTTP downloads, keyed by the realm of a server's challenge. The
// entry of the empty realm is the wild-card: it answers for every realm without an entry of its
// own. Realms compare exactly, case included.
//
// A credential may be bound to a host: it is then given out only for requests to that host
// (host names compare without regard to case and an IPv6 address with or without its brackets,
// nothing else is normalised: "localhost" and "127.0.0.1" are two hosts). A bound entry is
// invisible to any other host, so for that host the realm has no entry and the wild-card may
// answer. Unbound entries behave as they always did.
//
// A value type: the management process fills one and every job keeps its own copy. Not
// thread-safe; one thread uses an object at a time.
class PROV_API ProvisioningCredentials {
  public:
    struct Credentials {
        String user;
        String password;
        String host;  // empty: any host
    };

    ProvisioningCredentials();
    // Copies keep the source's entry order (oldest first into the copy).
    ProvisioningCredentials(const ProvisioningCredentials& other);
    ProvisioningCredentials& operator=(const ProvisioningCredentials& other);
    ~ProvisioningCredentials();

    // Error "Credentials for realm '<realm>' already exists." when the realm has an entry; that
    // entry is kept as it was.
    [[nodiscard]] XCode add(const String& realm, const String& user, const String& password);
    // The same, the credential bound to `host` (empty: unbound, as the form above).
    [[nodiscard]] XCode add(const String& realm, const String& user, const String& password,
                            const String& host);
    // The realm's entry, else the wild-card's. Error "Neither credentials for realm '<realm>' nor
    // wild-card realm found." leaves `user` and `password` as they were. Bound entries are not
    // given out here: the caller names no host.
    [[nodiscard]] XCode get(const String& realm, String& user, String& password) const;
    // The wild-card entry only. Error "No credentials for wild-card realm found." leaves `user`
    // and `password` as they were. An entry bound to a host is not given out.
    [[nodiscard]] XCode get(String& user, String& password) const;
    // As get(realm, ...) for a request to `host`: entries bound to another host are skipped.
    [[nodiscard]] XCode getForHost(const String& realm, const String& host, String& user,
                                   String& password) const;

  private:
    static constexpr unsigned int BUCKETS = 16;

    // The entry of `realm` that may go to `host` (empty: to an unnamed host), or null.
    const Credentials* findFor(const String& realm, const String& host) const;

    KtStringHashTable<Credentials> table;
};
