// Runs operations, each on a worker thread, in the order of their addition as far as dependencies and the limit allow.

#pragma once

#include "foundation/run/Operation.h"
#include "foundation/time/Clock.h"

#include <cstddef>
#include <functional>
#include <memory>
#include <vector>

namespace sentrova {

// The queue owns what it is given until it is finished. It learns that from the operation's notifications alone: an
// operation whose start has returned goes on counting as running, without a thread, until it says that it is finished;
// one whose start has thrown is finished by the queue.
// A cancelled operation is started without waiting for its dependencies, so that it can finish. Safe from any thread.
class OperationQueue {
  public:
    // The clock must outlive the queue.
    explicit OperationQueue(Clock& clock);
    // Closes it.
    ~OperationQueue();
    OperationQueue(const OperationQueue&) = delete;
    OperationQueue& operator=(const OperationQueue&) = delete;

    // How many operations run at once, at most; without a limit there is one thread for each that can run. While the
    // system refuses a thread, operations wait for it or for a thread whose operation has ended.
    void setMaxConcurrentOperationCount(int count);

    // There is no bound on what may wait; an operation that is finished already is not taken.
    void addOperation(const std::shared_ptr<Operation>& operation);
    void addOperationWithBlock(std::function<void()> block);

    // Those not yet finished, in the order of their addition.
    std::vector<std::shared_ptr<Operation>> operations() const;
    std::size_t operationCount() const;

    // What one operation's cancel throws is reported, and the others are cancelled all the same.
    void cancelAllOperations();
    void waitUntilAllOperationsAreFinished();

    // Drops what has not been started, takes nothing any more, and waits for the threads that are inside `start`, but
    // for the caller's own.
    void close();

  private:
    class State;
    std::shared_ptr<State> state_;
};

}  // namespace sentrova
