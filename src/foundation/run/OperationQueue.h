// Runs operations on worker threads, in the order of their addition as far as dependencies and the limit allow.

#pragma once

#include "foundation/run/Clock.h"
#include "foundation/run/Operation.h"

#include <cstddef>
#include <functional>
#include <memory>
#include <vector>

namespace sentrova {

// The queue owns an operation until the operation notifies that it is finished. After `start` returns, an unfinished
// operation still counts as running, but uses no thread. If `start` throws, the queue marks the operation finished. A
// cancelled operation is started without waiting for its dependencies, so that it can finish. Safe from any thread.
class OperationQueue {
  public:
    // The clock must outlive the queue.
    explicit OperationQueue(Clock& clock);
    // Closes the queue.
    ~OperationQueue();
    OperationQueue(const OperationQueue&) = delete;
    OperationQueue& operator=(const OperationQueue&) = delete;

    // The maximum number of operations that run at once, at least 1. Without a limit each ready operation gets a
    // thread. While the system refuses a thread, operations stay queued until it grants one or a worker becomes free.
    void setMaxConcurrentOperationCount(int count);

    // The queue has no size limit: its callers add work that is limited elsewhere. Finished operations are ignored, and
    // a closed queue ignores all.
    void addOperation(const std::shared_ptr<Operation>& operation);
    void addOperationWithBlock(std::function<void()> block);

    // The unfinished operations, in the order of their addition.
    std::vector<std::shared_ptr<Operation>> operations() const;
    std::size_t operationCount() const;

    // If the cancel of one operation throws, the exception is reported and the others are still cancelled.
    void cancelAllOperations();
    void waitUntilAllOperationsAreFinished();

    // Drops the operations that are not started, accepts no more, and waits for the threads inside `start`. Called from
    // inside `start`, it does not wait for the calling thread.
    void close();

  private:
    class State;
    std::shared_ptr<State> state_;
};

}  // namespace sentrova
