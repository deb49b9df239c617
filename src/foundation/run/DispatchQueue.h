// A serial queue: blocks run one at a time, in the order in which they were handed over.
//
// Safe from any thread. `sync` on an idle queue runs the block on the calling thread, so that an uncontended hand-over
// costs a lock; everything else runs on the queue's own thread, which is started by the first block that needs it.
// While the system refuses that thread, the blocks wait, and whoever calls `sync` waits behind them. What a block
// throws is reported under the label, and the queue goes on.

#pragma once

#include "foundation/time/Clock.h"

#include <functional>
#include <memory>
#include <string>

namespace sentrova {

class DispatchQueue {
  public:
    using Block = std::function<void()>;

    // The clock must outlive the queue.
    DispatchQueue(std::string label, Clock& clock);
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
    // from `sync`. Calls of `sync` that are already waiting still run.
    void close();

    // Whether the caller runs inside a block of this queue.
    bool isCurrent() const;

  private:
    class State;
    std::shared_ptr<State> state_;
};

}  // namespace sentrova
