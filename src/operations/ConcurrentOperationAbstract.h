// The base of the agent's long-running operations: three state flags of its own, each change of them announced.
//
// A subclass's `start` asks canStart; when that refuses it returns, and the operation is finished. Otherwise it calls
// started, works, and ends with completeOperation. One whose `start` throws is finished by run(). An object is used
// once: nothing resets the flags. Safe from any thread.

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

    // False, and the operation is finished, when it was cancelled before it began.
    virtual bool canStart();
    void started();
    void completeOperation();
    // Marks the operation cancelled, nothing more: subclasses call it from their `cancel`.
    void cancelOperation();

    // Writes the flags to the log.
    void printStatus() const;

  protected:
    // The name under which the queue knows the operation until it is given another.
    explicit ConcurrentOperationAbstract(std::string className);

    void finishFailed() override;

    // How a subclass's own canStart ends when it refuses.
    void finishRefused();

    // For the one subclass that starts again after a cancel.
    void clearCancelled() { cancelled_ = false; }

  private:
    std::atomic<bool> cancelled_ = false;
    std::atomic<bool> executing_ = false;
    std::atomic<bool> finished_ = false;
};

}  // namespace sentrova
