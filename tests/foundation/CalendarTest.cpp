#include "foundation/Calendar.h"
#include "foundation/DateFormat.h"
#include "support/AgentFixture.h"

#include <array>
#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

namespace sentrova {
namespace {

class CalendarTest : public ::testing::Test, protected testing::AgentFixture {
  protected:
    static std::string text(Date date) {
        const auto [year, month, day, hour, minute, second] = Calendar::fields(date);
        std::string whole;
        for (const int part : std::array{year, month, day, hour, minute, second}) {
            whole += std::to_string(part) + ' ';
        }
        return whole;
    }
};

TEST_F(CalendarTest, FieldsAreThoseOfTheDevicesZoneAndCarryOver) {
    struct Case {
        const char* zone;
        CalendarFields fields;
        const char* universal;
        const char* normalised;
    };
    const Case cases[] = {
        {"UTC", {2026, 11, 15, 12, 0, 0}, "2026-11-15 12:00:00 +0000", "2026 11 15 12 0 0 "},
        {"UTC", {2026, 11, 31, 2, 0, 0}, "2026-12-01 02:00:00 +0000", "2026 12 1 2 0 0 "},
        {"UTC", {2027, 2, 29, 2, 0, 0}, "2027-03-01 02:00:00 +0000", "2027 3 1 2 0 0 "},
        {"UTC", {2028, 2, 29, 2, 0, 0}, "2028-02-29 02:00:00 +0000", "2028 2 29 2 0 0 "},
        {"UTC", {2026, 12, 32, 23, 59, 59}, "2027-01-01 23:59:59 +0000", "2027 1 1 23 59 59 "},
        {"UTC", {1969, 12, 31, 23, 59, 59}, "1969-12-31 23:59:59 +0000", "1969 12 31 23 59 59 "},
        {"Europe/Berlin", {2026, 7, 1, 1, 30, 0}, "2026-06-30 23:30:00 +0000", "2026 7 1 1 30 0 "},
        // 02:30 does not happen on that day.
        {"Europe/Berlin", {2026, 3, 29, 2, 30, 0}, "2026-03-29 01:30:00 +0000", "2026 3 29 3 30 0 "},
        {"Europe/Berlin", {2026, 3, 29, 3, 0, 0}, "2026-03-29 01:00:00 +0000", "2026 3 29 3 0 0 "},
        {"Asia/Kathmandu", {2026, 1, 1, 0, 0, 0}, "2025-12-31 18:15:00 +0000", "2026 1 1 0 0 0 "},
    };
    for (const auto& [zone, fields, universal, normalised] : cases) {
        SCOPED_TRACE(universal);
        ::setenv("TZ", zone, 1);
        EXPECT_EQ(DateFormat::universal(Calendar::date(fields)), universal);
        EXPECT_EQ(text(Calendar::date(fields)), normalised);
    }
    // The parts of a second do not round up.
    ::setenv("TZ", "UTC", 1);
    const auto justBefore = Calendar::date({2026, 1, 1, 0, 0, 0}) - std::chrono::nanoseconds(1);
    EXPECT_EQ(text(justBefore), "2025 12 31 23 59 59 ");
}

}  // namespace
}  // namespace sentrova
