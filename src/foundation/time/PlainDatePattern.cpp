#include "foundation/time/PlainDatePattern.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <iterator>

#include <fmt/format.h>

namespace sentrova {

namespace {

constexpr std::array<std::string_view, 11> kFields = {"yyyy", "MM", "MMM", "dd",  "d", "E",
                                                      "HH",   "mm", "ss",  "SSS", "Z"};
constexpr std::array<std::string_view, 7> kDays = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
constexpr std::array<std::string_view, 12> kMonths = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                                      "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

bool standsForItself(char c) {
    const bool isLetter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
    return static_cast<unsigned char>(c) < 0x80 && !isLetter && c != '\'';
}

template <std::size_t Count>
std::string_view nameAt(const std::array<std::string_view, Count>& names, int place) {
    return names[std::min(static_cast<std::size_t>(place), names.size() - 1)];
}

}  // namespace

std::optional<PlainDatePattern> PlainDatePattern::of(std::string_view pattern) {
    PlainDatePattern plain;
    while (!pattern.empty()) {
        const auto length = std::min(pattern.find_first_not_of(pattern.front()), pattern.size());
        const auto run = pattern.substr(0, length);
        const bool isField = std::ranges::find(kFields, run) != kFields.end();
        if (!isField && !standsForItself(run.front())) {
            return std::nullopt;
        }
        plain.runs_.push_back({run.front(), length});
        pattern.remove_prefix(length);
    }
    return plain;
}

std::string PlainDatePattern::format(const std::tm& time, int millisecond) const {
    std::string text;
    for (const auto& run : runs_) {
        append(run, time, millisecond, text);
    }
    return text;
}

void PlainDatePattern::append(const Run& run, const std::tm& time, int millisecond, std::string& text) {
    const auto number = [&](int value) { fmt::format_to(std::back_inserter(text), "{:0{}}", value, run.length); };
    switch (run.letter) {
        case 'y':
            number(time.tm_year + 1900);
            break;
        case 'M':
            if (run.length == 3) {
                text += nameAt(kMonths, time.tm_mon);
            } else {
                number(time.tm_mon + 1);
            }
            break;
        case 'd':
            number(time.tm_mday);
            break;
        case 'E':
            text += nameAt(kDays, time.tm_wday);
            break;
        case 'H':
            number(time.tm_hour);
            break;
        case 'm':
            number(time.tm_min);
            break;
        case 's':
            number(time.tm_sec);
            break;
        case 'S':
            number(millisecond);
            break;
        case 'Z': {
            const auto minutes = std::labs(time.tm_gmtoff) / 60;
            fmt::format_to(std::back_inserter(text), "{}{:02}{:02}", time.tm_gmtoff < 0 ? '-' : '+', minutes / 60,
                           minutes % 60);
            break;
        }
        default:
            text.append(run.length, run.letter);
    }
}

}  // namespace sentrova
