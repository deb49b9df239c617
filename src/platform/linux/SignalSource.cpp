#include "platform/SignalSource.h"

#include "foundation/run/Threads.h"
#include "foundation/run/Unhandled.h"

#include <pthread.h>

#include <csignal>

namespace sentrova::platform {

namespace {

// The signals are blocked in all threads, and one thread waits for them. The process must not set a signal to be
// ignored: the kernel would drop one that came before the thread waits.
class WaitingSource final : public SignalSource {
  public:
    explicit WaitingSource(Handlers handlers) : handlers_(std::move(handlers)) {
        sigemptyset(&signals_);
        for (const auto& [signal, handler] : handlers_) {
            sigaddset(&signals_, signal);
        }
        ::pthread_sigmask(SIG_BLOCK, &signals_, nullptr);
    }

    void resume() override {
        startThread([signals = signals_, handlers = handlers_] {
            for (;;) {
                int signal = 0;
                if (::sigwait(&signals, &signal) == 0) {
                    runGuarded("SignalSource", handlers.at(signal));
                }
            }
        }).detach();
    }

  private:
    const Handlers handlers_;
    sigset_t signals_{};
};

}  // namespace

std::unique_ptr<SignalSource> SignalSource::make(Handlers handlers) {
    return std::make_unique<WaitingSource>(std::move(handlers));
}

std::vector<int> statusSignals() {
    return {SIGUSR1};
}

}  // namespace sentrova::platform
