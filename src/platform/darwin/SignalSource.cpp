#include "platform/SignalSource.h"

#include "foundation/run/Threads.h"
#include "foundation/run/Unhandled.h"
#include "platform/darwin/KernelQueue.h"

#include <sys/event.h>

#include <cerrno>
#include <csignal>
#include <memory>
#include <system_error>

namespace sentrova::platform {

namespace {

// Uses a kqueue, which also reports ignored signals. sigwait would not: the kernel drops ignored signals at once.
class KernelQueueSource final : public SignalSource {
  public:
    explicit KernelQueueSource(Handlers handlers) : handlers_(std::move(handlers)) {
        for (const auto& [signal, handler] : handlers_) {
            if (!*queue_ || !queue_->watch(static_cast<std::uintptr_t>(signal), EVFILT_SIGNAL, 0)) {
                throw std::system_error(errno, std::generic_category(), "cannot listen to signals");
            }
            // Ignores the signal only after the kqueue watches it, so that no signal is lost in between.
            struct sigaction ignore{};
            ignore.sa_handler = SIG_IGN;
            sigemptyset(&ignore.sa_mask);
            ::sigaction(signal, &ignore, nullptr);
        }
    }

    void resume() override {
        startThread([queue = queue_, handlers = handlers_] {
            while (const auto signals = queue->waitForEvents()) {
                for (const auto signal : *signals) {
                    runGuarded("SignalSource", handlers.at(static_cast<int>(signal)));
                }
            }
        }).detach();
    }

  private:
    // Shared with the detached thread.
    const std::shared_ptr<KernelQueue> queue_ = std::make_shared<KernelQueue>();
    const Handlers handlers_;
};

}  // namespace

std::unique_ptr<SignalSource> SignalSource::make(Handlers handlers) {
    return std::make_unique<KernelQueueSource>(std::move(handlers));
}

std::vector<int> statusSignals() {
    return {SIGUSR1, SIGINFO};
}

}  // namespace sentrova::platform
