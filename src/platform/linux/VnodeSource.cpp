#include "platform/VnodeSource.h"

#include "foundation/files/FileDescriptor.h"
#include "foundation/run/Threads.h"
#include "foundation/run/Unhandled.h"
#include "platform/WaitForInput.h"

#include <sys/eventfd.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <array>
#include <thread>

namespace sentrova::platform {

namespace {

class InotifySource final : public VnodeSource {
  public:
    InotifySource(FileDescriptor events, FileDescriptor wake, std::function<void()> handler)
        : events_(std::move(events)), wake_(std::move(wake)), handler_(std::move(handler)) {}

    ~InotifySource() override { cancel(); }
    InotifySource(const InotifySource&) = delete;
    InotifySource& operator=(const InotifySource&) = delete;

    bool resume() override {
        if (!events_ || thread_.joinable()) {
            return false;
        }
        thread_ = startThread([this] { listen(); });
        return true;
    }

    void cancel() override {
        ::eventfd_write(wake_.get(), 1);
        if (thread_.get_id() == std::this_thread::get_id()) {
            return;
        }
        if (thread_.joinable()) {
            thread_.join();
        }
        events_.reset();
        wake_.reset();
    }

  private:
    void listen() {
        alignas(inotify_event) std::array<char, 4096> buffer{};
        while (waitForInput(events_.get(), wake_.get()) == InputWait::ready) {
            if (::read(events_.get(), buffer.data(), buffer.size()) > 0) {
                runGuarded("VnodeSource", handler_);
            }
        }
    }

    FileDescriptor events_;
    FileDescriptor wake_;
    const std::function<void()> handler_;
    std::thread thread_;
};

}  // namespace

std::unique_ptr<VnodeSource> VnodeSource::attributesOf(const std::string& path, std::function<void()> handler) {
    FileDescriptor events(::inotify_init1(IN_CLOEXEC));
    FileDescriptor wake(::eventfd(0, EFD_CLOEXEC));
    // Watches only the attributes: reads, and writers that close the file, must not count.
    if (!events || !wake || ::inotify_add_watch(events.get(), path.c_str(), IN_ATTRIB) < 0) {
        return nullptr;
    }
    return std::make_unique<InotifySource>(std::move(events), std::move(wake), std::move(handler));
}

}  // namespace sentrova::platform
