// Calls a function at given dates of the wall clock, on the thread that calls run.

#pragma once

#include "foundation/run/Clock.h"
#include "foundation/run/Mutex.h"
#include "foundation/run/NotificationCenter.h"

#include <functional>
#include <memory>
#include <optional>

namespace sentrova {

// If a date passes while the machine sleeps, or because the clock is set forward, the timer fires as soon as the
// notification below is posted. It fires once for all dates missed meanwhile.
class Timer {
  public:
    // Returns the next date, given the date that fired and the current date. An absent date ends the timer.
    using Next = std::function<std::optional<Date>(Date fired, Date now)>;

    // Posted when the wall clock may have jumped: after a wake, and after somebody set the clock.
    static constexpr const char* kClockChangedNotification = "NSWorkspaceDidWakeNotification";

    // The clock and the centre must outlive the timer.
    Timer(Clock& clock, NotificationCenter& notifications, Date fireDate, Next next, std::function<void()> function);

    // Blocks the calling thread until there is no further date or the timer is invalidated. Rethrows the function's
    // exception.
    void run() EXCLUDES(mutex_);

    // Ends the timer. Safe from any thread and from the function itself. Does not wait for a running function.
    void invalidate() EXCLUDES(mutex_);

    // The date that `run` waits for. Absent outside of run and during the function. Safe from any thread.
    std::optional<Date> nextDate() EXCLUDES(mutex_);

  private:
    // Shared with the clock's callbacks, which may run after the timer is destroyed.
    struct Alarm {
        Mutex mutex;
        Condition changed;
        bool rung GUARDED_BY(mutex) = false;

        void ring() EXCLUDES(mutex);
    };

    // Returns false if the timer is invalidated.
    bool waitUntil(Date date) EXCLUDES(mutex_);
    bool invalidated() EXCLUDES(mutex_);
    void setAwaited(std::optional<Date> date) EXCLUDES(mutex_);

    Clock& clock_;
    NotificationCenter& notifications_;
    const Date fireDate_;
    const Next next_;
    const std::function<void()> function_;
    const std::shared_ptr<Alarm> alarm_ = std::make_shared<Alarm>();

    Mutex mutex_;
    bool invalidated_ GUARDED_BY(mutex_) = false;
    std::optional<Date> awaited_ GUARDED_BY(mutex_);
};

}  // namespace sentrova
