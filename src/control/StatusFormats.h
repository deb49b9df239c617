// The forms in which the status of an agent is shown. Each is made from the JSON form, StatusReport::json.

#pragma once

#include "control/Console.h"
#include "foundation/value/Value.h"

#include <cstdint>
#include <string>

namespace sentrova::control {

// In words: the problems first, then what is known. `now` is in seconds since 1970.
std::string statusText(const Dictionary& status, std::int64_t now, const Console& console);

// Prometheus' text format, for the textfile collector.
std::string statusMetrics(const Dictionary& status);

// The text of a time in seconds since 1970, in the local zone; "never" for a null.
std::string timeOrNever(const Value& time);

// "999 bytes", "1.2 kB", "35 MB".
std::string bytesText(std::int64_t bytes);

}  // namespace sentrova::control
