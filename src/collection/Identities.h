// Looks up the names behind the numbers in audit records: users, groups, directory details, and the machine's domain.
// DomainUtil.h describes how long each is remembered.

#pragma once

#include "collection/DomainUtil.h"
#include "collection/NameCache.h"
#include "core/MachineNames.h"
#include "foundation/run/Clock.h"
#include "foundation/run/Mutex.h"
#include "foundation/value/Value.h"
#include "platform/Directory.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>

namespace sentrova {

// Safe from any thread. No lock is held during a call of the directory or its tool.
class Identities final : public MachineNames {
  public:
    // Both arguments must outlive the object.
    Identities(platform::Directory& directory, Clock& clock);

    std::optional<std::string> domainName() override EXCLUDES(mutex_);
    std::optional<std::string> hostName() override EXCLUDES(mutex_);
    void setDomainName(const std::optional<std::string>& domain) override EXCLUDES(mutex_);

    // Returns null if the directory has no such user.
    DomainUtil::UserDetails userDetails(const std::string& user) EXCLUDES(mutex_);
    // Looks the user up in the directory and remembers the details.
    void setUserDetails(const std::string& user) EXCLUDES(mutex_);

    // The account's name, or the id as a signed number if there is no account.
    std::string userName(std::uint32_t id);
    std::string groupName(std::uint32_t id);

  private:
    struct DomainBinding {
        std::optional<std::string> domain;
        std::optional<std::string> host;
    };

    DomainBinding askDirectoryTool() EXCLUDES(mutex_);
    std::optional<std::string> known(std::string_view key) EXCLUDES(mutex_);
    DomainUtil::UserDetails knownDetails(const std::string& user) EXCLUDES(mutex_);
    void remember(std::string_view key, const std::optional<std::string>& value) EXCLUDES(mutex_);

    platform::Directory& directory_;
    NameCache userNames_;
    NameCache groupNames_;

    Mutex mutex_;
    // The machine's domain and account. Absent until setDomainName is called: nothing is remembered before that.
    std::optional<Dictionary> domain_ GUARDED_BY(mutex_);
    // Bounded by the directory, because only its users are stored.
    std::unordered_map<std::string, DomainUtil::UserDetails> details_ GUARDED_BY(mutex_);
};

}  // namespace sentrova
