#include "foundation/run/BackgroundActivity.h"
#include "foundation/run/Timer.h"
#include "support/Eventually.h"
#include "support/ManualClock.h"
#include "support/Threading.h"

#include <atomic>
#include <stdexcept>

#include <gtest/gtest.h>

namespace sentrova {
namespace {

using std::chrono::seconds;

class BackgroundActivityTest : public ::testing::Test {
  protected:
    // Waits until that many runs have begun.
    bool ran(int times) {
        return testing::eventually([&] { return runs_ == times; });
    }
    void setClock(seconds by) {
        clock_.setWallTime(clock_.wallTime() + by);
        notifications_.post({Timer::kClockChangedNotification, nullptr, {}});
    }

    testing::ManualClock clock_;
    NotificationCenter notifications_;
    BackgroundQueue queue_{clock_, notifications_};
    std::atomic<int> runs_ = 0;
};

TEST_F(BackgroundActivityTest, RunsOncePerIntervalEvenAfterARunThrowsOrATimerIsRefused) {
    testing::Reports reports;
    BackgroundActivity activity(queue_, "grid", seconds(10), true);
    activity.schedule([this] {
        ++runs_;
        throw std::runtime_error("a task's own fault");
    });
    clock_.advance(seconds(9));
    EXPECT_EQ(runs_, 0);
    for (int i = 1; i <= 3; ++i) {
        clock_.refuse(i == 2 ? 1 : 0);
        clock_.advance(seconds(i == 1 ? 1 : 10));
        ASSERT_TRUE(testing::eventually([&] { return reports.texts().size() >= static_cast<std::size_t>(i); }));
        ASSERT_TRUE(clock_.awaitTimerIn(seconds(10)));
    }
    activity.invalidate();
    EXPECT_EQ(clock_.pendingTimers(), 0U);
    clock_.advance(seconds(100));
    EXPECT_EQ(runs_, 3);
    EXPECT_EQ(reports.texts().size(), 4U);
}

TEST_F(BackgroundActivityTest, RunsMissedDuringALongRunBecomeOneAndLaterRunsStayOnSchedule) {
    Semaphore mayEnd;
    BackgroundActivity activity(queue_, "long", seconds(10), true);
    activity.schedule([this, &mayEnd] {
        if (++runs_ == 1) {
            mayEnd.wait();
        }
    });
    clock_.advance(seconds(10));
    ASSERT_TRUE(ran(1));
    clock_.advance(seconds(35));
    EXPECT_EQ(runs_, 1);
    mayEnd.signal();
    // At 45 s: the run due at 40 s is late; the next one is due at 50 s.
    ASSERT_TRUE(clock_.awaitTimerIn(seconds(-5)));
    clock_.advance(seconds(0));
    ASSERT_TRUE(ran(2));
    EXPECT_TRUE(clock_.awaitTimerIn(seconds(5)));
}

TEST_F(BackgroundActivityTest, WakeRunsAMissedTaskOnceEvenDuringARunOrWhileTheTimerFires) {
    Semaphore mayEnd;
    BackgroundActivity activity(queue_, "slept", seconds(3600), true);
    activity.schedule([this, &mayEnd] {
        ++runs_;
        mayEnd.wait();
    });
    setClock(seconds(3599));
    EXPECT_EQ(clock_.pendingTimers(), 1U);
    const auto firing = clock_.takeNext();
    setClock(seconds(9000));
    ASSERT_TRUE(ran(1));
    firing();
    // The machine sleeps longer than the interval during a run: the next run follows at once.
    setClock(seconds(3600));
    mayEnd.signal();
    ASSERT_TRUE(clock_.awaitTimerIn(seconds(0)));
    EXPECT_EQ(clock_.pendingTimers(), 1U);
    clock_.advance(seconds(0));
    ASSERT_TRUE(ran(2));
    mayEnd.signal();
    ASSERT_TRUE(clock_.awaitTimerIn(seconds(3600)));
    mayEnd.signal();
    firing();
    queue_.operations().waitUntilAllOperationsAreFinished();
    setClock(seconds(-9000));
    EXPECT_EQ(clock_.pendingTimers(), 1U);
    EXPECT_EQ(runs_, 2);
}

TEST_F(BackgroundActivityTest, RunMayEndItsOwnActivityAndIntervalsMustBePositive) {
    auto activity = std::make_unique<BackgroundActivity>(queue_, "own end", seconds(10), true);
    Semaphore done;
    activity->schedule([&] {
        activity.reset();
        done.signal();
    });
    clock_.advance(seconds(10));
    done.wait();
    clock_.advance(seconds(100));
    EXPECT_EQ(clock_.pendingTimers(), 0U);
    BackgroundActivity ended(queue_, "ended first", seconds(10), true);
    ended.invalidate();
    ended.schedule([] {});
    EXPECT_EQ(clock_.pendingTimers(), 0U);
    testing::Reports reports;
    BackgroundActivity queued(queue_, "ended in the queue", seconds(10), true);
    queued.schedule([this] { ++runs_; });
    {
        const testing::ThreadShortage shortage;
        clock_.advance(seconds(10));
        queued.invalidate();
    }
    clock_.advance(seconds(1));
    queue_.operations().waitUntilAllOperationsAreFinished();
    EXPECT_EQ(runs_, 0);
    EXPECT_THROW(BackgroundActivity(queue_, "spins", seconds(0), true), std::invalid_argument);
    EXPECT_THROW(BackgroundActivity(queue_, "spins", seconds(-1), true), std::invalid_argument);
}

}  // namespace
}  // namespace sentrova
