#include "foundation/BackgroundActivity.h"
#include "foundation/DispatchQueue.h"
#include "foundation/Mutex.h"
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

    static void wake() { NotificationCenter::defaultCenter().post({Timer::kClockChangedNotification, nullptr, {}}); }

    std::atomic<int> runs_ = 0;
};

TEST_F(BackgroundActivityTest, RunsOnceAnIntervalFromOneIntervalOn) {
    BackgroundActivity activity("grid", seconds(10), true);
    activity.schedule([this] { ++runs_; });
    EXPECT_EQ(activity.identifier(), "grid");
    clock().advance(seconds(9));
    EXPECT_EQ(runs_, 0);
    clock().advance(seconds(1));
    ASSERT_TRUE(ran(1));
    ASSERT_TRUE(clock().awaitTimerIn(seconds(10)));
    clock().advance(seconds(10));
    ASSERT_TRUE(ran(2));
    ASSERT_TRUE(clock().awaitTimerIn(seconds(10)));
    activity.invalidate();
    EXPECT_EQ(clock().pendingTimers(), 0U);
    clock().advance(seconds(100));
    EXPECT_EQ(runs_, 2);
}

TEST_F(BackgroundActivityTest, LongRunIsMadeUpForOnceAndKeepsToTheGrid) {
    BackgroundActivity activity("long", seconds(10), true);
    Semaphore mayEnd;
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

TEST_F(BackgroundActivityTest, SleepOfTheMachineIsMadeUpForOnceAtItsWake) {
    BackgroundActivity activity("slept", seconds(3600), true);
    activity.schedule([this] { ++runs_; });
    clock().setWallTime(clock().wallTime() + seconds(3599));
    wake();
    EXPECT_EQ(clock().pendingTimers(), 1U);
    clock().setWallTime(clock().wallTime() + seconds(9000));
    wake();
    ASSERT_TRUE(ran(1));
    EXPECT_TRUE(clock().awaitTimerIn(seconds(3600)));
    clock().setWallTime(clock().wallTime() - seconds(9000));
    wake();
    EXPECT_EQ(clock().pendingTimers(), 1U);
    EXPECT_EQ(runs_, 1);
}

TEST_F(BackgroundActivityTest, RunThatThrowsIsReportedAndTheNextOneComes) {
    static std::atomic<int> reports;
    reports = 0;
    DispatchQueue::setExceptionHandler([](std::string_view, std::string_view) { ++reports; });
    {
        BackgroundActivity activity("faulty", seconds(10), true);
        activity.schedule([] { throw std::runtime_error("a task's own fault"); });
        for (int i = 1; i <= 2; ++i) {
            ASSERT_TRUE(clock().awaitTimerIn(seconds(10)));
            clock().advance(seconds(10));
            EXPECT_TRUE(eventually([i] { return reports == i; }));
        }
    }
    DispatchQueue::setExceptionHandler(nullptr);
}

TEST_F(BackgroundActivityTest, RunMayEndItsOwnActivity) {
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
}

TEST_F(BackgroundActivityTest, IntervalThatIsNotAboveZeroIsRefused) {
    for (const auto interval : {seconds(0), seconds(-1)}) {
        EXPECT_THROW(BackgroundActivity("spins", interval, true), std::invalid_argument);
    }
}

}  // namespace
}  // namespace sentrova
