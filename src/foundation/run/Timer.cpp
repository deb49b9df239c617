#include "foundation/run/Timer.h"

#include "foundation/run/Threads.h"

namespace sentrova {

void Timer::Alarm::ring() {
    MutexLock lock(mutex);
    rung = true;
    changed.notifyAll();
}

Timer::Timer(Clock& clock, NotificationCenter& notifications, Date fireDate, Next next, std::function<void()> function)
    : clock_(clock),
      notifications_(notifications),
      fireDate_(fireDate),
      next_(std::move(next)),
      function_(std::move(function)) {}

void Timer::run() {
    const auto clockChanges =
        notifications_.addObserver(kClockChangedNotification, [alarm = alarm_](const auto&) { alarm->ring(); });
    std::optional<Date> date = fireDate_;
    for (;;) {
        setAwaited(date);
        const bool isDue = date && waitUntil(*date);
        setAwaited(std::nullopt);
        if (!isDue) {
            return;
        }
        function_();
        date = next_(*date, clock_.wallTime());
    }
}

std::optional<Date> Timer::nextDate() {
    const MutexLock lock(mutex_);
    return awaited_;
}

void Timer::setAwaited(std::optional<Date> date) {
    const MutexLock lock(mutex_);
    awaited_ = date;
}

bool Timer::waitUntil(Date date) {
    while (!invalidated()) {
        const auto now = clock_.wallTime();
        if (now >= date) {
            return true;
        }
        Clock::TimerId timer = 0;
        retryUntilGranted("Timer", [&] { timer = clock_.after(date - now, [alarm = alarm_] { alarm->ring(); }); });
        {
            MutexLock lock(alarm_->mutex);
            while (!alarm_->rung) {
                alarm_->changed.wait(lock);
            }
            alarm_->rung = false;
        }
        clock_.cancel(timer);
    }
    return false;
}

bool Timer::invalidated() {
    MutexLock lock(mutex_);
    return invalidated_;
}

void Timer::invalidate() {
    {
        MutexLock lock(mutex_);
        invalidated_ = true;
    }
    alarm_->ring();
}

}  // namespace sentrova
