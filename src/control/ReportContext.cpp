#include "control/ReportContext.h"

#include <limits>
#include <utility>

namespace sentrova::control {

namespace {

// Records may name any number of unknown users.
constexpr std::size_t kMostRemembered = 65536;

template <class Key, class Answer, class LookUp>
const Answer& remembered(std::unordered_map<Key, Answer>& answers, const Key& key, LookUp lookUp) {
    if (const auto found = answers.find(key); found != answers.end()) {
        return found->second;
    }
    if (answers.size() >= kMostRemembered) {
        answers.clear();
    }
    return answers.emplace(key, lookUp()).first->second;
}

}  // namespace

ReportContext::ReportContext(const Surroundings& with, std::optional<std::string> domain,
                             std::optional<std::string> host)
    : with_(with), names_(with.directory, with.clock), domain_(std::move(domain)), host_(std::move(host)) {}

std::string ReportContext::userName(std::uint32_t id) {
    return remembered(users_, id, [&] { return names_.userName(id); });
}

std::string ReportContext::groupName(std::uint32_t id) {
    return remembered(groups_, id, [&] { return names_.groupName(id); });
}

DomainUtil::UserDetails ReportContext::userDetails(const std::string& user) {
    return remembered(details_, user, [&] { return names_.userDetails(user); });
}

void ReportContext::addConsoleOwner() {
    if (const auto status = with_.files.status(with_.console)) {
        Dictionary entry;
        if (auto owner = with_.directory.userName(status->owner)) {
            entry.set("uid", *std::move(owner));
        }
        addToLoginHistory(entry, epochSecondsExact(with_.clock.wallTime()));
    }
}

void ReportContext::addToLoginHistory(const Dictionary& entry, double time) {
    const auto key = Value(time).integerValue();
    history_.erase(history_.begin(), history_.lower_bound(key));
    history_.insert_or_assign(key, entry);
}

std::optional<Dictionary> ReportContext::logonUserAt(std::int64_t time) {
    const auto latest = time < std::numeric_limits<std::int64_t>::max() ? time + 1 : time;
    const auto after = history_.upper_bound(latest);
    return after == history_.begin() ? std::nullopt : std::optional(std::prev(after)->second);
}

}  // namespace sentrova::control
