// Counts things that fall due at a later time, in runs of equal times, and hands them back one at a time when due.

#pragma once

#include "foundation/time/Clock.h"

#include <cstdint>
#include <deque>

namespace sentrova {

// For one thread at a time. However many are added in a burst, the memory taken grows with the length of the burst in
// time alone.
class DelayedPairs {
  public:
    // What falls due within this time of one another falls due together, at the latest of the times.
    static constexpr std::chrono::milliseconds kRunLength{10};

    void add(Clock::Monotonic due);
    // Takes one that is due; false when there is none.
    bool take(Clock::Monotonic now);

    bool empty() const { return runs_.empty(); }
    // When the next one falls due; only when there is one.
    Clock::Monotonic nextDue() const { return runs_.front().due; }

  private:
    struct Run {
        Clock::Monotonic begin;
        Clock::Monotonic due;
        std::uint64_t count;
    };
    std::deque<Run> runs_;
};

}  // namespace sentrova
