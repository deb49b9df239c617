#include "control/TimeArgument.h"

#include <array>
#include <cctype>
#include <charconv>
#include <ctime>

#include <fmt/format.h>

namespace sentrova::control {

std::tm localFields(std::int64_t seconds) {
    const auto time = static_cast<std::time_t>(seconds);
    std::tm fields{};
    ::localtime_r(&time, &fields);
    return fields;
}

namespace {

constexpr std::int64_t kMinute = 60;
constexpr std::int64_t kHour = 60 * kMinute;
constexpr std::int64_t kDay = 24 * kHour;
// The last second of the year 9999.
constexpr std::int64_t kLatest = 253402300799;

// Takes a text from its beginning, piece by piece. After a mismatch, everything fails.
class Scanner {
  public:
    explicit Scanner(std::string_view text) : rest_(text) {}

    bool isAtEnd() const { return rest_.empty(); }

    bool take(std::string_view expected) {
        if (!rest_.starts_with(expected)) {
            return false;
        }
        rest_.remove_prefix(expected.size());
        return true;
    }

    // A number of exactly `digits` digits, from `least` to `most`.
    std::optional<int> number(std::size_t digits, int least, int most) {
        int value = 0;
        for (std::size_t i = 0; i < digits; ++i) {
            if (i >= rest_.size() || rest_[i] < '0' || rest_[i] > '9') {
                return std::nullopt;
            }
            value = value * 10 + (rest_[i] - '0');
        }
        rest_.remove_prefix(digits);
        return value >= least && value <= most ? std::optional(value) : std::nullopt;
    }

    // Drops a fraction of a second: whole seconds are compared.
    bool dropFraction() {
        if (!take(".") && !take(",")) {
            return true;
        }
        const auto end = std::min(rest_.find_first_not_of("0123456789"), rest_.size());
        rest_.remove_prefix(end);
        return end > 0;
    }

  private:
    std::string_view rest_;
};

std::optional<std::int64_t> wholeNumber(std::string_view text) {
    std::int64_t value = 0;
    const auto [end, problem] = std::from_chars(text.data(), text.data() + text.size(), value);
    const bool isWhole = problem == std::errc() && end == text.data() + text.size() && !text.empty() && text[0] != '-';
    return isWhole && value <= kLatest ? std::optional(value) : std::nullopt;
}

std::optional<std::int64_t> ago(std::string_view text, std::int64_t now) {
    if (text.empty()) {
        return std::nullopt;
    }
    std::int64_t unit = 0;
    switch (text.back()) {
        case 's':
            unit = 1;
            break;
        case 'm':
            unit = kMinute;
            break;
        case 'h':
            unit = kHour;
            break;
        case 'd':
            unit = kDay;
            break;
        default:
            return std::nullopt;
    }
    const auto count = wholeNumber(text.substr(0, text.size() - 1));
    return count && *count <= now / unit ? std::optional(now - *count * unit) : std::nullopt;
}

// Nothing if the date does not exist, as 30 February.
std::optional<std::int64_t> localTime(std::tm fields) {
    const auto wanted = fields;
    fields.tm_isdst = -1;
    const auto seconds = std::mktime(&fields);
    const bool isSame = fields.tm_mday == wanted.tm_mday && fields.tm_mon == wanted.tm_mon;
    return seconds >= 0 && isSame ? std::optional<std::int64_t>(seconds) : std::nullopt;
}

std::optional<std::int64_t> universalTime(std::tm fields, std::int64_t offset) {
    const auto wanted = fields;
    const auto seconds = ::timegm(&fields);
    const bool isSame = fields.tm_mday == wanted.tm_mday && fields.tm_mon == wanted.tm_mon;
    return isSame && seconds - offset >= 0 ? std::optional<std::int64_t>(seconds - offset) : std::nullopt;
}

// "HH:MM" and, if `withSeconds`, ":SS" with a fraction, which may be missing.
bool takeTime(Scanner& scanner, std::tm& fields, bool withSeconds) {
    const auto hour = scanner.number(2, 0, 23);
    const bool hasColon = scanner.take(":");
    const auto minute = scanner.number(2, 0, 59);
    if (!hour || !hasColon || !minute) {
        return false;
    }
    fields.tm_hour = *hour;
    fields.tm_min = *minute;
    if (withSeconds && scanner.take(":")) {
        const auto second = scanner.number(2, 0, 60);
        if (!second || !scanner.dropFraction()) {
            return false;
        }
        fields.tm_sec = *second;
    }
    return true;
}

std::optional<std::int64_t> zoneOffset(Scanner& scanner) {
    if (scanner.take("Z") || scanner.take("z")) {
        return 0;
    }
    const int sign = scanner.take("-") ? -1 : 1;
    if (sign > 0 && !scanner.take("+")) {
        return std::nullopt;
    }
    const auto hours = scanner.number(2, 0, 23);
    scanner.take(":");
    const auto minutes = scanner.isAtEnd() ? std::optional(0) : scanner.number(2, 0, 59);
    return hours && minutes ? std::optional(sign * (*hours * kHour + *minutes * kMinute)) : std::nullopt;
}

std::optional<std::int64_t> iso8601(std::string_view text) {
    Scanner scanner(text);
    std::tm fields{};
    const auto year = scanner.number(4, 1970, 9999);
    const bool hasDash = scanner.take("-");
    const auto month = scanner.number(2, 1, 12);
    const bool hasSecondDash = scanner.take("-");
    const auto day = scanner.number(2, 1, 31);
    if (!year || !hasDash || !month || !hasSecondDash || !day) {
        return std::nullopt;
    }
    fields.tm_year = *year - 1900;
    fields.tm_mon = *month - 1;
    fields.tm_mday = *day;
    if (scanner.isAtEnd()) {
        return localTime(fields);
    }
    if ((!scanner.take("T") && !scanner.take("t") && !scanner.take(" ")) || !takeTime(scanner, fields, true)) {
        return std::nullopt;
    }
    if (scanner.isAtEnd()) {
        return localTime(fields);
    }
    const auto offset = zoneOffset(scanner);
    return offset && scanner.isAtEnd() ? universalTime(fields, *offset) : std::nullopt;
}

std::optional<std::int64_t> yesterday(std::string_view text, std::int64_t now) {
    Scanner scanner(text);
    auto fields = localFields(now);
    fields.tm_sec = 0;
    if (!scanner.take("yesterday ") || !takeTime(scanner, fields, false) || !scanner.isAtEnd()) {
        return std::nullopt;
    }
    fields.tm_isdst = -1;
    --fields.tm_mday;
    return std::mktime(&fields);
}

}  // namespace

std::optional<std::int64_t> timeArgument(std::string_view text, std::int64_t now) {
    if (const auto seconds = wholeNumber(text)) {
        return seconds;
    }
    if (const auto past = ago(text, now)) {
        return past;
    }
    if (const auto past = yesterday(text, now)) {
        return past;
    }
    return iso8601(text);
}

std::string timeText(std::int64_t seconds) {
    const auto fields = localFields(seconds);
    std::array<char, 64> text{};
    const auto length = std::strftime(text.data(), text.size(), "%Y-%m-%d %H:%M:%S %Z", &fields);
    return {text.data(), length};
}

std::string durationText(std::int64_t seconds) {
    if (seconds < kMinute) {
        return fmt::format("{} s", seconds);
    }
    if (seconds < kHour) {
        return fmt::format("{} min", seconds / kMinute);
    }
    return seconds < 2 * kDay ? fmt::format("{} h", seconds / kHour) : fmt::format("{} d", seconds / kDay);
}

}  // namespace sentrova::control
