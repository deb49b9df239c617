// The audit event types to collect, by the names that the configuration uses.

#pragma once

#include <bitset>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace sentrova {

class EventSelection {
  public:
    // Without names, every type is selected. An unknown name selects nothing.
    explicit EventSelection(const std::optional<std::vector<std::string>>& names);

    // All known names.
    static std::span<const std::string_view> knownNames();

    // The name of an event type. Empty for a type without one.
    static std::string_view nameOf(std::uint16_t eventType);

    // Splits the configured list at its commas. Names are not trimmed. Returns nothing for an absent list.
    static std::optional<std::vector<std::string>> split(const std::optional<std::string>& eventsToRead);

    bool contains(std::uint16_t eventType) const { return all_ || numbers_[eventType]; }

  private:
    bool all_;
    std::bitset<65536> numbers_;
};

}  // namespace sentrova
