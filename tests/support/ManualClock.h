// A clock that stands still until a test moves it.

#pragma once

#include "foundation/run/Clock.h"
#include "foundation/run/Mutex.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <map>
#include <system_error>

namespace sentrova::testing {

// Begins at 15 November 2026, 12:00:00 UTC.
class ManualClock final : public Clock {
  public:
    Date wallTime() override EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        return wall_;
    }
    Monotonic monotonicTime() override EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        return monotonic_;
    }
    TimerId schedule(Monotonic due, std::function<void()> function) override EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        if (refusals_ > 0) {
            --refusals_;
            throw std::system_error(EAGAIN, std::generic_category());
        }
        timers_.emplace(Key(due, ++lastId_), std::move(function));
        scheduled_.notifyAll();
        return lastId_;
    }
    bool cancel(TimerId timer) override EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        return std::erase_if(timers_, [timer](const auto& entry) { return entry.first.second == timer; }) > 0;
    }

    // Moves both clocks forward. Every timer that falls due runs on this thread, in order and with the clocks at its
    // due time. Timers set meanwhile run too.
    void advance(Duration duration) EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        const auto target = monotonic_ + duration;
        while (!timers_.empty() && timers_.begin()->first.first <= target) {
            auto node = timers_.extract(timers_.begin());
            moveToLocked(std::max(node.key().first, monotonic_));
            lock.unlock();
            node.mapped()();
            node.mapped() = nullptr;
            lock.lock();
        }
        moveToLocked(target);
    }

    // Makes the next `calls` calls of schedule throw, as if the host refused the clock's thread.
    void refuse(int calls) EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        refusals_ = calls;
    }

    // Removes the next timer and returns its function, like a clock that is about to call it: cancel comes too late.
    std::function<void()> takeNext() EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        return std::move(timers_.extract(timers_.begin()).mapped());
    }

    // Sets only the wall clock, as a person or a time server does.
    void setWallTime(Date date) EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        wall_ = date;
    }

    std::size_t pendingTimers() EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        return timers_.size();
    }

    // Blocks until a timer is set that is due in exactly `delay` from now. Returns false after a minute.
    [[nodiscard]] bool awaitTimerIn(Duration delay) EXCLUDES(mutex_) {
        const auto giveUp = std::chrono::steady_clock::now() + std::chrono::minutes(1);
        MutexLock lock(mutex_);
        while (std::chrono::steady_clock::now() < giveUp) {
            const auto due = monotonic_ + delay;
            const auto first = timers_.lower_bound(Key(due, 0));
            if (first != timers_.end() && first->first.first == due) {
                return true;
            }
            scheduled_.waitUntil(lock, giveUp);
        }
        return false;
    }

  private:
    using Key = std::pair<Monotonic, TimerId>;

    void moveToLocked(Monotonic time) REQUIRES(mutex_) {
        wall_ += std::chrono::duration_cast<Date::duration>(time - monotonic_);
        monotonic_ = time;
    }

    Mutex mutex_{LockRank::clock};
    Condition scheduled_;
    std::map<Key, std::function<void()>> timers_ GUARDED_BY(mutex_);
    TimerId lastId_ GUARDED_BY(mutex_) = 0;
    int refusals_ GUARDED_BY(mutex_) = 0;
    Date wall_ GUARDED_BY(mutex_){std::chrono::seconds(1794744000)};
    Monotonic monotonic_ GUARDED_BY(mutex_){std::chrono::hours(1)};
};

}  // namespace sentrova::testing
