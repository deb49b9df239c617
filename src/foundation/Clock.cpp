#include "foundation/Clock.h"

#include "foundation/DispatchQueue.h"
#include "foundation/Mutex.h"
#include "foundation/ThreadStart.h"
#include "platform/OperatingSystem.h"

#include <algorithm>
#include <atomic>
#include <map>
#include <memory>
#include <optional>

namespace sentrova {

namespace {

// The system's clocks, with one thread that sleeps until the next timer is due, and does not wake without a timer. The
// first timer starts the thread where `start` has not. Lives until the process ends.
class SystemClock final : public Clock {
  public:
    Date wallTime() override { return std::chrono::system_clock::now(); }
    Monotonic monotonicTime() override { return platform::timeAwake(); }

    TimerId schedule(Monotonic due, std::function<void()> function) override EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        tryStartLocked();
        const Key key{due, ++lastId_};
        const auto timer = timers_.emplace(key, std::move(function)).first;
        try {
            dueById_.emplace(key.second, due);
        } catch (...) {
            timers_.erase(timer);
            throw;
        }
        if (timers_.begin()->first == key) {
            changed_.notifyOne();
        }
        return key.second;
    }

    bool cancel(TimerId timer) override EXCLUDES(mutex_) {
        std::function<void()> dropped;
        MutexLock lock(mutex_);
        const auto due = dueById_.find(timer);
        if (due == dueById_.end()) {
            return false;
        }
        const auto entry = timers_.find({due->second, timer});
        // Destroyed after the lock is gone: what it captured may have a destructor of consequence.
        dropped = std::move(entry->second);
        timers_.erase(entry);
        dueById_.erase(due);
        lock.unlock();
        return true;
    }

    void start() EXCLUDES(mutex_) {
        while (!tryStart()) {
            pauseForThreads();
        }
    }

  private:
    using Key = std::pair<Monotonic, TimerId>;

    bool tryStart() EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        return tryStartLocked();
    }

    bool tryStartLocked() REQUIRES(mutex_) {
        if (!threadStarted_) {
            if (auto thread = tryStartThread([this] { run(); }); thread.joinable()) {
                thread.detach();
                threadStarted_ = true;
            }
        }
        return threadStarted_;
    }

    void run() EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        for (;;) {
            const auto now = monotonicTime();
            if (timers_.empty()) {
                changed_.wait(lock);
            } else if (const auto due = timers_.begin()->first.first; due > now) {
                // The library's clock may go on while the machine sleeps: the two share distances, no points.
                changed_.waitUntil(lock, std::chrono::steady_clock::now() + (due - now));
            } else {
                auto node = timers_.extract(timers_.begin());
                dueById_.erase(node.key().second);
                lock.unlock();
                runGuarded("timer", node.mapped());
                node.mapped() = nullptr;
                lock.lock();
            }
        }
    }

    Mutex mutex_{LockRank::clock};
    Condition changed_;
    std::map<Key, std::function<void()>> timers_ GUARDED_BY(mutex_);
    std::map<TimerId, Monotonic> dueById_ GUARDED_BY(mutex_);
    TimerId lastId_ GUARDED_BY(mutex_) = 0;
    bool threadStarted_ GUARDED_BY(mutex_) = false;
};

std::atomic<Clock*> installedClock{nullptr};

SystemClock& systemClock() {
    // Never destroyed: its thread runs as long as the process.
    static auto* const system = new SystemClock;  // NOLINT(cppcoreguidelines-owning-memory)
    return *system;
}

}  // namespace

Clock& Clock::shared() {
    if (auto* clock = installedClock.load(std::memory_order_acquire)) {
        return *clock;
    }
    return systemClock();
}

void Clock::startSystemClock() {
    systemClock().start();
}

void Clock::install(Clock* clock) {
    installedClock.store(clock, std::memory_order_release);
}

void Clock::sleepFor(Duration duration) {
    // Shared with the timer: a signalling thread may still be inside signal() when the sleeper has left.
    const auto over = std::make_shared<Semaphore>();
    after(duration, [over] { over->signal(); });
    over->wait();
}

std::int64_t Clock::epochSeconds() {
    return sentrova::epochSeconds(wallTime());
}

std::int64_t epochSeconds(Date date) {
    return std::chrono::duration_cast<std::chrono::seconds>(date.time_since_epoch()).count();
}

double epochSecondsExact(Date date) {
    return std::chrono::duration<double>(date.time_since_epoch()).count();
}

Date dateFromEpoch(double seconds) {
    // The range of a date; beyond it a conversion would overflow.
    constexpr double kLimit = 9.2e9;
    const std::chrono::duration<double> exact(std::clamp(seconds, -kLimit, kLimit));
    return Date(std::chrono::duration_cast<Date::duration>(exact));
}

}  // namespace sentrova
