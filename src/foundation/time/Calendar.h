// Dates taken apart into the calendar fields of the device's time zone, and put together again. Safe from any thread.

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

    // Fields beyond their range are carried over: the 32nd of a month is the 1st or so of the next. A time that a clock
    // change skips becomes one after it; of one that occurs twice the zone's rules choose.
    static Date date(const CalendarFields& fields);
};

}  // namespace sentrova
