// Starts threads. The system may refuse a thread for a while (EAGAIN: too many threads, or too little memory).

#pragma once

#include "foundation/run/Clock.h"

#include <functional>
#include <string_view>
#include <thread>

namespace sentrova {

// The source of threads. Threads come from the system unless another source is published as the Current one: a test
// publishes one that refuses threads.
class Threads {
  public:
    virtual ~Threads() = default;

    // Throws std::system_error if the thread is refused.
    virtual std::thread start(const std::function<void()>& function) = 0;

  protected:
    Threads() = default;
    Threads(const Threads&) = default;
    Threads& operator=(const Threads&) = default;
};

// Starts a thread that runs the function. If the system refuses the thread, the result is not joinable. May be called
// under any lock.
std::thread tryStartThread(const std::function<void()>& function) noexcept;

// Starts a thread and blocks until the system grants it. For threads that are created once, while the agent starts. Do
// not call it under a lock that logging needs.
std::thread startThread(const std::function<void()>& function);

// Logs once per shortage that threads are refused, and blocks for 10 ms. For a caller that cannot continue without a
// thread.
void pauseForThreads();

// Calls the function every 100 ms until it returns without an exception. Reports only the first exception, under
// `where`. Blocks the calling thread, so it is not for callbacks of the clock. The pauses do not use the Clock, whose
// own thread may be the refused one.
void retryUntilGranted(std::string_view where, const std::function<void()>& function);

// Retries work that was refused a thread. All work that waits at the same time shares one log line. The owner's lock
// guards the object.
class ThreadRetry {
  public:
    // The clock must outlive the pending retries.
    explicit ThreadRetry(Clock& clock) : clock_(clock) {}
    ~ThreadRetry() { succeeded(); }
    ThreadRetry(const ThreadRetry&) = delete;
    ThreadRetry& operator=(const ThreadRetry&) = delete;

    // Schedules a call of the function on the clock's thread. The function may call later() again; the delay doubles
    // from 10 ms up to 1 s. Does nothing while a call is pending. If the timer cannot be set, the owner's next attempt
    // schedules it.
    void later(const std::function<void()>& function) noexcept;
    // Call it when the thread is granted: resets the delay.
    void succeeded() noexcept;

  private:
    Clock& clock_;
    bool waiting_ = false;
    Clock::Duration delay_{};
    Clock::Monotonic due_;
};

}  // namespace sentrova
