// The forms in which the content of the spool is shown.

#pragma once

#include "control/Console.h"
#include "control/SpoolContent.h"
#include "foundation/value/Value.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace sentrova::control {

// A line per file, for people. `now` is in seconds since 1970.
std::string spoolText(const std::vector<SpooledFile>& files, std::optional<std::uint64_t> openEvents, std::int64_t now,
                      const Console& console);
// docs/sentrovactl.md describes the keys.
Dictionary spoolJson(const std::vector<SpooledFile>& files, std::optional<std::uint64_t> openEvents, std::int64_t now);

// One object, with a line per event. Throws std::runtime_error if an event cannot be JSON.
std::string eventsJson(std::string_view name, const Array& events);

}  // namespace sentrova::control
