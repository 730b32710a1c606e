#pragma once

#include <string>

#include "support/TempDir.h"

namespace provtest {

// Test certificates, made once per test process with the openssl command in a temporary
// directory (EC P-256 keys, so making them is quick):
// - a root CA and an intermediate CA signed by it;
// - a server certificate for 127.0.0.1 and ::1 (subjectAltName IP:127.0.0.1, IP:::1 and
//   DNS:localhost) signed by the intermediate; serverChain() holds it followed by the
//   intermediate, which is what a server presents;
// - a client CA and a client certificate (CN "device") signed by it;
// - a stranger: a self-signed client certificate that no CA here vouches for.
// Keys are PEM without a passphrase. Thread-safe; the files live until the process ends.
class Certificates {
  public:
    static const Certificates& get();

    // False when openssl failed; error() then tells why and the paths name no files.
    bool ok() const { return error_.empty(); }
    const std::string& error() const { return error_; }

    std::string rootCa() const { return path("root-ca.pem"); }
    std::string intermediateCa() const { return path("intermediate-ca.pem"); }
    std::string serverCert() const { return path("server.pem"); }
    std::string serverKey() const { return path("server.key"); }
    std::string serverChain() const { return path("server-chain.pem"); }
    std::string clientCa() const { return path("client-ca.pem"); }
    std::string clientCert() const { return path("client.pem"); }
    std::string clientKey() const { return path("client.key"); }
    std::string strangerCert() const { return path("stranger.pem"); }
    std::string strangerKey() const { return path("stranger.key"); }
    const std::string& dir() const { return dir_.path(); }

  private:
    Certificates();
    std::string path(const char* name) const { return dir_.file(name); }

    TempDir dir_{"prov-certs"};
    std::string error_;
};

}  // namespace provtest
