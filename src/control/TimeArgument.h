// Times as arguments and in output.

#pragma once

#include <cstdint>
#include <ctime>
#include <optional>
#include <string>
#include <string_view>

namespace sentrova::control {

// Reads a time argument: seconds since 1970; ISO 8601 with "Z" or an offset, or without one in the local zone; a number
// with s, m, h or d, that long before `now`; or "yesterday HH:MM" in the local zone. `now` and the result are seconds
// since 1970. Returns nothing for a text that is no time.
std::optional<std::int64_t> timeArgument(std::string_view text, std::int64_t now);

// The forms that timeArgument takes, for help and messages.
inline constexpr const char* kTimeForms =
    "seconds since 1970, ISO 8601 (local without an offset), 90s, 15m, 2h or 3d ago, or \"yesterday HH:MM\"";

// The fields of the time in the local zone; the argument is in seconds since 1970.
std::tm localFields(std::int64_t seconds);

// "2024-03-05 09:12:44 CET", in the local zone; the argument is in seconds since 1970.
std::string timeText(std::int64_t seconds);

// "3 s", "12 min", "5 h", "2 d": a duration in its largest whole unit.
std::string durationText(std::int64_t seconds);

}  // namespace sentrova::control
