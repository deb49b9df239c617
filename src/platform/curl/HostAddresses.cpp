#include "platform/curl/HostAddresses.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <iterator>
#include <memory>
#include <utility>

namespace sentrova::platform {

namespace {

// The address as text. Empty for an address family that is not supported, and for link-local IPv6 addresses.
std::string numeric(const addrinfo& info) {
    std::array<char, INET6_ADDRSTRLEN> text{};
    const void* address = nullptr;
    if (info.ai_family == AF_INET) {
        address = &reinterpret_cast<const sockaddr_in*>(info.ai_addr)->sin_addr;
    } else if (info.ai_family == AF_INET6) {
        const auto& six = reinterpret_cast<const sockaddr_in6*>(info.ai_addr)->sin6_addr;
        address = IN6_IS_ADDR_LINKLOCAL(&six) ? nullptr : &six;
    }
    const bool isWritten = address && ::inet_ntop(info.ai_family, address, text.data(), text.size());
    return isWritten ? text.data() : "";
}

}  // namespace

AddressList resolveHost(const std::string& host) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* first = nullptr;
    if (::getaddrinfo(host.c_str(), nullptr, &hints, &first) != 0) {
        return {};
    }
    const std::unique_ptr<addrinfo, void (*)(addrinfo*)> owned(first, ::freeaddrinfo);
    AddressList found;
    for (const auto* info = first; info; info = info->ai_next) {
        auto address = numeric(*info);
        if (!address.empty() && std::ranges::find(found, address) == found.end()) {
            found.push_back(std::move(address));
        }
    }
    return found;
}

bool isNumericHost(const std::string& host) {
    in_addr four{};
    return host.starts_with('[') || ::inet_pton(AF_INET, host.c_str(), &four) == 1;
}

std::string resolveEntry(const std::string& host, const std::string& port, const AddressList& addresses) {
    std::string entry = host + ":" + port;
    char separator = ':';
    for (const auto& address : addresses) {
        const bool isSix = address.find(':') != std::string::npos;
        entry += separator + (isSix ? "[" + address + "]" : address);
        separator = ',';
    }
    return entry;
}

const AddressList* HostAddresses::find(const std::string& host, Clock::Monotonic now) const {
    const auto known = hosts_.find(host);
    return known == hosts_.end() || known->second.expires <= now ? nullptr : &known->second.addresses;
}

void HostAddresses::store(const std::string& host, const AddressList& found, Clock::Monotonic now) {
    auto& known = hosts_[host];
    const auto isIn = [](const AddressList& list) {
        return [&list](const std::string& address) { return std::ranges::find(list, address) != list.end(); };
    };
    AddressList ordered;
    std::ranges::copy_if(known.addresses, std::back_inserter(ordered), isIn(found));
    std::ranges::remove_copy_if(found, std::back_inserter(ordered), isIn(known.addresses));
    known = {std::move(ordered), now + kKept};
}

void HostAddresses::noteAnswer(const std::string& host, std::string_view address) {
    const auto known = hosts_.find(host);
    if (known == hosts_.end()) {
        return;
    }
    auto& addresses = known->second.addresses;
    if (const auto answered = std::ranges::find(addresses, address); answered != addresses.end()) {
        std::ranges::rotate(addresses, answered);
    }
}

}  // namespace sentrova::platform
