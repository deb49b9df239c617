// Dates as text, in Unicode date patterns ("yyyy-MM-dd HH:mm:ss Z"), in the device's time zone.
//
// Patterns give the same text in every locale: English names, the Gregorian calendar, the digits 0 to 9. Parts of a
// millisecond are cut off. Safe from any thread. A change of the device's time zone is noticed within a second.

#pragma once

#include "foundation/Value.h"

#include <optional>
#include <string>
#include <string_view>

namespace sentrova {

class DateFormat {
  public:
    // Empty when the pattern is none.
    static std::string format(std::string_view pattern, Date date);

    // Nothing when the text does not follow the pattern from its first to its last character, or names no real date.
    // What the pattern leaves out is that of 1 January 2000, 00:00.
    static std::optional<Date> parse(std::string_view pattern, std::string_view text);

    // Date and time in their long styles, for people: "15 November 2026 at 15:58:40 UTC" in the locale's form.
    static std::string longStyle(Date date);

    // The form that a date has inside a message: "2026-11-15 15:58:40 +0000", in UTC whatever the zone.
    static std::string universal(Date date);
};

}  // namespace sentrova
