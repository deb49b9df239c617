#include "foundation/NotificationCenter.h"
#include "foundation/Timer.h"
#include "support/AgentFixture.h"

#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace sentrova {
namespace {

using std::chrono::hours;
using std::chrono::minutes;

class TimerTest : public ::testing::Test, protected testing::AgentFixture {
  protected:
    static std::optional<Date> anHourLater(Date fired, Date now) {
        return fired + hours(1) * ((now - fired) / hours(1) + 1);
    }
    static void noticeClock() {
        NotificationCenter::defaultCenter().post({Timer::kClockChangedNotification, nullptr, {}});
    }

    Date start_ = clock().wallTime();
};

TEST_F(TimerTest, FiresOnItsThreadAtEachDateAndOnceForThoseMissed) {
    std::vector<Date> firings;
    Timer timer(start_ + hours(1), anHourLater, [&] { firings.push_back(clock().wallTime()); });
    std::thread thread([&timer] { timer.run(); });
    for (int i = 0; i < 2; ++i) {
        ASSERT_TRUE(clock().awaitTimerIn(hours(1)));
        clock().advance(hours(1));
    }
    ASSERT_TRUE(clock().awaitTimerIn(hours(1)));
    // The machine slept through four dates.
    clock().setWallTime(start_ + minutes(390));
    noticeClock();
    EXPECT_TRUE(clock().awaitTimerIn(minutes(30)));
    timer.invalidate();
    thread.join();
    EXPECT_EQ(firings, (std::vector<Date>{start_ + hours(1), start_ + hours(2), start_ + minutes(390)}));
}

TEST_F(TimerTest, DateInThePastFiresAtOnceAndTheFunctionMayEndTheTimer) {
    int firings = 0;
    Timer once(start_ - hours(1), [](Date, Date) { return std::optional<Date>(); }, [&firings] { ++firings; });
    once.run();
    EXPECT_EQ(firings, 1);

    Timer* own = nullptr;
    Timer ended(start_, anHourLater, [&] {
        ++firings;
        own->invalidate();
    });
    own = &ended;
    ended.run();
    EXPECT_EQ(firings, 2);
    ended.run();
    EXPECT_EQ(firings, 2) << "an invalidated timer fired";
}

TEST_F(TimerTest, WallClockThatIsSetIsFollowedOnceItIsNoticed) {
    std::vector<Date> firings;
    Timer timer(
        start_ + hours(10), [](Date, Date) { return std::optional<Date>(); },
        [&] { firings.push_back(clock().wallTime()); });
    std::thread thread([&timer] { timer.run(); });
    ASSERT_TRUE(clock().awaitTimerIn(hours(10)));
    // Back: the old alarm must not count, whether or not the change is noticed.
    clock().setWallTime(start_ - hours(2));
    clock().advance(hours(10));
    ASSERT_TRUE(clock().awaitTimerIn(hours(2)));
    clock().setWallTime(start_ + hours(11));
    noticeClock();
    thread.join();
    EXPECT_EQ(firings, std::vector<Date>{start_ + hours(11)});
}

}  // namespace
}  // namespace sentrova
