// The queue of the agent's long-running operations, which are known by their names; and the request to stop.

#pragma once

#include "foundation/run/Clock.h"
#include "foundation/run/Mutex.h"
#include "operations/ConcurrentOperationAbstract.h"
#include "operations/OperationsHandler.h"

#include <atomic>
#include <memory>
#include <string_view>

namespace sentrova {

// Before `open` there is no queue: additions are dropped, and cancels and queries find nothing. After a stop, additions
// are dropped too. Safe from any thread.
class MainQueue {
  public:
    // The clock must outlive the queue.
    explicit MainQueue(Clock& clock) : clock_(clock) {}
    ~MainQueue() { close(); }
    MainQueue(const MainQueue&) = delete;
    MainQueue& operator=(const MainQueue&) = delete;

    // Cancels the operations, waits for their threads, and removes the queue.
    void close() EXCLUDES(mutex_);

    // Replaces the queue by a new, empty one and returns it.
    std::shared_ptr<OperationsHandler> open() EXCLUDES(mutex_);

    // Adds the operation, unless an operation with its name is executing.
    void add(const std::shared_ptr<ConcurrentOperationAbstract>& operation);
    // Cancels every operation with that name.
    void cancel(std::string_view name);
    // Whether the first operation with that name is executing; false if there is no such operation.
    bool isExecuting(std::string_view name);

    // Cancels all operations without waiting for them. From then on, for the life of the process, add drops everything.
    // May be called before `open` or while the queue is being filled.
    void stop();
    bool stopAsked() const { return stopAsked_; }

  private:
    std::shared_ptr<OperationsHandler> current() EXCLUDES(mutex_);

    Clock& clock_;
    std::atomic<bool> stopAsked_ = false;
    Mutex mutex_;
    std::shared_ptr<OperationsHandler> queue_ GUARDED_BY(mutex_);
};

}  // namespace sentrova
