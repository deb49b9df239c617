// A queue of operations that are known by their names.
//
// Safe from any thread. A function that looks through the queue works on a snapshot: it may see an operation that
// starts or ends meanwhile in its state before or after.

#pragma once

#include "foundation/run/OperationQueue.h"
#include "operations/ConcurrentOperationAbstract.h"

#include <functional>
#include <memory>
#include <string_view>

namespace sentrova {

class OperationsHandler {
  public:
    // `maximum` operations run at once; below 1 there is no limit. The clock must outlive the handler.
    OperationsHandler(int maximum, Clock& clock);

    // Refuses the operation, with a line in the log, while another one with its name is executing.
    void addToOperationQueue(const std::shared_ptr<ConcurrentOperationAbstract>& operation);
    // `operation` runs only after `toOperation` has finished.
    void addDependency(const std::shared_ptr<ConcurrentOperationAbstract>& operation,
                       const std::shared_ptr<ConcurrentOperationAbstract>& toOperation);
    // Adds the block as an unnamed operation.
    void addBlockToQueue(std::function<void()> block);

    // Cancels all operations. An exception from a cancel is reported. The queue still runs what is added later.
    void suspend();
    // Cancels all operations, waits for their threads, and takes no further ones.
    void close();
    // Blocks until all operations have finished.
    void waitToFinish();
    // Logs the number of operations.
    void countOfOperationsInQueue() const;
    // Cancels every operation with that name.
    void cancelOperationWithName(std::string_view name);
    // Whether the first operation with that name is executing. Returns false, with a line in the log, if there is no
    // such operation.
    bool getTaskStatus(std::string_view name) const;

    const OperationQueue& queue() const { return queue_; }

  private:
    OperationQueue queue_;
};

}  // namespace sentrova
