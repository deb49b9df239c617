// Timers that fire at a time of day. Each has its own thread.

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
    // Closes the timers.
    ~DailyTimers() { close(); }
    DailyTimers(const DailyTimers&) = delete;
    DailyTimers& operator=(const DailyTimers&) = delete;

    // Runs the timer on a new thread until the timer ends. Once closed, it ends the timer at once. Throws
    // std::system_error if the host refuses the thread.
    void start(const std::string& name, const std::shared_ptr<Timer>& timer) EXCLUDES(mutex_);

    // Invalidates all timers and waits for their threads. Later calls of start run nothing.
    void close() EXCLUDES(mutex_);

  private:
    struct Running {
        std::shared_ptr<Timer> timer;
        std::thread thread;
    };

    Mutex mutex_;
    bool closed_ GUARDED_BY(mutex_) = false;
    // Includes timers that have ended. There are few: all tasks are started together once per process.
    std::list<Running> running_ GUARDED_BY(mutex_);
};

}  // namespace sentrova
