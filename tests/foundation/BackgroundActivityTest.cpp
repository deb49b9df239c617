#include "foundation/BackgroundActivity.h"
#include "foundation/NotificationCenter.h"
#include "foundation/Timer.h"
#include "support/AgentFixture.h"

#include <atomic>
#include <stdexcept>

#include <gtest/gtest.h>

namespace sentrova {
namespace {

using std::chrono::seconds;

class BackgroundActivityTest : public ::testing::Test, protected testing::AgentFixture {
  protected:
    // Waits until that many runs have begun.
    bool ran(int times) {
        return eventually([&] { return runs_ == times; });
    }
    void setClock(seconds by) {
        clock().setWallTime(clock().wallTime() + by);
        NotificationCenter::defaultCenter().post({Timer::kClockChangedNotification, nullptr, {}});
    }

    std::atomic<int> runs_ = 0;
};

TEST_F(BackgroundActivityTest, RunsOncePerIntervalEvenAfterARunThrowsOrATimerIsRefused) {
    static std::atomic<int> reports;
    reports = 0;
    DispatchQueue::setExceptionHandler([](std::string_view, std::string_view) { ++reports; });
    BackgroundActivity activity("grid", seconds(10), true);
    activity.schedule([this] {
        ++runs_;
        throw std::runtime_error("a task's own fault");
    });
    clock().advance(seconds(9));
    EXPECT_EQ(runs_, 0);
    for (int i = 1; i <= 3; ++i) {
        clock().refuse(i == 2 ? 1 : 0);
        clock().advance(seconds(i == 1 ? 1 : 10));
        ASSERT_TRUE(eventually([i] { return reports >= i; }));
        ASSERT_TRUE(clock().awaitTimerIn(seconds(10)));
    }
    activity.invalidate();
    EXPECT_EQ(clock().pendingTimers(), 0U);
    clock().advance(seconds(100));
    EXPECT_EQ(runs_, 3);
    EXPECT_EQ(reports, 4);
    DispatchQueue::setExceptionHandler(nullptr);
}

TEST_F(BackgroundActivityTest, RunsMissedDuringALongOneBecomeOneAndTheGridIsKept) {
    Semaphore mayEnd;
    BackgroundActivity activity("long", seconds(10), true);
    activity.schedule([this, &mayEnd] {
        if (++runs_ == 1) {
            mayEnd.wait();
        }
    });
    clock().advance(seconds(10));
    ASSERT_TRUE(ran(1));
    clock().advance(seconds(35));
    EXPECT_EQ(runs_, 1);
    mayEnd.signal();
    // At 45 s: the run of 40 s is late, the next one is due at 50 s.
    ASSERT_TRUE(clock().awaitTimerIn(seconds(-5)));
    clock().advance(seconds(0));
    ASSERT_TRUE(ran(2));
    EXPECT_TRUE(clock().awaitTimerIn(seconds(5)));
}

TEST_F(BackgroundActivityTest, WakeRunsAMissedTaskOnceEvenDuringARunOrWhileTheTimerFires) {
    Semaphore mayEnd;
    BackgroundActivity activity("slept", seconds(3600), true);
    activity.schedule([this, &mayEnd] {
        ++runs_;
        mayEnd.wait();
    });
    setClock(seconds(3599));
    EXPECT_EQ(clock().pendingTimers(), 1U);
    const auto firing = clock().takeNext();
    setClock(seconds(9000));
    ASSERT_TRUE(ran(1));
    firing();
    // Asleep during the run for longer than the interval: the next run follows at once.
    setClock(seconds(3600));
    mayEnd.signal();
    ASSERT_TRUE(clock().awaitTimerIn(seconds(0)));
    firing();
    EXPECT_EQ(clock().pendingTimers(), 1U);
    clock().advance(seconds(0));
    ASSERT_TRUE(ran(2));
    mayEnd.signal();
    ASSERT_TRUE(clock().awaitTimerIn(seconds(3600)));
    setClock(seconds(-9000));
    EXPECT_EQ(clock().pendingTimers(), 1U);
    EXPECT_EQ(runs_, 2);
}

TEST_F(BackgroundActivityTest, RunMayEndItsOwnActivityAndIntervalsMustBePositive) {
    auto activity = std::make_unique<BackgroundActivity>("own end", seconds(10), true);
    Semaphore done;
    activity->schedule([&] {
        activity.reset();
        done.signal();
    });
    clock().advance(seconds(10));
    done.wait();
    clock().advance(seconds(100));
    EXPECT_EQ(clock().pendingTimers(), 0U);
    BackgroundActivity ended("ended first", seconds(10), true);
    ended.invalidate();
    ended.schedule([] {});
    EXPECT_EQ(clock().pendingTimers(), 0U);
    EXPECT_THROW(BackgroundActivity("spins", seconds(0), true), std::invalid_argument);
    EXPECT_THROW(BackgroundActivity("spins", seconds(-1), true), std::invalid_argument);
}

}  // namespace
}  // namespace sentrova
