// Formats and parses dates by Unicode date patterns ("yyyy-MM-dd HH:mm:ss Z"), in the device's time zone.
//
// A pattern gives the same text in every locale: English names, the Gregorian calendar, the digits 0 to 9. Fractions of
// a millisecond are cut off. A change of the device's time zone takes effect within a second. Safe from any thread.

#pragma once

#include "foundation/run/Clock.h"
#include "foundation/run/Mutex.h"
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

// Formats the simple patterns of logs and file names itself (PlainDatePattern). All else goes to the library, which
// takes much memory from its first use on.
class DateFormat {
  public:
    // The clock and the library must outlive the object. Nobody else may use the library.
    DateFormat(Clock& clock, DateLibrary& library);
    DateFormat(const DateFormat&) = delete;
    DateFormat& operator=(const DateFormat&) = delete;

    // Empty if the pattern is invalid.
    std::string format(std::string_view pattern, Date date) EXCLUDES(mutex_);

    // Absent if the whole text does not match the pattern, or is not a real date. Fields that the pattern leaves out
    // are those of 1 January 2000, 00:00.
    std::optional<Date> parse(std::string_view pattern, std::string_view text) EXCLUDES(mutex_);

    // Date and time in the locale's long style, for people: "15 November 2026 at 15:58:40 UTC".
    std::string longStyle(Date date) EXCLUDES(mutex_);

  private:
    // Where the device's time zone comes from. A different value means that the zone may have changed.
    struct ZoneSource {
        std::string variable;
        dev_t device = 0;
        ino_t file = 0;
        std::time_t changed = 0;

        static ZoneSource current();
        friend bool operator==(const ZoneSource&, const ZoneSource&) = default;
    };
    // A pattern and its latest text. If the pattern shows no fraction of a second, the text is reused for the whole
    // second, because a log may have thousands of lines per second.
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
