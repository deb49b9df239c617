#include "support/ManualClock.h"

namespace sentrova::testing {

namespace {
constexpr Date kNoonOf15November2026{std::chrono::seconds(1794744000)};
}  // namespace

ManualClock::ManualClock() : ManualClock(kNoonOf15November2026) {}

ManualClock::ManualClock(Date start) : wall_(start), monotonic_(std::chrono::hours(1)) {
    Clock::install(this);
}

ManualClock::~ManualClock() {
    Clock::install(nullptr);
}

Date ManualClock::wallTime() {
    MutexLock lock(mutex_);
    return wall_;
}

Clock::Monotonic ManualClock::monotonicTime() {
    MutexLock lock(mutex_);
    return monotonic_;
}

Clock::TimerId ManualClock::schedule(Monotonic due, std::function<void()> function) {
    MutexLock lock(mutex_);
    timers_.emplace(Key(due, ++lastId_), std::move(function));
    scheduled_.notifyAll();
    return lastId_;
}

bool ManualClock::cancel(TimerId timer) {
    MutexLock lock(mutex_);
    return std::erase_if(timers_, [timer](const auto& entry) { return entry.first.second == timer; }) > 0;
}

void ManualClock::advance(Duration duration) {
    MutexLock lock(mutex_);
    const auto target = monotonic_ + duration;
    while (!timers_.empty() && timers_.begin()->first.first <= target) {
        auto node = timers_.extract(timers_.begin());
        const auto due = std::max(node.key().first, monotonic_);
        wall_ += std::chrono::duration_cast<Date::duration>(due - monotonic_);
        monotonic_ = due;
        lock.unlock();
        node.mapped()();
        node.mapped() = nullptr;
        lock.lock();
    }
    wall_ += std::chrono::duration_cast<Date::duration>(target - monotonic_);
    monotonic_ = target;
}

void ManualClock::setWallTime(Date date) {
    MutexLock lock(mutex_);
    wall_ = date;
}

std::size_t ManualClock::pendingTimers() {
    MutexLock lock(mutex_);
    return timers_.size();
}

bool ManualClock::awaitTimerIn(Duration delay) {
    const auto giveUp = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    MutexLock lock(mutex_);
    for (;;) {
        const auto due = monotonic_ + delay;
        const auto first = timers_.lower_bound(Key(due, 0));
        if (first != timers_.end() && first->first.first == due) {
            return true;
        }
        if (std::chrono::steady_clock::now() >= giveUp) {
            return false;
        }
        scheduled_.waitUntil(lock, giveUp);
    }
}

}  // namespace sentrova::testing
