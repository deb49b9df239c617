// The base class of the agent's long-running operations. It keeps the three state flags and announces each change.
//
// A subclass's `start` asks canStart and returns if the answer is false; the operation is finished then. Otherwise
// `start` calls started, works, and ends with completeOperation. run() finishes an operation whose `start` throws. An
// object is used once: nothing resets the flags. Safe from any thread.

#pragma once

#include "foundation/run/Operation.h"

#include <atomic>
#include <string>

namespace sentrova {

class ConcurrentOperationAbstract : public Operation {
  public:
    bool isFinished() const override { return finished_; }
    bool isExecuting() const override { return executing_; }
    bool isCancelled() const override { return cancelled_; }

    // Returns false if the operation was cancelled before it began; the operation is finished then.
    virtual bool canStart();
    void started();
    void completeOperation();
    // Only sets the flag. Subclasses call it from their `cancel`.
    void cancelOperation();

    // Writes the flags to the log.
    void printStatus() const;

  protected:
    // The class name is the operation's name until setName is called.
    explicit ConcurrentOperationAbstract(std::string className);

    void finishFailed() override;

    // For a subclass's own canStart: finishes the operation without executing it.
    void finishRefused();

    // For the one subclass that can start again after a cancel.
    void clearCancelled() { cancelled_ = false; }

  private:
    std::atomic<bool> cancelled_ = false;
    std::atomic<bool> executing_ = false;
    std::atomic<bool> finished_ = false;
};

}  // namespace sentrova
