// Tries an address of the audit server as the agent would, and tells how far the connection gets.

#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace sentrova::platform {

struct AddressProbe {
    using Time = std::optional<std::chrono::milliseconds>;

    struct Tls {
        // "TLS 1.3"; empty if the library does not tell.
        std::string version;
        // The names that the certificate is for: host names and addresses, or else the common name.
        std::vector<std::string> names;
        std::string issuer;
        // Seconds since 1970.
        std::optional<std::int64_t> expires;
        // Whether the system trusts the certificate for this host. Absent if that could not be found out.
        std::optional<bool> isTrusted;
        // Why it does not.
        std::string distrust;
    };

    // The duration of each step that was reached and succeeded.
    Time lookUp;
    Time connection;
    Time handshake;
    Time answer;
    // The numeric address of the connection; empty without one.
    std::string connectedTo;
    // Present after a handshake.
    std::optional<Tls> tls;
    // The HTTP status of the answer; 0 without one.
    int status = 0;
    // What went wrong; empty with an answer.
    std::string failure;
};

// Asks the address "scheme://host:port" for the head of "/", without a body and without following a redirection. The
// connection is made as CurlUrlSession makes it: TLS 1.2 or later, any certificate, no proxy. A second connection finds
// out whether the system trusts the certificate. Takes at most twice the limit. A resolver may go on in the background.
// Safe from any thread.
AddressProbe probeAddress(const std::string& origin, std::chrono::milliseconds limit);

}  // namespace sentrova::platform
