// The queue on which every long-running piece of the agent runs as a named operation, and whether the agent is to stop.

#pragma once

#include "foundation/run/Mutex.h"
#include "foundation/time/Clock.h"
#include "operations/ConcurrentOperationAbstract.h"
#include "operations/OperationsHandler.h"

#include <atomic>
#include <memory>
#include <string_view>

namespace sentrova {

// Before `open` there is no queue: additions are dropped, cancels and queries find nothing. After a stop additions are
// dropped too. Safe from any thread.
class MainQueue {
  public:
    // The clock must outlive the queue.
    explicit MainQueue(Clock& clock) : clock_(clock) {}
    ~MainQueue() { close(); }
    MainQueue(const MainQueue&) = delete;
    MainQueue& operator=(const MainQueue&) = delete;

    // Cancels the operations and waits for their threads. There is no queue after that.
    void close() EXCLUDES(mutex_);

    // Begins a new queue, and returns it.
    std::shared_ptr<OperationsHandler> open() EXCLUDES(mutex_);

    void add(const std::shared_ptr<ConcurrentOperationAbstract>& operation);
    void cancel(std::string_view name);
    // Whether the first operation of the name is executing.
    bool isExecuting(std::string_view name);

    // Cancels all operations, without waiting for them, and keeps others from being added for the life of the process.
    // Also before or while the queue is filled.
    void stop();
    bool stopAsked() const { return stopAsked_; }

  private:
    std::shared_ptr<OperationsHandler> present() EXCLUDES(mutex_);

    Clock& clock_;
    std::atomic<bool> stopAsked_ = false;
    Mutex mutex_;
    std::shared_ptr<OperationsHandler> queue_ GUARDED_BY(mutex_);
};

}  // namespace sentrova
