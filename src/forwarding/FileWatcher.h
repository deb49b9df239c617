// Calls a block whenever the attributes of one file change: its owner, group, mode or times. Writing to it does not
// count.

#pragma once

#include "foundation/run/DispatchQueue.h"
#include "platform/VnodeSource.h"

#include <functional>
#include <memory>
#include <string>

namespace sentrova {

// The callback runs on the watcher's own serial queue, once for each batch of changes. The interface is for one thread
// at a time.
class FileWatcher {
  public:
    // Null when the path cannot be opened. The watcher listens only from startListening on.
    static std::unique_ptr<FileWatcher> initWithPath(const std::string& path, std::function<void()> andCallback);

    ~FileWatcher();
    FileWatcher(const FileWatcher&) = delete;
    FileWatcher& operator=(const FileWatcher&) = delete;

    bool startListening();
    // Stops watching for good: to watch again, make a new watcher.
    void suspend();

    const std::string& watchedPath() const { return watchedPath_; }

  private:
    explicit FileWatcher(std::string path);

    const std::string watchedPath_;
    DispatchQueue queue_;
    // After the queue, so that it has ended before the queue goes.
    std::unique_ptr<platform::VnodeSource> source_;
};

}  // namespace sentrova
