#include "platform/VnodeSource.h"

#include "foundation/files/FileDescriptor.h"
#include "foundation/run/Threads.h"
#include "foundation/run/Unhandled.h"
#include "platform/darwin/KernelQueue.h"

#include <fcntl.h>
#include <sys/event.h>

#include <thread>

namespace sentrova::platform {

namespace {

class KernelQueueSource final : public VnodeSource {
  public:
    KernelQueueSource(FileDescriptor file, KernelQueue queue, std::function<void()> handler)
        : file_(std::move(file)), queue_(std::move(queue)), handler_(std::move(handler)) {}

    ~KernelQueueSource() override { cancel(); }
    KernelQueueSource(const KernelQueueSource&) = delete;
    KernelQueueSource& operator=(const KernelQueueSource&) = delete;

    bool resume() override {
        if (!queue_ || thread_.joinable()) {
            return false;
        }
        thread_ = startThread([this] { listen(); });
        return true;
    }

    void cancel() override {
        queue_.end();
        if (thread_.get_id() == std::this_thread::get_id()) {
            return;
        }
        if (thread_.joinable()) {
            thread_.join();
        }
        queue_.close();
        file_.reset();
    }

  private:
    void listen() {
        while (queue_.wait()) {
            runGuarded("VnodeSource", handler_);
        }
    }

    // Keeps the watched file open, even after another file gets its name.
    FileDescriptor file_;
    KernelQueue queue_;
    const std::function<void()> handler_;
    std::thread thread_;
};

}  // namespace

std::unique_ptr<VnodeSource> VnodeSource::attributesOf(const std::string& path, std::function<void()> handler) {
    // O_EVTONLY opens the file only for events, so that neither the file nor its volume counts as in use.
    FileDescriptor file(::open(path.c_str(), O_EVTONLY | O_CLOEXEC));
    KernelQueue queue;
    if (!file || !queue || !queue.watch(static_cast<std::uintptr_t>(file.get()), EVFILT_VNODE, NOTE_ATTRIB)) {
        return nullptr;
    }
    return std::make_unique<KernelQueueSource>(std::move(file), std::move(queue), std::move(handler));
}

}  // namespace sentrova::platform
