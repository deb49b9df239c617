// Dates as text, in Unicode date patterns ("yyyy-MM-dd HH:mm:ss Z"), in the device's time zone.
//
// Patterns give the same text in every locale: English names, the Gregorian calendar, the digits 0 to 9. Parts of a
// millisecond are cut off. Safe from any thread. A change of the device's time zone is noticed within a second.

#pragma once

#include "foundation/run/Mutex.h"
#include "foundation/time/Clock.h"
#include "foundation/time/DateLibrary.h"
#include "foundation/time/PlainDatePattern.h"

#include <sys/types.h>

#include <cstdint>
#include <ctime>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace sentrova {

// Formats the patterns of logs and file names by itself, from a table of their fields. The library does the rest, and
// costs memory only once it has been used.
class DateFormat {
  public:
    // The clock and the library must outlive the object, which alone uses the library.
    DateFormat(Clock& clock, DateLibrary& library);
    DateFormat(const DateFormat&) = delete;
    DateFormat& operator=(const DateFormat&) = delete;

    // Empty when the pattern is none.
    std::string format(std::string_view pattern, Date date) EXCLUDES(mutex_);

    // Nothing when the text does not follow the pattern from its first to its last character, or names no real date.
    // What the pattern leaves out is that of 1 January 2000, 00:00.
    std::optional<Date> parse(std::string_view pattern, std::string_view text) EXCLUDES(mutex_);

    // Date and time in their long styles, for people: "15 November 2026 at 15:58:40 UTC" in the locale's form.
    std::string longStyle(Date date) EXCLUDES(mutex_);

  private:
    // What the device's time zone depends on; equal as long as nobody has changed the zone.
    struct ZoneSource {
        std::string variable;
        dev_t device = 0;
        ino_t file = 0;
        std::time_t changed = 0;

        static ZoneSource present();
        friend bool operator==(const ZoneSource&, const ZoneSource&) = default;
    };
    // A pattern with the text that it made last. The text holds for the whole second where the pattern shows no part of
    // one: the lines of a log come thousands a second.
    struct Pattern {
        std::optional<PlainDatePattern> plain;
        bool wholeSeconds = false;
        std::optional<std::int64_t> lastSecond;
        std::string lastText;
    };
    using Milliseconds = std::chrono::sys_time<std::chrono::milliseconds>;

    void followZoneLocked() REQUIRES(mutex_);
    Pattern& patternLocked(std::string_view pattern) REQUIRES(mutex_);
    std::string textLocked(const Pattern& known, std::string_view pattern, Milliseconds date) REQUIRES(mutex_);

    Clock& clock_;
    DateLibrary& library_ GUARDED_BY(mutex_);
    Mutex mutex_;
    std::map<std::string, Pattern, std::less<>> patterns_ GUARDED_BY(mutex_);
    ZoneSource source_ GUARDED_BY(mutex_);
    Clock::Monotonic checked_ GUARDED_BY(mutex_);
};

}  // namespace sentrova
