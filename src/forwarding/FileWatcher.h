// Calls a block whenever the attributes of one file change: owner, group, mode or times. A write to the file does not
// count.

#pragma once

#include "foundation/run/DispatchQueue.h"
#include "platform/VnodeSource.h"

#include <functional>
#include <memory>
#include <string>

namespace sentrova {

// The callback runs on the watcher's own serial queue, once per batch of changes. The functions are not thread-safe.
class FileWatcher {
  public:
    // Returns null if the path cannot be opened. The watcher is idle until startListening.
    static std::unique_ptr<FileWatcher> initWithPath(const std::string& path, std::function<void()> andCallback);

    ~FileWatcher();
    FileWatcher(const FileWatcher&) = delete;
    FileWatcher& operator=(const FileWatcher&) = delete;

    // Returns false if the host refuses the watch.
    bool startListening();
    // Stops watching permanently. To watch again, create a new watcher.
    void suspend();

    const std::string& watchedPath() const { return watchedPath_; }

  private:
    explicit FileWatcher(std::string path);

    const std::string watchedPath_;
    DispatchQueue queue_;
    // Declared after the queue, so that it is destroyed first.
    std::unique_ptr<platform::VnodeSource> source_;
};

}  // namespace sentrova
