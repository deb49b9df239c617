#include "foundation/DateFormat.h"

#include "foundation/Clock.h"
#include "foundation/Mutex.h"
#include "foundation/PlainDatePattern.h"
#include "foundation/ProcessWide.h"

#include <sys/stat.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <ctime>
#include <map>
#include <memory>

#include <fmt/format.h>
#include <unicode/gregocal.h>
#include <unicode/smpdtfmt.h>
#include <unicode/timezone.h>

namespace sentrova {

namespace {

icu::UnicodeString unicode(std::string_view text) {
    return icu::UnicodeString::fromUTF8(icu::StringPiece(text.data(), static_cast<std::int32_t>(text.size())));
}

// What the device's time zone depends on; equal as long as nobody has changed it.
struct ZoneSource {
    std::string variable;
    dev_t device = 0;
    ino_t file = 0;
    std::time_t changed = 0;

    static ZoneSource present() {
        ZoneSource source;
        // The agent never changes its environment.
        if (const auto* variable = std::getenv("TZ")) {  // NOLINT(concurrency-mt-unsafe)
            source.variable = variable;
            // Set but empty is not the same as not set.
            source.variable += '\n';
        }
        struct stat status = {};
        if (::stat("/etc/localtime", &status) == 0) {
            source.device = status.st_dev;
            source.file = status.st_ino;
            source.changed = status.st_ctime;
        }
        return source;
    }

    friend bool operator==(const ZoneSource&, const ZoneSource&) = default;
};

// Formatters by pattern, ready to use: making one takes a thousand times as long as using it.
class Formatters {
  public:
    Formatters() : source_(ZoneSource::present()) { ::tzset(); }

    std::string format(std::string_view pattern, UDate date) EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        auto& formatter = formatterLocked(pattern);
        const auto second = std::floor(date / U_MILLIS_PER_SECOND);
        if (formatter.lastSecond != second) {
            formatter.lastText = textLocked(formatter, pattern, date);
            formatter.lastSecond = formatter.wholeSeconds ? std::optional(second) : std::nullopt;
        }
        return formatter.lastText;
    }

    std::optional<UDate> parse(std::string_view pattern, std::string_view text) EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        const auto* const format = libraryFormatLocked(formatterLocked(pattern), pattern);
        UErrorCode status = U_ZERO_ERROR;
        icu::GregorianCalendar calendar(zoneLocked(), icu::Locale("en_US_POSIX"), status);
        if (!format || U_FAILURE(status)) {
            return std::nullopt;
        }
        // A pattern without a day means the platform's reference day.
        calendar.clear();
        calendar.set(2000, UCAL_JANUARY, 1);
        calendar.setLenient(false);
        icu::ParsePosition position(0);
        const auto whole = unicode(text);
        format->parse(whole, calendar, position);
        const auto date = calendar.getTime(status);
        if (position.getIndex() != whole.length() || position.getErrorIndex() >= 0 || U_FAILURE(status)) {
            return std::nullopt;
        }
        return date;
    }

