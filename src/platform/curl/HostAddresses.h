// The addresses of host names, kept for a minute and in the order in which connections should try them.

#pragma once

#include "foundation/run/Clock.h"

#include <chrono>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace sentrova::platform {

// Numeric addresses without brackets ("192.0.2.1", "2001:db8::1").
using AddressList = std::vector<std::string>;

// Looks up a host name, and may block for minutes. Empty if the name has no address. Called on several threads at the
// same time.
using HostResolver = std::function<AddressList(const std::string& host)>;

// The system's resolver. Leaves out link-local IPv6 addresses, because their zone would get lost.
AddressList resolveHost(const std::string& host);

// Whether the host part of a URL is a numeric address ("10.0.0.1", "[::1]").
bool isNumericHost(const std::string& host);

// "host:port:address,address", as CURLOPT_RESOLVE takes it. The library then connects to these addresses, in their
// order, and does not look up the host itself.
std::string resolveEntry(const std::string& host, const std::string& port, const AddressList& addresses);

// For one thread.
class HostAddresses {
  public:
    // The same time for which the network library would keep a look-up.
    static constexpr std::chrono::seconds kKept{60};

    // The addresses of the last look-up. Null if there is none or it is too old. Valid until the next call of store.
    const AddressList* find(const std::string& host, Clock::Monotonic now) const;

    // Stores the result of a look-up. Known addresses keep their order, and new ones follow.
    void store(const std::string& host, const AddressList& found, Clock::Monotonic now);

    // Moves the address that answered to the front, and the addresses tried before it to the end.
    void noteAnswer(const std::string& host, std::string_view address);

  private:
    struct Host {
        AddressList addresses;
        Clock::Monotonic expires;
    };
    // Bounded by the number of host names in the configuration.
    std::map<std::string, Host> hosts_;
};

}  // namespace sentrova::platform
