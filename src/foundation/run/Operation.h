// One piece of work for an OperationQueue, which starts it once and follows its state by change notifications.

#pragma once

#include "foundation/run/KeyValueObserving.h"
#include "foundation/run/Mutex.h"

#include <memory>
#include <string>
#include <vector>

namespace sentrova {

// An operation notifies observers of its three states under the keys "isFinished", "isExecuting" and "isCancelled". The
// queue reads the states and observes the changes. Safe from any thread.
class Operation : public KeyValueObserving {
  public:
    static constexpr const char* kIsFinished = "isFinished";
    static constexpr const char* kIsExecuting = "isExecuting";
    static constexpr const char* kIsCancelled = "isCancelled";

    virtual bool isFinished() const = 0;
    virtual bool isExecuting() const = 0;
    virtual bool isCancelled() const = 0;
    virtual bool isAsynchronous() const { return false; }

    // The queue calls it on a worker thread. The operation may continue after start returns; it ends when it notifies
    // that it is finished.
    virtual void start() = 0;
    virtual void cancel() = 0;

    // Calls start. If start throws, reports the exception under the operation's name, marks the operation finished and
    // returns false. For the queue, and for callers that start an operation without a queue.
    bool run() noexcept;

    std::string name() const EXCLUDES(mutex_);
    void setName(std::string name) EXCLUDES(mutex_);

    // This operation starts only after the other one has finished. Call it before this operation is added to a queue.
    void addDependency(std::shared_ptr<Operation> other) EXCLUDES(mutex_);
    std::vector<std::shared_ptr<Operation>> dependencies() const EXCLUDES(mutex_);

    // For the log: the name and the state.
    std::string description() const;

  protected:
    // Marks the operation finished after its start threw.
    virtual void finishFailed() = 0;

    Value valueForKey(std::string_view key) const override;

  private:
    mutable Mutex mutex_;
    std::string name_ GUARDED_BY(mutex_);
    std::vector<std::shared_ptr<Operation>> dependencies_ GUARDED_BY(mutex_);
};

}  // namespace sentrova
