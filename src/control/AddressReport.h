// The server's addresses, and what became of the attempt to reach each of them.

#pragma once

#include "core/Configuration.h"
#include "foundation/files/FileSystem.h"
#include "foundation/value/Result.h"
#include "foundation/value/Value.h"
#include "platform/curl/AddressProbe.h"

#include <functional>
#include <string>
#include <vector>

namespace sentrova::control {

struct AddressReport {
    // "scheme://host:port".
    std::string address;
    platform::AddressProbe probe;

    bool works() const { return probe.status > 0; }
    // "works: HTTP 404; ..." or "fails: ...", on one line.
    std::string text() const;
    // The address and the text.
    std::string line() const { return address + " " + text(); }
    Dictionary json() const;
};

// The configuration in the folder, as a new agent would take it. Fails with the reason if a file is damaged or cannot
// be read, or if `Serverinfo.plist` is missing.
Result<Configuration> configurationIn(FileSystem& files, const std::string& folder);

// Tries all addresses at the same time, and passes the reports in the order of the rotation, each as soon as it and
// those before it are there. Leaves out addresses without a name or a port and a protocol. Returns how many work.
// Takes at most twenty seconds. Throws std::system_error if the system refuses a thread.
int probeAddresses(const Configuration& configuration, const std::function<void(const AddressReport&)>& take);

// For an installation without addresses.
inline constexpr const char* kNoAddress =
    "no address of a server is configured: Serverinfo.plist needs ServerFQDN (or ServerIP or ServerName) and Port with "
    "Protocol or AgentPort with AgentProtocol";

}  // namespace sentrova::control
