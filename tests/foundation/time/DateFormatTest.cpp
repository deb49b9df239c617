#include "foundation/time/DateFormat.h"
#include "platform/icu/IcuDates.h"
#include "support/ManualClock.h"

#include <cstdlib>
#include <ctime>
#include <future>
#include <tuple>

#include <fmt/format.h>
#include <gtest/gtest.h>

namespace sentrova {
namespace {

using std::chrono::milliseconds;
using std::chrono::nanoseconds;
using std::chrono::seconds;

// 15 November 2026, 15:58:40 UTC.
constexpr Date kDate{seconds(1794758320)};

class DateFormatTest : public ::testing::Test {
  protected:
    ~DateFormatTest() override { setZone("UTC"); }
    void setZone(const char* zone) {
        ::setenv("TZ", zone, 1);
        ::tzset();
        clock_.advance(seconds(1));
    }

    testing::ManualClock clock_;
    const std::unique_ptr<DateLibrary> library_ = platform::makeIcuDates();
    DateFormat dates_{clock_, *library_};
};

TEST_F(DateFormatTest, PatternsFollowTheDevicesZone) {
    const std::tuple<const char*, const char*, Date, const char*> cases[] = {
        {"UTC", "E, d MMM yyyy HH:mm:ss Z", kDate, "Sun, 15 Nov 2026 15:58:40 +0000"},
        {"UTC", "yyyyMMddHHmmssSSS zzz", kDate + nanoseconds(123'999'999), "20261115155840123 UTC"},
        {"UTC", "yyyyMMddHHmmssSSS", Date(nanoseconds(-1)), "19691231235959999"},
        {"Asia/Kolkata", "yyyy-MM-dd HH:mm:ss Z", kDate, "2026-11-15 21:28:40 +0530"},
        {"America/New_York", "HH:mm zzz", kDate, "10:58 EST"},
        // An hour that occurs twice, at the end of daylight saving.
        {"Europe/Paris", "HH:mm Z", Date(seconds(1792888200)), "02:30 +0200"},
        {"Europe/Paris", "HH:mm Z", Date(seconds(1792891800)), "02:30 +0100"},
    };
    for (const auto& [zone, pattern, date, text] : cases) {
        setZone(zone);
        EXPECT_EQ(dates_.format(pattern, date), text) << zone;
    }
    setZone("UTC");
    const auto text = dates_.longStyle(kDate);
    for (const auto* part : {"November", "15", "2026", "58:40", "UTC"}) {
        EXPECT_NE(text.find(part), std::string::npos) << text;
    }
    EXPECT_EQ(universalText(kDate), "2026-11-15 15:58:40 +0000");
    EXPECT_EQ(universalText(Date(nanoseconds(-1))), "1969-12-31 23:59:59 +0000");
    EXPECT_EQ(universalText(Date::min()), "1677-09-21 00:12:43 +0000");
}

TEST_F(DateFormatTest, PlainPatternsGiveTheLibrarysText) {
    // A quote is not a plain pattern, so the library formats it.
    const auto byTheLibrary = [this](const std::string& pattern, Date date) {
        auto text = dates_.format(pattern + "''", date);
        text.pop_back();
        return text;
    };
    for (const auto* zone : {"UTC", "America/St_Johns", "Europe/Paris", "Australia/Lord_Howe"}) {
        setZone(zone);
        for (std::int64_t second = -86400; second < 9'000'000'000; second += 40'000'003) {
            const auto date = Date(seconds(second) + milliseconds(second % 1000));
            for (const auto* pattern : {"yyyy-MM-dd HH:mm:ss Z", "E, d MMM HH:mm:ss", "yyyyMMddHHmmssSSS"}) {
                EXPECT_EQ(dates_.format(pattern, date), byTheLibrary(pattern, date)) << zone;
            }
        }
    }
}

TEST_F(DateFormatTest, OnlyCompleteAndValidDatesParse) {
    constexpr auto kPattern = "yyyy-MM-dd HH:mm:ss";
    EXPECT_EQ(dates_.parse(kPattern, "2020-01-01 00:00:00"), Date(seconds(1577836800)));
    EXPECT_EQ(dates_.parse("yyyy-MM-dd HH:mm:ss Z", "2026-11-15 21:28:40 +0530"), kDate);
    EXPECT_EQ(dates_.parse("E, d MMM yyyy HH:mm:ss Z", "Sun, 15 Nov 2026 15:58:40 +0000"), kDate);
    EXPECT_EQ(dates_.parse("HH:mm", "06:30"), dates_.parse(kPattern, "2000-01-01 06:30:00"));
    for (const auto* text : {"", "soon", "2020-01-01", "2020-01-01 00:00:00 ", "2020-01-01 00:00:00x",
                             "2020-02-30 00:00:00", "2020-01-01 24:00:01", "2020-13-01 00:00:00"}) {
        EXPECT_EQ(dates_.parse(kPattern, text), std::nullopt) << text;
    }
    EXPECT_EQ(dates_.parse("yyyyMMddHHmmssSSS", "20461204103132657"), Date(milliseconds(2427532292657)))
        << "to the last millisecond";
    setZone("Europe/Paris");
    EXPECT_EQ(dates_.parse(kPattern, "2020-01-01 00:00:00"), Date(seconds(1577833200)));
}

TEST_F(DateFormatTest, ManyPatternsFromManyThreadsGiveTheirOwnText) {
    std::vector<std::future<void>> threads;
    for (int thread = 0; thread < 4; ++thread) {
        threads.push_back(std::async(std::launch::async, [this, thread] {
            for (int i = thread * 1000; i < thread * 1000 + 100; ++i) {
                EXPECT_EQ(dates_.format(fmt::format("yyyy '{}'", i), kDate), fmt::format("2026 {}", i));
            }
        }));
    }
    threads.clear();
}

}  // namespace
}  // namespace sentrova
