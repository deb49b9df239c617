// Which audit events are collected, by the names that the configuration uses.

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
    // Every event when there are no names. A name that is not known selects nothing.
    explicit EventSelection(const std::optional<std::vector<std::string>>& names);

    // The names that select something.
    static std::span<const std::string_view> knownNames();

    // The names in the configured list, which are separated by commas and taken as they stand; an absent list has none.
    static std::optional<std::vector<std::string>> split(const std::optional<std::string>& eventsToRead);

    bool contains(std::uint16_t eventType) const { return all_ || numbers_[eventType]; }

  private:
    bool all_;
    std::bitset<65536> numbers_;
};

}  // namespace sentrova
