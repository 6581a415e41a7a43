#pragma once

#include <string>

// A certificate authority that lives for one run: the local stand-ins of remote
// services serve TLS with it, and clients under test trust only it, so
// verification stays on without any real certificate in the repository.
namespace testca {

struct Files
{
    std::string caCert;     // PEM paths
    std::string serverCert;
    std::string serverKey;
};

// Writes a fresh CA and a server certificate (SAN: IP 127.0.0.1, DNS localhost)
// signed by it into dir, which must exist. Throws std::runtime_error on failure.
Files makeThrowawayCa(const std::string &dir);

} // namespace testca
