#include "collection/DomainUtil.h"

#include "collection/Identities.h"
#include "collection/bsm/ErrorNumbers.h"
#include "foundation/run/Current.h"

#include <array>
#include <cstring>
#include <system_error>

#include <fmt/format.h>

namespace sentrova {

std::optional<std::string> DomainUtil::getDomainName() {
    return Current<Identities>::get().domainName();
}

std::optional<std::string> DomainUtil::getHostName() {
    return Current<Identities>::get().hostName();
}

void DomainUtil::setDomainName(const std::optional<std::string>& domain) {
    Current<Identities>::get().setDomainName(domain);
}

DomainUtil::UserDetails DomainUtil::getUserDetails(const std::string& user) {
    return Current<Identities>::get().userDetails(user);
}

void DomainUtil::setUserDetails(const std::string& user) {
    Current<Identities>::get().setUserDetails(user);
}

std::string DomainUtil::getUserNameFromID(std::uint32_t id) {
    return Current<Identities>::get().userName(id);
}

std::string DomainUtil::getGroupNameFromID(std::uint32_t id) {
    return Current<Identities>::get().groupName(id);
}

std::string DomainUtil::getIpAddressFromID(std::uint32_t address) {
    std::array<std::uint8_t, 4> bytes{};
    std::memcpy(bytes.data(), &address, bytes.size());
    return fmt::format("{}.{}.{}.{}", bytes[0], bytes[1], bytes[2], bytes[3]);
}

std::string DomainUtil::getEventTypeText(std::uint8_t status) {
    const auto number = bsm::au_bsm_to_errno(status);
    if (!number) {
        return fmt::format("failure: Unknown error: {}", status);
    }
    return *number == 0 ? "success" : "failure : " + std::generic_category().message(*number);
}

}  // namespace sentrova
