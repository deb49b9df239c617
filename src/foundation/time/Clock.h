// Where the agent's time comes from: the wall clock, the monotonic clock, and every wait.

#pragma once

#include "foundation/value/Date.h"

#include <chrono>
#include <cstdint>
#include <functional>

namespace sentrova {

// Safe from any thread. The agent has one clock; tests hand in one that they move by hand.
class Clock {
  public:
    using Duration = std::chrono::nanoseconds;
    using Monotonic = std::chrono::steady_clock::time_point;
    using TimerId = std::uint64_t;

    virtual ~Clock() = default;

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

    TimerId after(Duration delay, std::function<void()> function) {
        return schedule(monotonicTime() + delay, std::move(function));
    }

    // Whole seconds since 1970 of the wall clock, truncated.
    std::int64_t epochSeconds() { return sentrova::epochSeconds(wallTime()); }

  protected:
    Clock() = default;
    Clock(const Clock&) = default;
    Clock& operator=(const Clock&) = default;
};

}  // namespace sentrova
