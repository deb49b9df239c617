// Watches the console for a change of its owner.

#pragma once

#include "forwarding/FileWatcher.h"
#include "foundation/run/Mutex.h"

#include <functional>
#include <memory>

namespace sentrova {

// Safe from any thread.
class ConsoleWatch {
  public:
    // Watches from now on, in the place of an earlier watch. The callback runs on a queue of the watch.
    void begin(std::function<void()> callback) EXCLUDES(mutex_);
    // Stops watching.
    void suspend() EXCLUDES(mutex_);
    // Waits for a callback in progress; none comes after that.
    void end() EXCLUDES(mutex_);

  private:
    Mutex mutex_{LockRank::transaction};
    std::unique_ptr<FileWatcher> watcher_ GUARDED_BY(mutex_);
};

}  // namespace sentrova
