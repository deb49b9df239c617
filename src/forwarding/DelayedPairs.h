// Counts the pairs of notifications that the spool owes: one pair per event, due ten seconds after the event came. take
// hands them out one at a time.
//
// One timer or list entry per event would cost memory for every event of a burst, long after the events have been
// written to files. Pairs that fall due within kRunLength of each other therefore share one run: a common due time and
// a count. A run takes the latest due time of its pairs, so no pair is early, and each is late by less than kRunLength.
// Memory grows with the duration of a burst, not with the number of its events.

#pragma once

#include "foundation/run/Clock.h"

#include <cstdint>
#include <deque>

namespace sentrova {

// Not thread-safe.
class DelayedPairs {
  public:
    // The longest time between the first and the last due time in a run.
    static constexpr std::chrono::milliseconds kRunLength{10};

    // Adds one pair.
    void add(Clock::Monotonic due);
    // Removes one pair that is due at `now`. Returns false if none is due.
    bool take(Clock::Monotonic now);

    bool empty() const { return runs_.empty(); }
    // When the next run falls due. Must not be called if empty.
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
