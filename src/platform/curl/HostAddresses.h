// The addresses of host names: looked up off the network thread, kept for a minute, and put into the order in which a
// connection should try them.

#pragma once

#include "foundation/time/Clock.h"

#include <chrono>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace sentrova::platform {

// Numeric addresses without brackets ("192.0.2.1", "2001:db8::1").
using AddressList = std::vector<std::string>;

// Looks a name up and may block for as long as that takes; empty when the name has no address. Called on any thread,
// for several names at once.
using HostResolver = std::function<AddressList(const std::string& host)>;

// The host's own resolver. It leaves out link-local IPv6 addresses, whose zone could not be passed on.
AddressList resolveHost(const std::string& host);

// Whether the host part of a URL is an address already ("10.0.0.1", "[::1]").
bool isNumericHost(const std::string& host);

// For one thread.
class HostAddresses {
  public:
    // As long as the network library keeps a look-up itself.
    static constexpr std::chrono::seconds kKept{60};

    // The addresses of the last look-up; null when there was none or it is too old.
    const AddressList* find(const std::string& host, Clock::Monotonic now) const;

    // Takes the result of a look-up. Addresses that are known already keep their order, new ones follow.
    void store(const std::string& host, const AddressList& found, Clock::Monotonic now);

    // Notes which address of the host has answered. Connections try it first from now on; those that were tried before
    // it in vain come last.
    void noteAnswer(const std::string& host, std::string_view address);

  private:
    struct Host {
        AddressList addresses;
        Clock::Monotonic expires;
    };
    // As many as the configuration has names.
    std::map<std::string, Host> hosts_;
};

}  // namespace sentrova::platform
