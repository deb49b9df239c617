// Converts dates to calendar fields in the device's time zone, and back. Safe from any thread.

#pragma once

#include "foundation/value/Value.h"

namespace sentrova {

struct CalendarFields {
    int year = 1970;
    int month = 1;
    int day = 1;
    int hour = 0;
    int minute = 0;
    int second = 0;
};

class Calendar {
  public:
    Calendar() = delete;

    static CalendarFields fields(Date date);

    // Values out of range carry over: 32 January is 1 February. A time that daylight saving skips becomes a time after
    // the gap. For a time that occurs twice, the C library chooses one.
    static Date date(const CalendarFields& fields);
};

}  // namespace sentrova
