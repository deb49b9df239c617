// Starts threads. The system may refuse one for a while (EAGAIN: too many processes, or too little memory).

#pragma once

#include "foundation/time/Clock.h"

#include <functional>
#include <string_view>
#include <thread>

namespace sentrova {

// Where threads come from: the system, unless another source is published as the Current one, as a test does that
// refuses them.
class Threads {
  public:
    virtual ~Threads() = default;

    // Throws std::system_error when there is no thread to be had.
    virtual std::thread start(const std::function<void()>& function) = 0;

  protected:
    Threads() = default;
    Threads(const Threads&) = default;
    Threads& operator=(const Threads&) = default;
};

// A thread that runs the function. When the system refuses one, the result is not joinable and nothing has happened.
// May be called under any lock.
std::thread tryStartThread(const std::function<void()>& function) noexcept;

// Waits until the system grants the thread. For the threads that are made once, while the agent starts. Not under a
// lock that a log line needs.
std::thread startThread(const std::function<void()>& function);

// Logs that threads are refused and blocks for a moment. For a caller that cannot go on without a thread.
void pauseForThreads();

// Calls the function until it returns without an exception, and reports the first exception under the name given.
// Blocks the calling thread between the calls, so it is not for callbacks of the clock. The pauses do not use the
// clock, because the clock may be what was refused a thread.
void retryUntilGranted(std::string_view where, const std::function<void()>& function);

// Tries again, later, what was refused a thread. One log line is written for all that wait at the same time. Guarded by
// its owner's lock.
class ThreadRetry {
  public:
    // The clock must outlive the retries that it has been asked for.
    explicit ThreadRetry(Clock& clock) : clock_(clock) {}
    ~ThreadRetry() { succeeded(); }
    ThreadRetry(const ThreadRetry&) = delete;
    ThreadRetry& operator=(const ThreadRetry&) = delete;

    // Calls the function on the clock's thread, which may then ask again: the delays double up to a second. Does
    // nothing while an earlier call is awaited. Without memory for the timer the owner's next attempt asks again.
    void later(const std::function<void()>& function) noexcept;
    // The thread is there.
    void succeeded() noexcept;

  private:
    Clock& clock_;
    bool waiting_ = false;
    Clock::Duration delay_{};
    Clock::Monotonic due_;
};

}  // namespace sentrova
