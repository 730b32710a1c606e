#include "support/Certificates.h"

#include <vector>

#include "support/Process.h"

namespace provtest {

namespace {

const char* const OPENSSL_CONFIG = R"([req]
distinguished_name = dn
prompt = no
[dn]
[root]
basicConstraints = critical, CA:TRUE
keyUsage = critical, keyCertSign, cRLSign
subjectKeyIdentifier = hash
[intermediate]
basicConstraints = critical, CA:TRUE, pathlen:0
keyUsage = critical, keyCertSign, cRLSign
subjectKeyIdentifier = hash
authorityKeyIdentifier = keyid:always
[server]
basicConstraints = critical, CA:FALSE
keyUsage = critical, digitalSignature
extendedKeyUsage = serverAuth
subjectAltName = IP:127.0.0.1, IP:::1, DNS:localhost
subjectKeyIdentifier = hash
authorityKeyIdentifier = keyid:always
[client]
basicConstraints = critical, CA:FALSE
keyUsage = critical, digitalSignature
extendedKeyUsage = clientAuth
subjectKeyIdentifier = hash
authorityKeyIdentifier = keyid:always
)";

}  // namespace

const Certificates& Certificates::get() {
    static const Certificates certificates;
    return certificates;
}

Certificates::Certificates() {
    std::string config = dir_.file("openssl.cnf");
    writeFile(config, OPENSSL_CONFIG);
    struct Item {
        const char* name;
        const char* subject;
        const char* extensions;
        const char* issuer;  // null: self-signed
    };
    const Item items[] = {
        {"root-ca", "/CN=Provisioning Test Root CA", "root", nullptr},
        {"intermediate-ca", "/CN=Provisioning Test Intermediate CA", "intermediate", "root-ca"},
        {"server", "/CN=127.0.0.1", "server", "intermediate-ca"},
        {"client-ca", "/CN=Provisioning Test Client CA", "root", nullptr},
        {"client", "/CN=device", "client", "client-ca"},
        {"stranger", "/CN=stranger", "client", nullptr},
    };
    for (const Item& item : items) {
        std::string name = item.name;
        std::string key = dir_.file(name + ".key");
        std::vector<std::string> argv = {"/usr/bin/openssl",
                                         "req",
                                         "-x509",
                                         "-newkey",
                                         "ec",
                                         "-pkeyopt",
                                         "ec_paramgen_curve:prime256v1",
                                         "-noenc",
                                         "-days",
                                         "3650",
                                         "-config",
                                         config,
                                         "-subj",
                                         item.subject,
                                         "-extensions",
                                         item.extensions,
                                         "-keyout",
                                         key,
                                         "-out",
                                         dir_.file(name + ".pem")};
        if (item.issuer != nullptr) {
            std::string issuer = item.issuer;
            argv.insert(argv.end(),
                        {"-CA", dir_.file(issuer + ".pem"), "-CAkey", dir_.file(issuer + ".key")});
        }
        CommandResult result = runCommand(argv);
        if (result.exitStatus != 0) {
            error_ = "openssl failed for " + name + ": " + result.output;
            return;
        }
    }
    writeFile(serverChain(), readFile(serverCert()) + readFile(intermediateCa()));
}

}  // namespace provtest
