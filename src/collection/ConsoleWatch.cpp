#include "collection/ConsoleWatch.h"

#include <utility>

namespace sentrova {

void ConsoleWatch::begin(std::function<void()> callback) {
    constexpr const char* kConsole = "/dev/console";
    auto watcher = FileWatcher::initWithPath(kConsole, std::move(callback));
    if (watcher) {
        watcher->startListening();
    }
    MutexLock lock(mutex_);
    // The earlier watcher is destroyed after the lock is released.
    std::swap(watcher_, watcher);
    lock.unlock();
}

void ConsoleWatch::end() {
    std::unique_ptr<FileWatcher> ended;
    MutexLock lock(mutex_);
    std::swap(watcher_, ended);
    lock.unlock();
}

void ConsoleWatch::suspend() {
    MutexLock lock(mutex_);
    if (watcher_) {
        watcher_->suspend();
    }
}

}  // namespace sentrova
