#include "collection/DomainUtil.h"

#include "collection/bsm/ErrorNumbers.h"
#include "core/GlobalConstants.h"
#include "core/LogSource.h"
#include "core/PropertyListHandler.h"
#include "core/TaskManager.h"
#include "foundation/Clock.h"
#include "foundation/Mutex.h"
#include "foundation/ProcessWide.h"
#include "platform/Directory.h"

#include <array>
#include <cstring>
#include <system_error>
#include <unordered_map>

#include <fmt/format.h>

namespace sentrova {

namespace {

constexpr LogSource kLog("DomainUtil");

constexpr const char* kDirectoryTool = "/usr/sbin/dsconfigad";
constexpr std::string_view kHostName = "HostName";

// The machine's domain and account. There is no cache until the configured domain has been stored.
class DomainData {
  public:
    std::optional<std::string> find(std::string_view key) EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        const auto* value = cache_ ? (*cache_)[key].string() : nullptr;
        return value ? std::optional(*value) : std::nullopt;
    }

    void create() EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        if (!cache_) {
            cache_.emplace();
        }
    }

    void store(std::string_view key, const std::optional<std::string>& value) EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        if (cache_ && value) {
            cache_->set(key, *value);
        }
    }

  private:
    Mutex mutex_;
    std::optional<Dictionary> cache_ GUARDED_BY(mutex_);
};

class UserDetailsCache {
  public:
    DomainUtil::UserDetails find(const std::string& user) EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        const auto found = details_.find(user);
        return found == details_.end() ? nullptr : found->second;
    }

    void store(const std::string& user, DomainUtil::UserDetails details) EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        details_.insert_or_assign(user, std::move(details));
    }

  private:
    Mutex mutex_;
    // Bounded by the directory: only users that it has are stored.
    std::unordered_map<std::string, DomainUtil::UserDetails> details_ GUARDED_BY(mutex_);
};

// Remembers which name an id has, or for a second that it has none.
class NameCache {
  public:
    template <class LookUp>
    std::optional<std::string> find(std::uint32_t id, LookUp lookUp) EXCLUDES(mutex_) {
        if (id == kUnsetId) {
            return std::nullopt;
        }
        const auto now = Clock::shared().monotonicTime();
        {
            MutexLock lock(mutex_);
            if (now >= emptiedAt_ + kNameRemembered) {
                names_.clear();
                emptiedAt_ = now;
            }
            if (const auto found = names_.find(id); found != names_.end()) {
                return found->second;
            }
            if (const auto found = nameless_.find(id); found != nameless_.end() && now < found->second) {
                return std::nullopt;
            }
        }
        auto name = lookUp(id);
        MutexLock lock(mutex_);
        if (name) {
            names_.insert_or_assign(id, *name);
        } else {
            // The ids come out of records, which may hold any number of them.
            if (nameless_.size() >= kMostNameless) {
                nameless_.clear();
            }
            nameless_.insert_or_assign(id, now + kNamelessRemembered);
        }
        return name;
    }

  private:
    // What a record holds in the place of an id that was never set.
    static constexpr std::uint32_t kUnsetId = 0xFFFFFFFF;
    static constexpr std::chrono::minutes kNameRemembered{1};
    static constexpr std::chrono::seconds kNamelessRemembered{1};
    static constexpr std::size_t kMostNameless = 4096;

    Mutex mutex_;
    // Bounded by the directory.
    std::unordered_map<std::uint32_t, std::string> names_ GUARDED_BY(mutex_);
    Clock::Monotonic emptiedAt_ GUARDED_BY(mutex_);
    // Each with the time until which it is remembered.
    std::unordered_map<std::uint32_t, Clock::Monotonic> nameless_ GUARDED_BY(mutex_);
};

ProcessWide<DomainData> theDomainData;
ProcessWide<UserDetailsCache> theUserDetails;
ProcessWide<NameCache> theUserNames;
ProcessWide<NameCache> theGroupNames;

struct DomainBinding {
    std::optional<std::string> domain;
    std::optional<std::string> host;
};

std::optional<std::string> textOf(const Value& value) {
    const auto* text = value.string();
    return text ? std::optional(*text) : std::nullopt;
}

// What the directory tool says; remembered as far as there is a cache.
DomainBinding askDirectoryTool() {
    DomainBinding binding;
    try {
        TaskManager tool(kDirectoryTool, {"-show", "-xml"});
        tool.launchTaskSync();
        if (tool.taskStatus() != 0 || tool.output().empty()) {
            return binding;
        }
        const auto answer = PropertyListHandler::initWithData(tool.output()).GetValueForKey("General Info");
        const auto* general = answer.dictionary();
        if (!general) {
            return binding;
        }
        binding.domain = textOf((*general)["Active Directory Domain"]);
        binding.host = textOf((*general)["Computer Account"]);
    } catch (const ProcessLaunchError& error) {
        kLog.error(__func__, "{}", error.what());
        return binding;
    }
    if (binding.host && binding.host->ends_with('$')) {
        binding.host->pop_back();
    }
    theDomainData.get().store(GlobalConstants::DOMAIN_NAME, binding.domain);
    theDomainData.get().store(kHostName, binding.host);
    return binding;
}

Value valuesOrNone(const platform::DirectoryRecord& record, const char* attribute) {
    const auto found = record.find(attribute);
    if (found == record.end()) {
        return {};
    }
    return Array(found->second.begin(), found->second.end());
}

std::string signedText(std::uint32_t id) {
    return std::to_string(static_cast<std::int32_t>(id));
}

}  // namespace

std::optional<std::string> DomainUtil::getDomainName() {
    if (auto known = theDomainData.get().find(GlobalConstants::DOMAIN_NAME)) {
        return known;
    }
    return askDirectoryTool().domain;
}

std::optional<std::string> DomainUtil::getHostName() {
    if (auto known = theDomainData.get().find(kHostName)) {
        return known;
    }
    auto host = askDirectoryTool().host;
    kLog.debug(__func__, "hostname is returned {}", orNull(host));
    return host;
}

void DomainUtil::setDomainName(const std::optional<std::string>& domain) {
    theDomainData.get().create();
    theDomainData.get().store(GlobalConstants::DOMAIN_NAME, domain);
}

DomainUtil::UserDetails DomainUtil::getUserDetails(const std::string& user) {
    if (auto known = theUserDetails.get().find(user)) {
        return known;
    }
    setUserDetails(user);
    return theUserDetails.get().find(user);
}

void DomainUtil::setUserDetails(const std::string& user) {
    const auto records = platform::Directory::shared().usersNamed(user);
    if (!records) {
        kLog.error(__func__, "{}", records.error().description);
        return;
    }
    if (records->empty()) {
        return;
    }
    // Of several records of the name, the last one counts.
    Dictionary details;
    for (const auto* attribute : {kODAttributeTypePrimaryNTDomain, kODAttributeTypeUniqueID, kODAttributeTypeSMBSID,
                                  kODAttributeTypeRecordName}) {
        details.set(attribute, valuesOrNone(records->back(), attribute));
    }
    theUserDetails.get().store(user, std::make_shared<const Dictionary>(std::move(details)));
}

std::string DomainUtil::getUserNameFromID(std::uint32_t id) {
    return theUserNames.get()
        .find(id, [](std::uint32_t wanted) { return platform::Directory::shared().userName(wanted); })
        .value_or(signedText(id));
}

std::string DomainUtil::getGroupNameFromID(std::uint32_t id) {
    return theGroupNames.get()
        .find(id, [](std::uint32_t wanted) { return platform::Directory::shared().groupName(wanted); })
        .value_or(signedText(id));
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
