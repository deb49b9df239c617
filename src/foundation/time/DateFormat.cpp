#include "foundation/time/DateFormat.h"

#include <sys/stat.h>

#include <cstdlib>

namespace sentrova {

namespace {

// More patterns than the agent uses. The limit bounds the memory if callers keep passing new patterns.
constexpr std::size_t kMaximumPatterns = 32;
constexpr std::chrono::seconds kZoneCheckInterval{1};

// Rounds down, so that no text shows a time in the future.
auto milliseconds(Date date) {
    return std::chrono::floor<std::chrono::milliseconds>(date);
}

}  // namespace

DateFormat::ZoneSource DateFormat::ZoneSource::current() {
    ZoneSource source;
    // Safe with threads, because the agent never changes its environment.
    if (const auto* variable = std::getenv("TZ")) {  // NOLINT(concurrency-mt-unsafe)
        source.variable = variable;
        // Distinguishes an empty variable from an unset one.
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

DateFormat::DateFormat(Clock& clock, DateLibrary& library)
    : clock_(clock), library_(library), source_(ZoneSource::current()), checked_(clock.monotonicTime()) {
    ::tzset();
    // The library may be older than this object, and remember an earlier zone.
    library_.zoneChanged();
}

std::string DateFormat::format(std::string_view pattern, Date date) {
    const auto whole = milliseconds(date);
    const auto second = std::chrono::floor<std::chrono::seconds>(whole).time_since_epoch().count();
    MutexLock lock(mutex_);
    followZoneLocked();
    auto& known = patternLocked(pattern);
    if (known.lastSecond != second) {
        known.lastText = textLocked(known, pattern, whole);
        known.lastSecond = known.wholeSeconds ? std::optional<std::int64_t>(second) : std::nullopt;
    }
    return known.lastText;
}

std::optional<Date> DateFormat::parse(std::string_view pattern, std::string_view text) {
    MutexLock lock(mutex_);
    followZoneLocked();
    return library_.parse(pattern, text);
}

std::string DateFormat::longStyle(Date date) {
    MutexLock lock(mutex_);
    followZoneLocked();
    return library_.longStyle(milliseconds(date));
}

DateFormat::Pattern& DateFormat::patternLocked(std::string_view pattern) {
    if (const auto known = patterns_.find(pattern); known != patterns_.end()) {
        return known->second;
    }
    if (patterns_.size() >= kMaximumPatterns) {
        patterns_.clear();
    }
    auto& made = patterns_[std::string(pattern)];
    made.plain = PlainDatePattern::of(pattern);
    made.wholeSeconds = pattern.find_first_of("SA") == std::string_view::npos;
    return made;
}

std::string DateFormat::textLocked(const Pattern& known, std::string_view pattern, Milliseconds date) {
    using std::chrono::sys_days;
    constexpr Milliseconds kBegin = sys_days(std::chrono::year(1970) / 1 / 1);
    constexpr Milliseconds kEnd = sys_days(std::chrono::year(9999) / 12 / 31);
    if (known.plain && date >= kBegin && date < kEnd) {
        const auto second = std::chrono::floor<std::chrono::seconds>(date);
        const std::time_t whole = second.time_since_epoch().count();
        std::tm local{};
        if (::localtime_r(&whole, &local)) {
            return known.plain->format(local, static_cast<int>((date - second).count()));
        }
    }
    return library_.format(pattern, date);
}

void DateFormat::followZoneLocked() {
    const auto now = clock_.monotonicTime();
    if (now - checked_ < kZoneCheckInterval) {
        return;
    }
    checked_ = now;
    auto source = ZoneSource::current();
    if (source == source_) {
        return;
    }
    source_ = std::move(source);
    ::tzset();
    library_.zoneChanged();
    patterns_.clear();
}

}  // namespace sentrova
