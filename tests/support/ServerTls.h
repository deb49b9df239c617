// What a server shows of itself when it speaks TLS.

#pragma once

namespace sentrova::testing {

// Numbers without a meaning of their own are OpenSSL's.
struct ServerTls {
    bool asksForClientCertificate = false;
    // Whom the certificate is for.
    const char* host = "audit-server";
    // Days from now.
    int validFrom = -1;
    int validUntil = 365;
    // 0: a key on a curve.
    unsigned rsaBits = 0;
    const char* digest = "SHA256";
    // The one version of the protocol that the server speaks; 0: the library's choice.
    int onlyVersion = 0;
};

}  // namespace sentrova::testing
