// Where the agent's time comes from: the wall clock, the monotonic clock, and every wait.
//
// One clock serves the process. Tests put a manual one in its place and move it by hand.

#pragma once

#include "foundation/Value.h"

#include <chrono>
#include <cstdint>
#include <functional>

namespace sentrova {

class Clock {
  public:
    using Duration = std::chrono::nanoseconds;
    using Monotonic = std::chrono::steady_clock::time_point;
    using TimerId = std::uint64_t;

    virtual ~Clock() = default;

    // The process's clock: the system's own unless another one was installed. Never null.
    static Clock& shared();
    // Starts the thread of the system's clock, and waits for it while the system grants none. Called at the start of
    // the process: without that thread no timer would run, the one that tries a refused thread again among them.
    static void startSystemClock();
    // Puts a clock in the place of the system's (null: the system's again). The caller keeps it alive while it is used;
    // only for times at which nothing waits.
    static void install(Clock* clock);

    // The device's date, which people and time servers may set back and forth.
    virtual Date wallTime() = 0;
    // Never goes back; counts only while the machine is awake.
    virtual Monotonic monotonicTime() = 0;

    // Calls the function once, on the clock's own thread, when the monotonic time has come. The function only hands its
    // work on: it must not block, and must not wait for a queue. Never called from within schedule.
    // An exception of the function is reported, and the clock goes on.
    virtual TimerId schedule(Monotonic due, std::function<void()> function) = 0;
    // Takes a timer back. Returns false when its function has been called or is being called.
    virtual bool cancel(TimerId timer) = 0;

    // Blocks the calling thread.
    void sleepFor(Duration duration);

    TimerId after(Duration delay, std::function<void()> function) {
        return schedule(monotonicTime() + delay, std::move(function));
    }

    // Whole seconds since 1970 of the wall clock, truncated.
    std::int64_t epochSeconds();
};

// A date as whole seconds since 1970, truncated toward zero, and as a real number of seconds.
std::int64_t epochSeconds(Date date);
double epochSecondsExact(Date date);
Date dateFromEpoch(double seconds);

}  // namespace sentrova
