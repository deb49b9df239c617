// A queue of operations that are known by their names.
//
// Safe from any thread. The walks over the queue see the operations as they are at that moment: one that starts or ends
// meanwhile may be judged by its state before or after.

#pragma once

#include "foundation/run/OperationQueue.h"
#include "operations/ConcurrentOperationAbstract.h"

#include <functional>
#include <memory>
#include <string_view>

namespace sentrova {

class OperationsHandler {
  public:
    // How many operations run at once; below 1 there is no limit.
    OperationsHandler(int maximum, Clock& clock);

    // Refuses an operation while another of its name is executing.
    void addToOperationQueue(const std::shared_ptr<ConcurrentOperationAbstract>& operation);
    // The first operation runs only after the second has finished.
    void addDependency(const std::shared_ptr<ConcurrentOperationAbstract>& operation,
                       const std::shared_ptr<ConcurrentOperationAbstract>& toOperation);
    // Adds a block as an operation without a name.
    void addBlockToQueue(std::function<void()> block);

    // Cancels all operations, and reports what one throws; the queue goes on with what is added later.
    void suspend();
    // Cancels all operations and waits for their threads; the queue takes no others.
    void close();
    void waitToFinish();
    // Logs how many operations there are.
    void countOfOperationsInQueue() const;
    // Cancels every operation of the name.
    void cancelOperationWithName(std::string_view name);
    // Whether the first operation of the name is executing; false, and logged, when there is none.
    bool getTaskStatus(std::string_view name) const;

    const OperationQueue& queue() const { return queue_; }

  private:
    OperationQueue queue_;
};

}  // namespace sentrova
