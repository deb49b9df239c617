#include "forwarding/FileWatcher.h"

#include "core/LogSource.h"
#include "foundation/run/Current.h"
#include "platform/SystemPath.h"

namespace sentrova {

namespace {
constexpr LogSource kLog("FileWatcher");
}  // namespace

FileWatcher::FileWatcher(std::string path)
    : watchedPath_(std::move(path)), queue_("com.kelvark.vantorix.filewatcherqueue", Current<Clock>::get()) {}

std::unique_ptr<FileWatcher> FileWatcher::initWithPath(const std::string& path, std::function<void()> andCallback) {
    std::unique_ptr<FileWatcher> watcher(new FileWatcher(path));  // NOLINT: the constructor is private
    auto* const queue = &watcher->queue_;
    watcher->source_ = platform::VnodeSource::attributesOf(
        platform::systemPath(path), [queue, callback = std::move(andCallback)] { queue->async(callback); });
    return watcher->source_ ? std::move(watcher) : nullptr;
}

FileWatcher::~FileWatcher() {
    source_.reset();
}

bool FileWatcher::startListening() {
    return source_ && source_->resume();
}

void FileWatcher::suspend() {
    if (source_) {
        source_->cancel();
    }
    kLog.info("Filewatcher suspended");
}

}  // namespace sentrova
