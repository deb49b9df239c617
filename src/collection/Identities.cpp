#include "collection/Identities.h"

#include "core/GlobalConstants.h"
#include "core/LogSource.h"
#include "core/PropertyListHandler.h"
#include "core/TaskManager.h"

#include <memory>

namespace sentrova {

namespace {

constexpr LogSource kLog("DomainUtil");

constexpr const char* kDirectoryTool = "/usr/sbin/dsconfigad";
constexpr std::string_view kHostName = "HostName";

std::optional<std::string> textOf(const Value& value) {
    const auto* text = value.string();
    return text ? std::optional(*text) : std::nullopt;
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

Identities::Identities(platform::Directory& directory, Clock& clock)
    : directory_(directory), userNames_(clock), groupNames_(clock) {}

std::optional<std::string> Identities::domainName() {
    if (auto domain = known(GlobalConstants::DOMAIN_NAME)) {
        return domain;
    }
    return askDirectoryTool().domain;
}

std::optional<std::string> Identities::hostName() {
    if (auto host = known(kHostName)) {
        return host;
    }
    auto host = askDirectoryTool().host;
    kLog.debug("hostname is returned {}", orNull(host));
    return host;
}

void Identities::setDomainName(const std::optional<std::string>& domain) {
    {
        MutexLock lock(mutex_);
        if (!domain_) {
            domain_.emplace();
        }
    }
    remember(GlobalConstants::DOMAIN_NAME, domain);
}

std::optional<std::string> Identities::known(std::string_view key) {
    MutexLock lock(mutex_);
    return domain_ ? textOf((*domain_)[key]) : std::nullopt;
}

void Identities::remember(std::string_view key, const std::optional<std::string>& value) {
    MutexLock lock(mutex_);
    if (domain_ && value) {
        domain_->set(key, *value);
    }
}

// Runs the directory tool. Its answer is remembered once setDomainName has been called.
Identities::DomainBinding Identities::askDirectoryTool() {
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
    } catch (const platform::ProcessLaunchError& error) {
        kLog.error("{}", error.what());
        return binding;
    }
    if (binding.host && binding.host->ends_with('$')) {
        binding.host->pop_back();
    }
    remember(GlobalConstants::DOMAIN_NAME, binding.domain);
    remember(kHostName, binding.host);
    return binding;
}

DomainUtil::UserDetails Identities::knownDetails(const std::string& user) {
    MutexLock lock(mutex_);
    const auto found = details_.find(user);
    return found == details_.end() ? nullptr : found->second;
}

DomainUtil::UserDetails Identities::userDetails(const std::string& user) {
    if (auto details = knownDetails(user)) {
        return details;
    }
    setUserDetails(user);
    return knownDetails(user);
}

void Identities::setUserDetails(const std::string& user) {
    const auto records = directory_.usersNamed(user);
    if (!records) {
        kLog.error("{}", records.error().description);
        return;
    }
    if (records->empty()) {
        return;
    }
    // If several records have the name, the last one counts.
    Dictionary details;
    for (const auto* attribute : {DomainUtil::kODAttributeTypePrimaryNTDomain, DomainUtil::kODAttributeTypeUniqueID,
                                  DomainUtil::kODAttributeTypeSMBSID, DomainUtil::kODAttributeTypeRecordName}) {
        details.set(attribute, valuesOrNone(records->back(), attribute));
    }
    MutexLock lock(mutex_);
    details_.insert_or_assign(user, std::make_shared<const Dictionary>(std::move(details)));
}

std::string Identities::userName(std::uint32_t id) {
    return userNames_.find(id, [this](std::uint32_t wanted) { return directory_.userName(wanted); })
        .value_or(signedText(id));
}

std::string Identities::groupName(std::uint32_t id) {
    return groupNames_.find(id, [this](std::uint32_t wanted) { return directory_.groupName(wanted); })
        .value_or(signedText(id));
}

}  // namespace sentrova
