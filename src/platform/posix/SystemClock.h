// The Clock of the real system.

#pragma once

#include "foundation/run/Clock.h"
#include "foundation/run/Mutex.h"

#include <functional>
#include <map>
#include <thread>
#include <utility>

namespace sentrova::platform {

// One thread sleeps until the next timer is due. Without a timer it does not wake up. Safe from any thread.
class SystemClock final : public Clock {
  public:
    SystemClock() = default;
    // Ends the thread. Drops the timers that are not due yet; their functions are not called.
    ~SystemClock() override;
    SystemClock(const SystemClock&) = delete;
    SystemClock& operator=(const SystemClock&) = delete;

    // Starts the thread, and blocks while the system refuses it. Call it at the start of the process: without this
    // thread no timer runs, not even the one that retries a refused thread. Without this call, the first timer starts
    // the thread.
    void start() EXCLUDES(mutex_);

    Date wallTime() override;
    Monotonic monotonicTime() override;
    TimerId schedule(Monotonic due, std::function<void()> function) override EXCLUDES(mutex_);
    bool cancel(TimerId timer) override EXCLUDES(mutex_);

  private:
    using Key = std::pair<Monotonic, TimerId>;

    bool tryStart() EXCLUDES(mutex_);
    bool tryStartLocked() REQUIRES(mutex_);
    void run() EXCLUDES(mutex_);

    Mutex mutex_{LockRank::clock};
    Condition changed_;
    std::map<Key, std::function<void()>> timers_ GUARDED_BY(mutex_);
    std::map<TimerId, Monotonic> dueById_ GUARDED_BY(mutex_);
    TimerId lastId_ GUARDED_BY(mutex_) = 0;
    bool stopped_ GUARDED_BY(mutex_) = false;
    std::thread thread_ GUARDED_BY(mutex_);
};

}  // namespace sentrova::platform
