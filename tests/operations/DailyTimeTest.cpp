#include "foundation/run/Current.h"
#include "foundation/time/DateFormat.h"
#include "operations/DailyTime.h"
#include "support/AgentFixture.h"

#include <cstdlib>
#include <tuple>

#include <gtest/gtest.h>

namespace sentrova {
namespace {

using std::chrono::hours;
using std::chrono::milliseconds;
using std::chrono::minutes;
using std::chrono::seconds;

class DailyTimeTest : public ::testing::Test, protected testing::AgentFixture {
  protected:
    void setZone(const char* zone) {
        ::setenv("TZ", zone, 1);
        clock().advance(seconds(1));
    }
    static Date at(const char* text) { return Current<DateFormat>::get().parse("yyyy-MM-dd HH:mm:ss Z", text).value(); }
};

TEST_F(DailyTimeTest, FirstFiringIsTodayUnlessTheTimeHasPassed) {
    const std::tuple<const char*, const char*, const char*, const char*> cases[] = {
        {"UTC", "02:00:00", "2026-11-15 02:00:00 +0000", "2026-11-15 02:00:00 +0000"},
        {"UTC", "02:00:00", "2026-11-15 02:00:01 +0000", "2026-11-16 02:00:00 +0000"},
        {"UTC", "02:30:10", "2026-11-15 02:29:59 +0000", "2026-11-15 02:30:10 +0000"},
        {"UTC", "0:0:0", "2026-12-31 23:59:59 +0000", "2027-01-01 00:00:00 +0000"},
        {"Asia/Tokyo", "08:00:00", "2026-11-14 22:00:00 +0000", "2026-11-14 23:00:00 +0000"},
        // The night in which the clocks skip 02:30: one hour later.
        {"Europe/Berlin", "02:30:00", "2026-03-28 12:00:00 +0100", "2026-03-29 03:30:00 +0200"},
        {"Europe/Berlin", "04:00:00", "2026-03-28 12:00:00 +0100", "2026-03-29 04:00:00 +0200"},
        // The night in which one hour occurs twice.
        {"Europe/Berlin", "04:00:00", "2026-10-24 12:00:00 +0200", "2026-10-25 04:00:00 +0100"},
    };
    for (const auto& [zone, time, now, first] : cases) {
        setZone(zone);
        EXPECT_EQ(DailyTime::parse(time)->firstAfter(at(now)), at(first)) << time << " after " << now;
    }
}

TEST_F(DailyTimeTest, OnlyTimesOfDayParse) {
    for (const auto* text : {"", "02", "02:00:", ":00:00", "24:00:00", "02:60:00", "02:00:60", "-1:00:00",
                             "02:00:00:00", "02:00:00pm", " 2:00:00", "2.5:00:00", "99999999999:00:00"}) {
        EXPECT_FALSE(DailyTime::parse(text)) << text;
    }
    EXPECT_TRUE(DailyTime::parse("23:59:59"));
}

TEST_F(DailyTimeTest, NextFiringIsTheFirstMultipleOfTheIntervalAfterNow) {
    const std::tuple<const char*, const char*, milliseconds, const char*, const char*> cases[] = {
        {"UTC", "2026-11-15 02:00:00 +0000", hours(1), "2026-11-15 05:00:00 +0000", "2026-11-15 06:00:00 +0000"},
        {"UTC", "2026-11-15 02:00:00 +0000", minutes(90), "2026-11-15 05:10:00 +0000", "2026-11-15 06:30:00 +0000"},
        {"UTC", "2026-11-15 02:00:00 +0000", hours(24), "2026-11-18 09:00:00 +0000", "2026-11-19 02:00:00 +0000"},
        {"UTC", "2026-11-15 02:00:00 +0000", milliseconds(2500), "2026-11-15 02:00:04 +0000",
         "2026-11-15 02:00:05 +0000"},
        // The clock was set back after the timer fired.
        {"UTC", "2026-11-15 02:00:00 +0000", hours(1), "2026-11-14 02:00:00 +0000", "2026-11-15 03:00:00 +0000"},
        // Intervals of days keep the time of day when the clocks change; intervals of hours do not.
        {"Europe/Berlin", "2026-03-28 04:00:00 +0100", hours(24), "2026-03-28 04:00:00 +0100",
         "2026-03-29 04:00:00 +0200"},
        {"Europe/Berlin", "2026-10-24 04:00:00 +0200", hours(48), "2026-10-24 04:00:00 +0200",
         "2026-10-26 04:00:00 +0100"},
        {"Europe/Berlin", "2026-10-25 00:00:00 +0200", hours(12), "2026-10-25 00:00:00 +0200",
         "2026-10-25 11:00:00 +0100"},
    };
    for (const auto& [zone, fired, interval, now, next] : cases) {
        setZone(zone);
        const auto time = DailyTime::parse(Current<DateFormat>::get().format("HH:mm:ss", at(fired)));
        EXPECT_EQ(time->nextAfter(at(fired), interval, at(now)), at(next)) << fired << " seen at " << now;
    }
}

}  // namespace
}  // namespace sentrova
