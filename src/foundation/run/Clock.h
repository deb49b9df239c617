// The agent's source of time: the wall clock, the monotonic clock and all timers.

#pragma once

#include "foundation/value/Date.h"

#include <chrono>
#include <cstdint>
#include <functional>

namespace sentrova {

// Safe from any thread. The agent has one clock; tests pass in one that they move by hand.
class Clock {
  public:
    using Duration = std::chrono::nanoseconds;
    using Monotonic = std::chrono::steady_clock::time_point;
    using TimerId = std::uint64_t;

    virtual ~Clock() = default;

    // The device's date. People and time servers may set it forward and back.
    virtual Date wallTime() = 0;
    // Never goes back, and stands still while the machine sleeps.
    virtual Monotonic monotonicTime() = 0;

    // Calls the function once, on the clock's own thread, as soon as the monotonic time reaches `due`; never from
    // within schedule. All timers share that thread, so the function must not block or wait for a queue. An exception
    // from the function is reported, and the clock continues.
    virtual TimerId schedule(Monotonic due, std::function<void()> function) = 0;
    // Cancels a timer. Returns false if its function has been called or is being called, or the timer is unknown.
    virtual bool cancel(TimerId timer) = 0;

    TimerId after(Duration delay, std::function<void()> function) {
        return schedule(monotonicTime() + delay, std::move(function));
    }

    // The wall clock in whole seconds since 1970, truncated.
    std::int64_t epochSeconds() { return sentrova::epochSeconds(wallTime()); }

  protected:
    Clock() = default;
    Clock(const Clock&) = default;
    Clock& operator=(const Clock&) = default;
};

}  // namespace sentrova
