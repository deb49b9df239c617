// The order in which threads take mutexes, checked at run time in builds with assertions.
//
// Threads deadlock when each holds a mutex that the next one waits for, in a circle. Somewhere in that circle a thread
// must take a mutex of the same or a lower rank than one it holds. So the rule is: a thread takes a mutex only if its
// rank is higher than the ranks of all mutexes that the thread holds. Then no circle can form.
//
// The check looks at the calling thread alone, before it locks. A wrong order therefore fails the first time it
// happens, even with a single thread, and not only in the rare run in which two threads meet. A breach prints both
// ranks and aborts the process. In a build without assertions (NDEBUG) the check is empty.

#pragma once

#include <cstdint>

namespace sentrova {

// From the lowest rank, which is taken first, to the highest.
enum class LockRank : std::uint8_t {
    // Held during a whole change of state, with its file writes and log lines.
    transaction,
    // Held during the change of one file.
    file,
    // Guards a choice that depends on the configuration.
    choice,
    // Guards scheduled work. Its holder sets timers and adds work to queues.
    schedule,
    // Guards a queue of operations. Its holder asks the operations for their state.
    queue,
    // Its holder may drop subscriptions or wake waiting threads.
    owner,
    // Guards the log files and their table. So a holder of any rank above may log a line.
    log,
    // Its holder takes no other mutex and logs nothing, except that it may call the clock.
    leaf,
    clock,
};

// The rank of one mutex. The thread that takes or releases the mutex makes the calls: wanted before it locks, taken
// after that, released before it unlocks.
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

    // Aborts the process if the calling thread must not take the mutex now.
    void wanted();
    void taken();
    void released();

  private:
    const LockRank rank_;
#endif
};

}  // namespace sentrova
