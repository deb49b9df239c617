// Date patterns and times of day. Input: a pattern, a text and the eight bytes of a date, separated by line feeds.

#include "foundation/time/DateFormat.h"
#include "foundation/value/Text.h"
#include "fuzz/Fuzz.h"
#include "operations/DailyTime.h"
#include "platform/icu/IcuDates.h"
#include "support/ManualClock.h"

#include <array>
#include <cstring>

namespace sentrova::testing {

void fuzz(std::span<const std::uint8_t> input) {
    using namespace std::chrono;
    static const bool zoneIsSet = ::setenv("TZ", "UTC", 1) == 0;
    require(zoneIsSet, "the zone is set");
    static ManualClock clock;
    static const auto library = platform::makeIcuDates();
    static DateFormat dates(clock, *library);
    const auto lines = parts(asText(input), '\n', 3);
    const auto pattern = lines[0];
    const auto text = lines.size() > 1 ? lines[1] : std::string_view();
    std::uint64_t bits = 0;
    if (lines.size() > 2) {
        std::memcpy(&bits, lines[2].data(), std::min(lines[2].size(), sizeof(bits)));
    }
    // Half of the range of dates. Dates near its ends are not of interest.
    const Date any{milliseconds(static_cast<std::int64_t>(bits) % (std::int64_t{1} << 43))};

    require(isValidUtf8(dates.format(pattern, any)), "a formatted date is text");
    require(isValidUtf8(universalText(any)) && !dates.longStyle(any).empty(), "every date has a text");
    if (const auto date = dates.parse(pattern, text)) {
        require(isValidUtf8(dates.format(pattern, *date)), "a parsed date has a text");
    }

    constexpr std::array kOwnPatterns = {"yyyy-MM-dd HH:mm:ss Z", "E, d MMM yyyy HH:mm:ss Z", "yyyyMMddHHmmssSSS",
                                         "yyyy-MM-dd"};
    const Date present{milliseconds(bits % (std::uint64_t{1} << 42))};
    for (const auto* own : kOwnPatterns) {
        const auto written = dates.format(own, present);
        const auto read = dates.parse(own, written);
        require(read && dates.format(own, *read) == written, "the agent reads the dates that it writes", written);
        static_cast<void>(dates.parse(own, text));
    }

    if (const auto time = DailyTime::parse(text)) {
        const auto first = time->firstAfter(present);
        require(first > present - seconds(1) && first <= present + hours(24), "a daily time comes within a day", text);
        const auto interval = seconds(1 + bits % 1'000'000);
        const auto next = time->nextAfter(first, interval, first);
        require(next > first && next <= first + interval, "the next time comes within the interval", text);
    }
}

}  // namespace sentrova::testing
