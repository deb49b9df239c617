#include "control/TimeArgument.h"

#include <cstdlib>
#include <ctime>
#include <optional>
#include <string>
#include <utility>

#include <gtest/gtest.h>

namespace sentrova::control {
namespace {

// In a zone with daylight-saving time, on the day after its beginning: the night of 8 March 2026 has 23 hours.
class TimeArgumentTest : public ::testing::Test {
  protected:
    TimeArgumentTest() { ::setenv("TZ", "America/New_York", 1), ::tzset(); }
    ~TimeArgumentTest() override { former_ ? ::setenv("TZ", former_->c_str(), 1) : ::unsetenv("TZ"), ::tzset(); }

    // Monday, 2026-03-09 12:00:00 EDT.
    static constexpr std::int64_t kNow = 1773072000;

  private:
    const char* const variable_ = std::getenv("TZ");
    const std::optional<std::string> former_ = variable_ ? std::optional<std::string>(variable_) : std::nullopt;
};

TEST_F(TimeArgumentTest, EachFormIsRead) {
    const std::pair<const char*, std::int64_t> cases[] = {
        {"0", 0},
        {"1773072000", kNow},
        {"90s", kNow - 90},
        {"15m", kNow - 900},
        {"2h", kNow - 7200},
        {"3d", kNow - 259200},
        {"yesterday 01:30", kNow - 120600},
        {"yesterday 12:00", kNow - 86400},
        {"2026-03-09T16:00:00Z", kNow},
        {"2026-03-09t16:00z", kNow},
        {"2026-03-09T17:00:00.999+01:00", kNow},
        {"2026-03-09 10:30:00-0530", kNow},
        {"2026-03-09T12:00:00", kNow},
        {"2026-03-07T12:00", kNow - 172800 + 3600},
        {"2026-03-09", kNow - 43200},
    };
    for (const auto& [text, seconds] : cases) {
        EXPECT_EQ(timeArgument(text, kNow), seconds) << text;
    }
}

TEST_F(TimeArgumentTest, WhatIsNoTimeIsRefused) {
    for (const auto* const text : {"",
                                   "soon",
                                   "-5",
                                   "5x",
                                   "h",
                                   "-2h",
                                   "1.5h",
                                   "99999999999999999999",
                                   "9999999999999d",
                                   "yesterday",
                                   "yesterday 24:00",
                                   "yesterday 12:00 ",
                                   "2026-02-30",
                                   "2026-13-01",
                                   "2026-3-9",
                                   "2026-03-09T",
                                   "2026-03-09T25:00",
                                   "2026-03-09T12",
                                   "2026-03-09T12:00:00+",
                                   "2026-03-09T12:00:00 EST",
                                   "2026-03-09T12:00:00Zx",
                                   " 5"}) {
        EXPECT_EQ(timeArgument(text, kNow), std::nullopt) << text;
    }
}

TEST_F(TimeArgumentTest, TimesAreShownWithTheNameOfTheZone) {
    EXPECT_EQ(timeText(kNow), "2026-03-09 12:00:00 EDT");
    EXPECT_EQ(timeText(kNow - 3 * 86400), "2026-03-06 11:00:00 EST");
}

}  // namespace
}  // namespace sentrova::control
