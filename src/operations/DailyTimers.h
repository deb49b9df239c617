// Timers at a time of day, each on a thread of its own.

#pragma once

#include "foundation/run/Mutex.h"
#include "foundation/run/Timer.h"

#include <list>
#include <memory>
#include <string>
#include <thread>

namespace sentrova {

// Safe from any thread.
class DailyTimers {
  public:
    DailyTimers() = default;
    // Closes it.
    ~DailyTimers() { close(); }
    DailyTimers(const DailyTimers&) = delete;
    DailyTimers& operator=(const DailyTimers&) = delete;

    // Runs the timer on a thread until it ends. Does nothing once closed. Throws std::system_error when the host
    // refuses the thread.
    void start(const std::string& name, const std::shared_ptr<Timer>& timer) EXCLUDES(mutex_);

    // Invalidates all timers, waits for their threads, and starts no others.
    void close() EXCLUDES(mutex_);

  private:
    struct Running {
        std::shared_ptr<Timer> timer;
        std::thread thread;
    };

    Mutex mutex_;
    bool closed_ GUARDED_BY(mutex_) = false;
    // Of all timers, including those that have ended. There are few: all tasks are started together once per process.
    std::list<Running> running_ GUARDED_BY(mutex_);
};

}  // namespace sentrova
