// What an event takes from outside of its record: names, directory details, and who was logged on.

#pragma once

#include "collection/DomainUtil.h"
#include "foundation/value/Value.h"

#include <cstdint>
#include <optional>
#include <string>

namespace sentrova {

// The functions without a comment have the meaning of those in DomainUtil.h and currentLoginUtility.h.
class EventContext {
  public:
    virtual ~EventContext() = default;
    EventContext(const EventContext&) = delete;
    EventContext& operator=(const EventContext&) = delete;

    // The running agent's. Its functions need the agent's parts, and are safe from any thread.
    static EventContext& ofAgent();

    virtual std::optional<std::string> domainName() = 0;
    // The machine's account name in the domain. Absent outside a domain.
    virtual std::optional<std::string> hostName() = 0;
    virtual std::string userName(std::uint32_t id) = 0;
    virtual std::string groupName(std::uint32_t id) = 0;
    virtual DomainUtil::UserDetails userDetails(const std::string& user) = 0;

    virtual void addToLoginHistory(const Dictionary& entry, double time) = 0;
    virtual std::optional<Dictionary> logonUserAt(std::int64_t time) = 0;
    // Blocks for as long as the name of a Touch ID record's user may take to arrive.
    virtual void awaitLogonUser() = 0;

  protected:
    EventContext() = default;
};

}  // namespace sentrova
