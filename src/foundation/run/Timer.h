// Calls a function at dates, on the thread that runs the timer.

#pragma once

#include "foundation/run/Mutex.h"
#include "foundation/run/NotificationCenter.h"
#include "foundation/time/Clock.h"

#include <functional>
#include <memory>
#include <optional>

namespace sentrova {

// A date that passes while the machine sleeps, or that the clock is set past, is fired at the machine's wake; dates
// that were missed meanwhile are fired once.
class Timer {
  public:
    // The date after a firing, given the date that was fired and the present one; nothing ends the timer.
    using Next = std::function<std::optional<Date>(Date fired, Date now)>;

    // Posted when the wall clock may have moved on by itself: at wakes and when somebody set it.
    static constexpr const char* kClockChangedNotification = "NSWorkspaceDidWakeNotification";

    // The clock and the centre must outlive the timer.
    Timer(Clock& clock, NotificationCenter& notifications, Date fireDate, Next next, std::function<void()> function);

    // Stays on the calling thread until there is no further date, or the timer is invalidated. What the function throws
    // comes out here.
    void run() EXCLUDES(mutex_);

    // From any thread, the function among them. A run of the function that has begun is not waited for.
    void invalidate() EXCLUDES(mutex_);

  private:
    // What the clock's callbacks may still touch when the timer is gone.
    struct Alarm {
        Mutex mutex;
        Condition changed;
        bool rung GUARDED_BY(mutex) = false;

        void ring() EXCLUDES(mutex);
    };

    // False when the timer was invalidated instead.
    bool waitUntil(Date date) EXCLUDES(mutex_);
    bool invalidated() EXCLUDES(mutex_);

    Clock& clock_;
    NotificationCenter& notifications_;
    const Date fireDate_;
    const Next next_;
    const std::function<void()> function_;
    const std::shared_ptr<Alarm> alarm_ = std::make_shared<Alarm>();

    Mutex mutex_;
    bool invalidated_ GUARDED_BY(mutex_) = false;
};

}  // namespace sentrova
