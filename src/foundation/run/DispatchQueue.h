// A serial queue: blocks run one at a time, in the order in which they were added.
//
// Safe from any thread. `sync` runs its block on the calling thread, so that it costs only a lock on an idle queue.
// `async` blocks run on the queue's own thread, which the first of them starts. While the system refuses that thread,
// the blocks stay queued, and `sync` calls wait behind them. An exception from an `async` block is reported under the
// label, and the queue continues.

#pragma once

#include "foundation/run/Clock.h"

#include <functional>
#include <memory>
#include <string>

namespace sentrova {

class DispatchQueue {
  public:
    using Block = std::function<void()>;

    // The clock must outlive the queue.
    DispatchQueue(std::string label, Clock& clock);
    // Closes the queue.
    ~DispatchQueue();
    DispatchQueue(const DispatchQueue&) = delete;
    DispatchQueue& operator=(const DispatchQueue&) = delete;

    const std::string& label() const;

    // Adds the block and returns at once. Does nothing once the queue is closed. The line has no limit, because its
    // callers add work that is limited elsewhere.
    void async(Block block);

    // Runs the block on the calling thread when its turn comes, and rethrows the block's exception. Throws
    // std::logic_error when called from a block of the same queue, which would wait for itself.
    void sync(const Block& block);

    // Adds the block after the delay, unless the queue is closed or destroyed by then.
    void after(Clock::Duration delay, Block block);

    // Drops the `async` blocks that have not begun, waits for the running one and ends the queue's thread. `sync` calls
    // still run afterwards, those already waiting included; `async` does nothing from now on.
    void close();

    // Whether the caller runs inside a block of this queue.
    bool isCurrent() const;

  private:
    class State;
    std::shared_ptr<State> state_;
};

}  // namespace sentrova
