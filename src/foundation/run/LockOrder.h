// The order in which a thread takes mutexes, checked while it runs in builds with assertions.
//
// A thread takes a mutex only when its rank comes after the ranks of all that it holds, so no two threads can wait for
// each other. A breach ends the process with a line that names both ranks, the first time the order is broken and not
// the first time it is fatal. In a build without assertions (NDEBUG) all of this is empty.

#pragma once

#include <cstdint>

namespace sentrova {

// From the outermost to the innermost.
enum class LockRank : std::uint8_t {
    // Held over a whole change of state that writes files and log lines.
    transaction,
    // Held over the change of one file.
    file,
    // A choice that is made from the configuration.
    choice,
    // What runs later, and sets timers or hands work to queues.
    schedule,
    // A queue of operations, which asks its operations about themselves.
    queue,
    // Owns subscriptions or wakes waiters while it is held.
    owner,
    // The table of log files; so a line may be logged under all of the above.
    log,
    // Nothing else is taken, and nothing is logged, while it is held; only the clock may be asked.
    leaf,
    clock,
};

// The place of one mutex in the order. Called by the thread that takes or lets go of the mutex.
class LockOrder {
  public:
#ifdef NDEBUG
    constexpr explicit LockOrder(LockRank /*rank*/) {}
    void wanted() {}
    void taken() {}
    void released() {}
#else
    constexpr explicit LockOrder(LockRank rank) : rank_(rank) {}
    LockOrder(const LockOrder&) = delete;
    LockOrder& operator=(const LockOrder&) = delete;

    // Ends the process when the mutex must not be taken now.
    void wanted();
    void taken();
    void released();

  private:
    const LockRank rank_;
#endif
};

}  // namespace sentrova
