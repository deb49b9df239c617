// A serial queue: blocks run one at a time, in the order in which they were handed over.
//
// Safe from any thread. `sync` on an idle queue runs the block on the calling thread, so that an uncontended hand-over
// costs a lock; everything else runs on the queue's own thread, which is started by the first block that needs it.
// While the system refuses that thread, the blocks wait, and whoever calls `sync` waits behind them. A block that
// throws is reported to the handler of unhandled exceptions, and the queue goes on.

#pragma once

#include "foundation/Clock.h"

#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace sentrova {

class DispatchQueue {
  public:
    using Block = std::function<void()>;
    // Gets the label of the queue (or the name of the thread) and the exception's text.
    using ExceptionHandler = void (*)(std::string_view where, std::string_view what);

    explicit DispatchQueue(std::string label);
    // Closes it.
    ~DispatchQueue();
    DispatchQueue(const DispatchQueue&) = delete;
    DispatchQueue& operator=(const DispatchQueue&) = delete;

    const std::string& label() const;

    // Returns at once. There is no bound on what may wait: callers hand over work that is bounded elsewhere.
    void async(Block block);

    // Returns when the block has run; what it throws comes out here. From a block of the same queue it would wait for
    // itself: it throws std::logic_error instead.
    void sync(const Block& block);

    // Hands the block over when the delay has passed; never if the queue is gone by then.
    void after(Clock::Duration delay, Block block);

    // Ends the queue's thread: drops the blocks that have not begun, waits for the one that runs and takes no more but
    // from `sync`. Who waits in `sync` gets his turn.
    void close();

    // Whether the caller runs inside a block of this queue.
    bool isCurrent() const;

    // What becomes of exceptions that reach the end of a block or a thread; without a handler they are dropped.
    static void setExceptionHandler(ExceptionHandler handler);
    static void reportException(std::string_view where, std::string_view what) noexcept;
    // Reports the exception that is being handled.
    static void reportCurrentException(std::string_view where) noexcept;

  private:
    class State;
    std::shared_ptr<State> state_;
};

// Runs the function and reports what it throws under the name given; returns whether it ended without an exception. The
// outermost frame of every thread of the agent.
template <class Function>
bool runGuarded(std::string_view where, const Function& function) noexcept {
    try {
        function();
        return true;
    } catch (...) {
        DispatchQueue::reportCurrentException(where);
        return false;
    }
}

}  // namespace sentrova
