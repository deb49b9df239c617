// Holds the newest reader of all operations of one class, so that any of them can cancel it.

#pragma once

#include "collection/EventCollector.h"
#include "foundation/run/Mutex.h"

#include <memory>

namespace sentrova {

// Safe from any thread.
class ReaderSlot {
  public:
    // Held by one operation at a time; the others wait. Two readers at once would deliver records twice, and each would
    // move the last-read time past records that the other one has not read.
    class Turn {
      public:
        explicit Turn(ReaderSlot& slot) : slot_(slot) { slot_.beginTurn(); }
        ~Turn() { slot_.endTurn(); }
        Turn(const Turn&) = delete;
        Turn& operator=(const Turn&) = delete;

      private:
        ReaderSlot& slot_;
    };

    void set(const std::shared_ptr<EventCollector>& reader) EXCLUDES(mutex_) {
        auto earlier = reader;
        MutexLock lock(mutex_);
        // The earlier reader is destroyed after the lock is released.
        std::swap(reader_, earlier);
        lock.unlock();
    }

    // Whether the reader is reading or about to begin.
    bool isBusy() EXCLUDES(mutex_) {
        const auto reader = get();
        return reader && !reader->isFinished() && !reader->isCancelled();
    }

    // Cancels the reader if it is executing.
    void cancelExecuting() EXCLUDES(mutex_) {
        const auto reader = get();
        if (reader && reader->isExecuting()) {
            reader->cancel();
        }
    }

  private:
    std::shared_ptr<EventCollector> get() EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        return reader_;
    }

    void beginTurn() EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        while (turnTaken_) {
            turnEnded_.wait(lock);
        }
        turnTaken_ = true;
    }

    void endTurn() EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        turnTaken_ = false;
        turnEnded_.notifyOne();
    }

    Mutex mutex_;
    Condition turnEnded_;
    bool turnTaken_ GUARDED_BY(mutex_) = false;
    std::shared_ptr<EventCollector> reader_ GUARDED_BY(mutex_);
};

}  // namespace sentrova
