// A time of day at which a task runs, and the dates on which that falls.

#pragma once

#include "foundation/value/Value.h"

#include <chrono>
#include <optional>
#include <string_view>

namespace sentrova {

class DailyTime {
  public:
    // "HH:mm:ss"; nothing for any other text and for a time that no day has.
    static std::optional<DailyTime> parse(std::string_view text);

    // The next occurrence: today, or tomorrow if the time has passed. A time equal to now, to the second, counts as
    // today.
    Date firstAfter(Date now) const;

    // The first date after now that is a whole number of intervals after the one given. Intervals of whole days keep
    // the time of day when the clocks change. The interval is above zero.
    Date nextAfter(Date fired, std::chrono::microseconds interval, Date now) const;

  private:
    DailyTime(int hour, int minute, int second) : hour_(hour), minute_(minute), second_(second) {}

    // The time on the day of the date, or that many days later.
    Date onDayOf(Date date, int daysLater) const;

    int hour_;
    int minute_;
    int second_;
};

}  // namespace sentrova
