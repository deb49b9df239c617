// Starts threads. The system may refuse one for a while (EAGAIN: too many processes, or too little memory).

#pragma once

#include "foundation/Clock.h"

#include <functional>
#include <thread>

namespace sentrova {

// A thread that runs the function. When the system refuses one, the result is not joinable and nothing has happened.
// May be called under any lock.
std::thread tryStartThread(const std::function<void()>& function) noexcept;

// Waits until the system grants the thread. For the threads that are made once, while the agent starts. Not under a
// lock that a log line needs.
std::thread startThread(const std::function<void()>& function);

// Logs that threads are refused and blocks for a moment. For a caller that cannot go on without a thread.
void pauseForThreads();

// Tries again, later, what was refused a thread. One log line is written for all that wait at the same time. Guarded by
// its owner's lock.
class ThreadRetry {
  public:
    ThreadRetry() = default;
    ~ThreadRetry() { succeeded(); }
    ThreadRetry(const ThreadRetry&) = delete;
    ThreadRetry& operator=(const ThreadRetry&) = delete;

    // Calls the function on the clock's thread, which may then ask again: the delays double up to a second. Does
    // nothing while an earlier call is awaited. Without memory for the timer the owner's next attempt asks again.
    void later(const std::function<void()>& function) noexcept;
    // The thread is there.
    void succeeded() noexcept;

  private:
    bool waiting_ = false;
    Clock::Duration delay_{};
    Clock::Monotonic due_;
};

// For tests: every thread is refused while one of these lives.
class ThreadShortage {
  public:
    ThreadShortage();
    ~ThreadShortage();
    ThreadShortage(const ThreadShortage&) = delete;
    ThreadShortage& operator=(const ThreadShortage&) = delete;
};

}  // namespace sentrova
