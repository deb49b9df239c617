// A clock that stands still until a test moves it.

#pragma once

#include "foundation/Clock.h"
#include "foundation/Mutex.h"

#include <condition_variable>
#include <map>

namespace sentrova::testing {

// Installs itself as the process's clock for its lifetime.
class ManualClock final : public Clock {
  public:
    // Begins at 15 November 2026, 12:00:00 UTC.
    ManualClock();
    explicit ManualClock(Date start);
    ~ManualClock() override;

    Date wallTime() override EXCLUDES(mutex_);
    Monotonic monotonicTime() override EXCLUDES(mutex_);
    TimerId schedule(Monotonic due, std::function<void()> function) override EXCLUDES(mutex_);
    bool cancel(TimerId timer) override EXCLUDES(mutex_);

    // Moves both clocks; every timer that comes due meanwhile runs on this thread, at its time and in order, those that
    // are set on the way among them.
    void advance(Duration duration) EXCLUDES(mutex_);

    // Moves the wall clock alone, as a person or a time server does.
    void setWallTime(Date date) EXCLUDES(mutex_);

    std::size_t pendingTimers() EXCLUDES(mutex_);

    // Blocks until some thread waits for, or has asked to be called at, a time exactly this far away. Fails a test that
    // waits in vain by returning false after a minute.
    [[nodiscard]] bool awaitTimerIn(Duration delay) EXCLUDES(mutex_);

  private:
    using Key = std::pair<Monotonic, TimerId>;

    Mutex mutex_{LockRank::clock};
    Condition scheduled_;
    std::map<Key, std::function<void()>> timers_ GUARDED_BY(mutex_);
    TimerId lastId_ GUARDED_BY(mutex_) = 0;
    Date wall_ GUARDED_BY(mutex_);
    Monotonic monotonic_ GUARDED_BY(mutex_);
};

}  // namespace sentrova::testing
