// A time of day at which a task runs, and the dates on which it occurs.

#pragma once

#include "foundation/value/Value.h"

#include <chrono>
#include <optional>
#include <string_view>

namespace sentrova {

class DailyTime {
  public:
    // Parses "HH:mm:ss". Returns nothing for any other text and for an hour, minute or second out of range.
    static std::optional<DailyTime> parse(std::string_view text);

    // The next occurrence: today, or tomorrow if the time has passed. A time equal to now, to the second, counts as
    // today.
    Date firstAfter(Date now) const;

    // The first date after now that is a whole number of intervals after `fired`. Intervals of whole days keep the time
    // of day when the clocks change. The interval must be above zero.
    Date nextAfter(Date fired, std::chrono::microseconds interval, Date now) const;

  private:
    DailyTime(int hour, int minute, int second) : hour_(hour), minute_(minute), second_(second) {}

    // This time on the day of the date, or that many days later.
    Date onDayOf(Date date, int daysLater) const;

    int hour_;
    int minute_;
    int second_;
};

}  // namespace sentrova
