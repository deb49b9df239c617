#include "platform/SignalSource.h"

#include "foundation/run/Threads.h"
#include "foundation/run/Unhandled.h"

#include <pthread.h>

#include <csignal>

namespace sentrova::platform {

namespace {

// The signal is blocked in all threads, and one thread waits for it. The process must not set the signal to be ignored:
// the kernel would drop a signal that came before the thread waits.
class WaitingSource final : public SignalSource {
  public:
    WaitingSource(int signal, std::function<void()> handler) : handler_(std::move(handler)) {
        sigemptyset(&signals_);
        sigaddset(&signals_, signal);
        ::pthread_sigmask(SIG_BLOCK, &signals_, nullptr);
    }

    void resume() override {
        startThread([signals = signals_, handler = handler_] {
            for (;;) {
                int signal = 0;
                if (::sigwait(&signals, &signal) == 0) {
                    runGuarded("SignalSource", handler);
                }
            }
        }).detach();
    }

  private:
    const std::function<void()> handler_;
    sigset_t signals_{};
};

}  // namespace

std::unique_ptr<SignalSource> SignalSource::make(int signal, std::function<void()> handler) {
    return std::make_unique<WaitingSource>(signal, std::move(handler));
}

}  // namespace sentrova::platform
