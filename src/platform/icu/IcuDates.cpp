#include "platform/icu/IcuDates.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <map>

#include <unicode/gregocal.h>
#include <unicode/smpdtfmt.h>
#include <unicode/timezone.h>

namespace sentrova::platform {

namespace {

constexpr std::size_t kMaximumPatterns = 32;

icu::UnicodeString unicode(std::string_view text) {
    return icu::UnicodeString::fromUTF8(icu::StringPiece(text.data(), static_cast<std::int32_t>(text.size())));
}

UDate libraryDate(Date date) {
    return static_cast<UDate>(std::chrono::floor<std::chrono::milliseconds>(date).time_since_epoch().count());
}

// Keeps its formatters, because creating one takes a thousand times as long as using it.
class IcuDates final : public DateLibrary {
  public:
    std::string format(std::string_view pattern, Date date) override {
        std::string result;
        if (const auto* const formatter = formatterFor(pattern)) {
            icu::UnicodeString text;
            formatter->format(libraryDate(date), text);
            text.toUTF8String(result);
        }
        return result;
    }

    std::optional<Date> parse(std::string_view pattern, std::string_view text) override {
        const auto* const formatter = formatterFor(pattern);
        UErrorCode status = U_ZERO_ERROR;
        icu::GregorianCalendar calendar(zone(), icu::Locale("en_US_POSIX"), status);
        if (!formatter || U_FAILURE(status)) {
            return std::nullopt;
        }
        // Fields that the pattern leaves out are those of 1 January 2000.
        calendar.clear();
        calendar.set(2000, UCAL_JANUARY, 1);
        calendar.setLenient(false);
        icu::ParsePosition position(0);
        const auto whole = unicode(text);
        formatter->parse(whole, calendar, position);
        const auto date = calendar.getTime(status);
        if (position.getIndex() != whole.length() || position.getErrorIndex() >= 0 || U_FAILURE(status)) {
            return std::nullopt;
        }
        // Out of this range the conversion would overflow. Converts milliseconds directly: a real number of seconds
        // would lose the last millisecond.
        constexpr UDate kLimit = 9.2e12;
        return Date(std::chrono::milliseconds(static_cast<std::int64_t>(std::clamp(date, -kLimit, kLimit))));
    }

    std::string longStyle(Date date) override {
        const std::unique_ptr<icu::DateFormat> formatter(
            icu::DateFormat::createDateTimeInstance(icu::DateFormat::kLong, icu::DateFormat::kLong));
        if (!formatter) {
            return {};
        }
        formatter->setTimeZone(zone());
        icu::UnicodeString text;
        formatter->format(libraryDate(date), text);
        std::string result;
        return text.toUTF8String(result);
    }

    void zoneChanged() override {
        zone_.reset();
        formatters_.clear();
    }

  private:
    // Null for an invalid pattern.
    const icu::SimpleDateFormat* formatterFor(std::string_view pattern) {
        if (const auto known = formatters_.find(pattern); known != formatters_.end()) {
            return known->second.get();
        }
        if (formatters_.size() >= kMaximumPatterns) {
            formatters_.clear();
        }
        return formatters_.emplace(pattern, makeFormatter(pattern)).first->second.get();
    }

    std::unique_ptr<icu::SimpleDateFormat> makeFormatter(std::string_view pattern) {
        // A fixed locale, so that stored texts and file names look the same on every device.
        UErrorCode status = U_ZERO_ERROR;
        auto formatter = std::make_unique<icu::SimpleDateFormat>(unicode(pattern), icu::Locale("en_US_POSIX"), status);
        if (U_FAILURE(status)) {
            return nullptr;
        }
        formatter->setTimeZone(zone());
        formatter->setLenient(false);
        formatter->setBooleanAttribute(UDAT_PARSE_PARTIAL_LITERAL_MATCH, false, status);
        return formatter;
    }

    const icu::TimeZone& zone() {
        if (!zone_) {
            zone_.reset(icu::TimeZone::detectHostTimeZone());
        }
        return *zone_;
    }

    std::unique_ptr<icu::TimeZone> zone_;
    // Null for an invalid pattern.
    std::map<std::string, std::unique_ptr<icu::SimpleDateFormat>, std::less<>> formatters_;
};

}  // namespace

std::unique_ptr<DateLibrary> makeIcuDates() {
    return std::make_unique<IcuDates>();
}

}  // namespace sentrova::platform
