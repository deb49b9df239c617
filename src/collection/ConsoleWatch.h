// Watches the console and calls a callback when its owner may have changed.

#pragma once

#include "forwarding/FileWatcher.h"
#include "foundation/run/Mutex.h"

#include <functional>
#include <memory>

namespace sentrova {

// Safe from any thread.
class ConsoleWatch {
  public:
    // Starts a watch and replaces an earlier one. The callback runs on the watch's own queue. Without a console nothing
    // is watched.
    void begin(std::function<void()> callback) EXCLUDES(mutex_);
    // Stops watching.
    void suspend() EXCLUDES(mutex_);
    // Ends the watch. Waits for a callback in progress; none runs afterwards.
    void end() EXCLUDES(mutex_);

  private:
    Mutex mutex_{LockRank::transaction};
    std::unique_ptr<FileWatcher> watcher_ GUARDED_BY(mutex_);
};

}  // namespace sentrova
