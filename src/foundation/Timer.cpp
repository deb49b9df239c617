#include "foundation/Timer.h"

#include "foundation/NotificationCenter.h"
#include "foundation/Retry.h"

namespace sentrova {

void Timer::Alarm::ring() {
    MutexLock lock(mutex);
    rung = true;
    changed.notifyAll();
}

Timer::Timer(Date fireDate, Next next, std::function<void()> function)
    : fireDate_(fireDate), next_(std::move(next)), function_(std::move(function)) {}

void Timer::run() {
    const auto clockChanges = NotificationCenter::defaultCenter().addObserver(
        kClockChangedNotification, [alarm = alarm_](const auto&) { alarm->ring(); });
    std::optional<Date> date = fireDate_;
    while (date && waitUntil(*date)) {
        function_();
        date = next_(*date, Clock::shared().wallTime());
    }
}

bool Timer::waitUntil(Date date) {
    while (!invalidated()) {
        const auto now = Clock::shared().wallTime();
        if (now >= date) {
            return true;
        }
        Clock::TimerId timer = 0;
        retryUntilGranted("Timer",
                          [&] { timer = Clock::shared().after(date - now, [alarm = alarm_] { alarm->ring(); }); });
        {
            MutexLock lock(alarm_->mutex);
            while (!alarm_->rung) {
                alarm_->changed.wait(lock);
            }
            alarm_->rung = false;
        }
        Clock::shared().cancel(timer);
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
