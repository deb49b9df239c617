#include "operations/DailyTime.h"

#include "foundation/time/Calendar.h"

#include <array>
#include <charconv>

namespace sentrova {

namespace {

constexpr std::chrono::seconds kDay = std::chrono::hours(24);

// Removes the part up to the next ":", or the rest, from the text and returns its number. Returns nothing if the part
// is not a number from 0 to limit - 1.
std::optional<int> takePart(std::string_view& text, int limit) {
    const auto part = text.substr(0, text.find(':'));
    text.remove_prefix(std::min(part.size() + 1, text.size()));
    int number = 0;
    const auto [end, error] = std::from_chars(part.data(), part.data() + part.size(), number);
    const bool whole = error == std::errc() && end == part.data() + part.size();
    return whole && number >= 0 && number < limit ? std::optional(number) : std::nullopt;
}

}  // namespace

std::optional<DailyTime> DailyTime::parse(std::string_view text) {
    const auto hour = takePart(text, 24);
    const auto minute = takePart(text, 60);
    const auto second = takePart(text, 60);
    if (!hour || !minute || !second || !text.empty()) {
        return std::nullopt;
    }
    return DailyTime(*hour, *minute, *second);
}

Date DailyTime::onDayOf(Date date, int daysLater) const {
    auto fields = Calendar::fields(date);
    fields.day += daysLater;
    fields.hour = hour_;
    fields.minute = minute_;
    fields.second = second_;
    return Calendar::date(fields);
}

Date DailyTime::firstAfter(Date now) const {
    const auto present = Calendar::fields(now);
    const std::array presentTime{present.hour, present.minute, present.second};
    const bool isOver = presentTime > std::array{hour_, minute_, second_};
    return onDayOf(now, isOver ? 1 : 0);
}

Date DailyTime::nextAfter(Date fired, std::chrono::microseconds interval, Date now) const {
    if (interval % kDay != std::chrono::microseconds::zero()) {
        const auto missed = now < fired ? 0 : (now - fired) / interval;
        return std::chrono::time_point_cast<Date::duration>(fired + interval * (missed + 1));
    }
    const auto days = static_cast<int>(interval / kDay);
    auto next = onDayOf(fired, days);
    for (int later = 2 * days; next <= now; later += days) {
        next = onDayOf(fired, later);
    }
    return next;
}

}  // namespace sentrova
