#include "foundation/run/Mutex.h"
#include "platform/posix/SystemClock.h"

#include <future>
#include <limits>
#include <stdexcept>

#include <gtest/gtest.h>

namespace sentrova {
namespace {

using std::chrono::hours;
using std::chrono::milliseconds;
using std::chrono::seconds;

TEST(SystemClockTest, SystemClockRunsTimersInOrderNeverEarlyAndEvenAfterOneThrows) {
    platform::SystemClock clock;
    const auto now = clock.monotonicTime();
    std::string order;
    std::promise<Clock::Monotonic> last;
    // The first timer blocks the clock's thread until all timers are set.
    Semaphore allSet;
    clock.schedule(now - seconds(10), [&allSet] {
        allSet.wait();
        throw std::runtime_error("a timer's own fault");
    });
    clock.schedule(now + milliseconds(5), [&] { last.set_value(clock.monotonicTime()); });
    for (const char name : {'c', 'a', 'b'}) {
        clock.schedule(now - seconds('d' - name), [&order, name] { order += name; });
    }
    allSet.signal();
    EXPECT_GE(last.get_future().get(), now + milliseconds(5));
    EXPECT_EQ(order, "abc");
}

TEST(SystemClockTest, CancelledTimerNeverRunsAndReleasesItsFunction) {
    Semaphore called;
    platform::SystemClock clock;
    auto held = std::make_shared<int>();
    const std::weak_ptr<int> heldToo = held;
    const auto far = clock.after(hours(1), [held = std::move(held)] {});
    EXPECT_FALSE(heldToo.expired());
    EXPECT_TRUE(clock.cancel(far));
    EXPECT_TRUE(heldToo.expired());
    EXPECT_FALSE(clock.cancel(far));

    // A new timer that is due first wakes the clock's thread, which waits for the distant one.
    clock.after(hours(1), [] {});
    for (int i = 0; i < 20; ++i) {
        const auto near = clock.after(seconds(0), [&called] { called.signal(); });
        called.wait();
        EXPECT_FALSE(clock.cancel(near));
    }
    // The function of a timer that has run may use the clock when it is destroyed.
    const auto useClock = [&](void*) { clock.after(seconds(0), [&called] { called.signal(); }); };
    clock.after(seconds(0), [last = std::shared_ptr<void>(nullptr, useClock)] {});
    called.wait();
}

TEST(SystemClockTest, DatesConvertToSecondsTowardZeroAndSecondsOutOfRangeAreClamped) {
    const Date halfPast{milliseconds(1'700'000'000'500)};
    EXPECT_EQ(epochSeconds(halfPast), 1'700'000'000);
    EXPECT_EQ(epochSeconds(Date(milliseconds(-500))), 0);
    EXPECT_EQ(epochSecondsExact(halfPast), 1'700'000'000.5);
    EXPECT_EQ(dateFromEpoch(1'700'000'000.5), halfPast);
    for (const double beyond : {1e300, std::numeric_limits<double>::infinity()}) {
        EXPECT_GT(dateFromEpoch(beyond), halfPast);
        EXPECT_LT(dateFromEpoch(-beyond), Date());
    }
}

}  // namespace
}  // namespace sentrova
