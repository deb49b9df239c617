#include "foundation/run/Timer.h"
#include "support/ManualClock.h"

#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace sentrova {
namespace {

using std::chrono::hours;
using std::chrono::minutes;

class TimerTest : public ::testing::Test {
  protected:
    static std::optional<Date> anHourLater(Date fired, Date now) {
        return fired + hours(1) * ((now - fired) / hours(1) + 1);
    }
    static std::optional<Date> never(Date /*fired*/, Date /*now*/) { return std::nullopt; }
    void setClock(Date date) {
        clock_.setWallTime(date);
        notifications_.post({Timer::kClockChangedNotification, nullptr, {}});
    }

    testing::ManualClock clock_;
    NotificationCenter notifications_;
    Date start_ = clock_.wallTime();
    std::vector<Date> firings_;
    std::function<void()> note_ = [this] { firings_.push_back(clock_.wallTime()); };
};

TEST_F(TimerTest, FiresOnItsThreadAtEachDateAndOnceForAllMissedOnes) {
    Timer timer(clock_, notifications_, start_ + hours(1), anHourLater, note_);
    std::thread thread([&timer] { timer.run(); });
    for (int i = 0; i < 2; ++i) {
        ASSERT_TRUE(clock_.awaitTimerIn(hours(1)));
        // A refused timer is retried.
        clock_.refuse(1);
        clock_.advance(hours(1));
    }
    ASSERT_TRUE(clock_.awaitTimerIn(hours(1)));
    // The machine sleeps through four dates.
    setClock(start_ + minutes(390));
    EXPECT_TRUE(clock_.awaitTimerIn(minutes(30)));
    timer.invalidate();
    thread.join();
    EXPECT_EQ(firings_, (std::vector<Date>{start_ + hours(1), start_ + hours(2), start_ + minutes(390)}));
}

TEST_F(TimerTest, DateInThePastFiresAtOnceAndTheFunctionMayEndTheTimer) {
    Timer(clock_, notifications_, start_ - hours(1), never, note_).run();
    EXPECT_EQ(firings_.size(), 1U);

    Timer* own = nullptr;
    Timer ended(clock_, notifications_, start_, anHourLater, [&] {
        note_();
        own->invalidate();
    });
    own = &ended;
    ended.run();
    ended.run();
    EXPECT_EQ(firings_.size(), 2U) << "an invalidated timer fired, or a timer not at all";
}

TEST_F(TimerTest, TimerFollowsAChangedWallClockOnceTheChangeIsNoticed) {
    Timer timer(clock_, notifications_, start_ + hours(10), never, note_);
    std::thread thread([&timer] { timer.run(); });
    ASSERT_TRUE(clock_.awaitTimerIn(hours(10)));
    // The clock is set back. The old alarm must not fire the timer, even if nobody reports the change.
    clock_.setWallTime(start_ - hours(2));
    clock_.advance(hours(10));
    ASSERT_TRUE(clock_.awaitTimerIn(hours(2)));
    setClock(start_ + hours(11));
    thread.join();
    EXPECT_EQ(firings_, std::vector<Date>{start_ + hours(11)});
}

}  // namespace
}  // namespace sentrova
