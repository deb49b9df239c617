#include "collection/EventSelection.h"

#include <algorithm>
#include <array>
#include <string_view>

namespace sentrova {

namespace {

struct NamedEvent {
    std::string_view name;
    std::uint16_t number;
};

constexpr std::array<NamedEvent, 12> kKnownEvents = {{
    {"AUE_auth_user", 45023},
    {"AUE_sudo", 45028},
    {"AUE_login", 6152},
    {"AUE_logout", 6153},
    {"AUE_telnet", 6154},
    {"AUE_rshd", 6158},
    {"AUE_su", 6159},
    {"AUE_ssh", 6172},
    {"AUE_openssh", 32800},
    {"AUE_lw_login", 45021},
    {"AUE_lw_logout", 45022},
    {"AUE_ssauthint", 45026},
}};

}  // namespace

EventSelection::EventSelection(const std::optional<std::vector<std::string>>& names) : all_(!names || names->empty()) {
    if (all_) {
        return;
    }
    for (const auto& known : kKnownEvents) {
        if (std::ranges::find(*names, known.name) != names->end()) {
            numbers_.set(known.number);
        }
    }
}

std::span<const std::string_view> EventSelection::knownNames() {
    static constexpr auto kNames = [] {
        std::array<std::string_view, kKnownEvents.size()> names;
        std::ranges::transform(kKnownEvents, names.begin(), &NamedEvent::name);
        return names;
    }();
    return kNames;
}

std::string_view EventSelection::nameOf(std::uint16_t eventType) {
    const auto found = std::ranges::find(kKnownEvents, eventType, &NamedEvent::number);
    return found == kKnownEvents.end() ? std::string_view() : found->name;
}

std::optional<std::vector<std::string>> EventSelection::split(const std::optional<std::string>& eventsToRead) {
    if (!eventsToRead) {
        return std::nullopt;
    }
    std::vector<std::string> names;
    std::size_t begin = 0;
    for (auto comma = eventsToRead->find(','); comma != std::string::npos; comma = eventsToRead->find(',', begin)) {
        names.push_back(eventsToRead->substr(begin, comma - begin));
        begin = comma + 1;
    }
    names.push_back(eventsToRead->substr(begin));
    return names;
}

}  // namespace sentrova
