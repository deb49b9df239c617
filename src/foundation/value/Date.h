// A point in time of the wall clock.

#pragma once

#include <chrono>
#include <cstdint>
#include <string>

namespace sentrova {

using Date = std::chrono::system_clock::time_point;

// A date as whole seconds since 1970, truncated toward zero, and as a real number of seconds.
std::int64_t epochSeconds(Date date);
double epochSecondsExact(Date date);
// Seconds beyond the range of dates give the nearest date.
Date dateFromEpoch(double seconds);

// The form that a date has inside a message: "2026-11-15 15:58:40 +0000", in UTC whatever the zone of the device.
std::string universalText(Date date);

}  // namespace sentrova
