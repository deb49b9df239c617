// One piece of work that an OperationQueue starts, once, and follows through its change notifications.

#pragma once

#include "foundation/run/KeyValueObserving.h"
#include "foundation/run/Mutex.h"

#include <memory>
#include <string>
#include <vector>

namespace sentrova {

// The queue reads the three states and hears of their changes under the keys "isFinished", "isExecuting" and
// "isCancelled". Safe from any thread.
class Operation : public KeyValueObserving {
  public:
    static constexpr const char* kIsFinished = "isFinished";
    static constexpr const char* kIsExecuting = "isExecuting";
    static constexpr const char* kIsCancelled = "isCancelled";

    virtual bool isFinished() const = 0;
    virtual bool isExecuting() const = 0;
    virtual bool isCancelled() const = 0;
    virtual bool isAsynchronous() const { return false; }

    // Called by the queue on a worker thread. An operation may go on after start has returned; it ends with the
    // notification that it is finished.
    virtual void start() = 0;
    virtual void cancel() = 0;

    // Calls start. When that throws, the exception is reported under the operation's name, the operation is finished,
    // and the answer is false. For the queue, and for whoever starts an operation without one.
    bool run() noexcept;

    std::string name() const EXCLUDES(mutex_);
    void setName(std::string name) EXCLUDES(mutex_);

    // This operation starts only after the other one has finished. To be called before it is added to a queue.
    void addDependency(std::shared_ptr<Operation> other) EXCLUDES(mutex_);
    std::vector<std::shared_ptr<Operation>> dependencies() const EXCLUDES(mutex_);

    // For the log: the name and the state.
    std::string description() const;

  protected:
    // Makes an operation finished whose start has thrown.
    virtual void finishFailed() = 0;

    Value valueForKey(std::string_view key) const override;

  private:
    mutable Mutex mutex_;
    std::string name_ GUARDED_BY(mutex_);
    std::vector<std::shared_ptr<Operation>> dependencies_ GUARDED_BY(mutex_);
};

}  // namespace sentrova
