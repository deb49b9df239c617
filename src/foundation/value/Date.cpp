#include "foundation/value/Date.h"

#include <algorithm>

#include <fmt/format.h>

namespace sentrova {

std::int64_t epochSeconds(Date date) {
    return std::chrono::duration_cast<std::chrono::seconds>(date.time_since_epoch()).count();
}

double epochSecondsExact(Date date) {
    return std::chrono::duration<double>(date.time_since_epoch()).count();
}

Date dateFromEpoch(double seconds) {
    // The conversion of more seconds would overflow.
    constexpr double kLimit = 9.2e9;
    const std::chrono::duration<double> exact(std::clamp(seconds, -kLimit, kLimit));
    return Date(std::chrono::duration_cast<Date::duration>(exact));
}

std::string universalText(Date date) {
    // Splits seconds and not nanoseconds: midnight before the earliest date would be out of range.
    const auto seconds = std::chrono::floor<std::chrono::seconds>(date);
    const auto day = std::chrono::floor<std::chrono::days>(seconds);
    const std::chrono::year_month_day calendar(day);
    const std::chrono::hh_mm_ss time(seconds - day);
    return fmt::format("{:04}-{:02}-{:02} {:02}:{:02}:{:02} +0000", static_cast<int>(calendar.year()),
                       static_cast<unsigned>(calendar.month()), static_cast<unsigned>(calendar.day()),
                       time.hours().count(), time.minutes().count(), time.seconds().count());
}

}  // namespace sentrova
