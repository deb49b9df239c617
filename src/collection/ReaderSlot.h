// Where the operations of one class keep the reader that any of them made last, so that another can cancel it.

#pragma once

#include "collection/EventCollector.h"
#include "foundation/Mutex.h"

#include <memory>

namespace sentrova {

// Safe from any thread.
class ReaderSlot {
  public:
    void set(const std::shared_ptr<EventCollector>& reader) EXCLUDES(mutex_) {
        auto earlier = reader;
        MutexLock lock(mutex_);
        // The earlier one goes after the lock.
        std::swap(reader_, earlier);
        lock.unlock();
    }

    bool isExecuting() EXCLUDES(mutex_) {
        const auto reader = get();
        return reader && reader->isExecuting();
    }

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

    Mutex mutex_;
    std::shared_ptr<EventCollector> reader_ GUARDED_BY(mutex_);
};

}  // namespace sentrova
