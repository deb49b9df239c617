// A point in time of the wall clock.

#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace sentrova {

using Date = std::chrono::system_clock::time_point;

// Seconds since 1970: whole ones, truncated toward zero, and as a real number.
std::int64_t epochSeconds(Date date);
double epochSecondsExact(Date date);
// The date of that many seconds since 1970. Out of range, it is the nearest date.
Date dateFromEpoch(double seconds);

// A date as log messages show it: "2026-11-15 15:58:40 +0000", always in UTC.
std::string universalText(Date date);

}  // namespace sentrova