    std::string longStyle(UDate date) EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        followZoneLocked();
        const std::unique_ptr<icu::DateFormat> formatter(
            icu::DateFormat::createDateTimeInstance(icu::DateFormat::kLong, icu::DateFormat::kLong));
        if (!formatter) {
            return {};
        }
        formatter->setTimeZone(zoneLocked());
        icu::UnicodeString text;
        formatter->format(date, text);
        std::string result;
        return text.toUTF8String(result);
    }

  private:
    // More patterns than the agent has; a caller with ever new ones must not fill the memory.
    static constexpr std::size_t kMaximumPatterns = 32;
    static constexpr std::chrono::seconds kZoneCheckInterval{1};

    // What a pattern has been turned into, with the text that it made last, which goes for the whole second where the
    // pattern shows no part of one: the lines of a log come thousands a second.
    struct Formatter {
        std::optional<PlainDatePattern> plain;
        // Made when it is first needed; null as well for a pattern that is none.
        std::unique_ptr<icu::SimpleDateFormat> library;
        bool libraryMade = false;
        bool wholeSeconds = false;
        std::optional<double> lastSecond;
        std::string lastText;
    };

    // Set to the device's present zone.
    Formatter& formatterLocked(std::string_view pattern) REQUIRES(mutex_) {
        followZoneLocked();
        if (const auto known = formatters_.find(pattern); known != formatters_.end()) {
            return known->second;
        }
        if (formatters_.size() >= kMaximumPatterns) {
            formatters_.clear();
        }
        auto& made = formatters_[std::string(pattern)];
        made.plain = PlainDatePattern::of(pattern);
        made.wholeSeconds = pattern.find_first_of("SA") == std::string_view::npos;
        return made;
    }

    std::string textLocked(Formatter& formatter, std::string_view pattern, UDate date) REQUIRES(mutex_) {
        constexpr UDate kYear10000 = 253402300800000.0;
        if (formatter.plain && date >= 0 && date < kYear10000 - U_MILLIS_PER_DAY) {
            const auto whole = static_cast<std::int64_t>(date);
            const std::time_t second = whole / U_MILLIS_PER_SECOND;
            std::tm local{};
            if (::localtime_r(&second, &local)) {
                return formatter.plain->format(local, static_cast<int>(whole % U_MILLIS_PER_SECOND));
            }
        }
        std::string result;
        if (const auto* const format = libraryFormatLocked(formatter, pattern)) {
            icu::UnicodeString text;
            format->format(date, text);
            text.toUTF8String(result);
        }
        return result;
    }

    // Null for a pattern that is none.
    const icu::SimpleDateFormat* libraryFormatLocked(Formatter& formatter, std::string_view pattern) REQUIRES(mutex_) {
        if (formatter.libraryMade) {
            return formatter.library.get();
        }
        const auto& zone = zoneLocked();
        // A fixed locale: stored texts and file names keep their form and their digits on every device.
        UErrorCode status = U_ZERO_ERROR;
        auto format = std::make_unique<icu::SimpleDateFormat>(unicode(pattern), icu::Locale("en_US_POSIX"), status);
        formatter.libraryMade = true;
        if (U_FAILURE(status)) {
            return nullptr;
        }
        format->setTimeZone(zone);
        format->setLenient(false);
        format->setBooleanAttribute(UDAT_PARSE_PARTIAL_LITERAL_MATCH, false, status);
        formatter.library = std::move(format);
        return formatter.library.get();
    }

    const icu::TimeZone& zoneLocked() REQUIRES(mutex_) {
        if (!zone_) {
            zone_.reset(icu::TimeZone::detectHostTimeZone());
        }
        return *zone_;
    }

    void followZoneLocked() REQUIRES(mutex_) {
        const auto now = Clock::shared().monotonicTime();
        // Another clock than before may also be behind it.
        if (now >= checked_ && now - checked_ < kZoneCheckInterval) {
            return;
        }
        checked_ = now;
        auto source = ZoneSource::present();
        if (source == source_) {
            return;
        }
        source_ = std::move(source);
        ::tzset();
        zone_.reset();
        formatters_.clear();
    }

    Mutex mutex_;
    std::map<std::string, Formatter, std::less<>> formatters_ GUARDED_BY(mutex_);
    ZoneSource source_ GUARDED_BY(mutex_);
    // The library's idea of the zone; null until it is needed.
    std::unique_ptr<icu::TimeZone> zone_ GUARDED_BY(mutex_);
    Clock::Monotonic checked_ GUARDED_BY(mutex_) = Clock::shared().monotonicTime();
};

ProcessWide<Formatters> theFormatters;

// Rounded down: a millisecond that has not come yet must not show.
UDate milliseconds(Date date) {
    return static_cast<UDate>(std::chrono::floor<std::chrono::milliseconds>(date).time_since_epoch().count());
}

}  // namespace

std::string DateFormat::format(std::string_view pattern, Date date) {
    return theFormatters.get().format(pattern, milliseconds(date));
}

std::optional<Date> DateFormat::parse(std::string_view pattern, std::string_view text) {
    // The range of a date; beyond it a conversion would overflow.
    constexpr UDate kLimit = 9.2e12;
    const auto date = theFormatters.get().parse(pattern, text);
    if (!date) {
        return std::nullopt;
    }
    // Not by way of seconds, of which a real number loses the last millisecond.
    return Date(std::chrono::milliseconds(static_cast<std::int64_t>(std::clamp(*date, -kLimit, kLimit))));
}

std::string DateFormat::longStyle(Date date) {
    return theFormatters.get().longStyle(milliseconds(date));
}

std::string DateFormat::universal(Date date) {
    // In seconds: the first date of all has no beginning of its day.
    const auto seconds = std::chrono::floor<std::chrono::seconds>(date);
    const auto day = std::chrono::floor<std::chrono::days>(seconds);
    const std::chrono::year_month_day calendar(day);
    const std::chrono::hh_mm_ss time(seconds - day);
    return fmt::format("{:04}-{:02}-{:02} {:02}:{:02}:{:02} +0000", static_cast<int>(calendar.year()),
                       static_cast<unsigned>(calendar.month()), static_cast<unsigned>(calendar.day()),
                       time.hours().count(), time.minutes().count(), time.seconds().count());
}

}  // namespace sentrova
