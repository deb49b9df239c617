#include "platform/WakeSource.h"

#include "foundation/files/FileDescriptor.h"
#include "foundation/run/Threads.h"
#include "foundation/run/Unhandled.h"
#include "platform/WaitForInput.h"

#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <cerrno>
#include <limits>
#include <thread>

namespace sentrova::platform {

namespace {

// Uses a wall-clock timer that never expires. The kernel cancels it whenever the wall clock jumps: after a wake, and
// when somebody sets the clock.
class ClockJumpSource final : public WakeSource {
  public:
    ClockJumpSource(FileDescriptor timer, FileDescriptor wake, std::function<void()> handler)
        : timer_(std::move(timer)),
          wake_(std::move(wake)),
          handler_(std::move(handler)),
          thread_(startThread([this] { listen(); })) {}

    ~ClockJumpSource() override {
        ::eventfd_write(wake_.get(), 1);
        thread_.join();
    }
    ClockJumpSource(const ClockJumpSource&) = delete;
    ClockJumpSource& operator=(const ClockJumpSource&) = delete;

    static bool arm(int timer) {
        itimerspec never{};
        never.it_value.tv_sec = std::numeric_limits<std::int32_t>::max();
        return ::timerfd_settime(timer, TFD_TIMER_ABSTIME | TFD_TIMER_CANCEL_ON_SET, &never, nullptr) == 0;
    }

  private:
    void listen() {
        while (waitForInput(timer_.get(), wake_.get()) == InputWait::ready) {
            std::uint64_t expirations = 0;
            const bool jumped = ::read(timer_.get(), &expirations, sizeof expirations) < 0 && errno == ECANCELED;
            if (!arm(timer_.get())) {
                return;
            }
            if (jumped) {
                runGuarded("WakeSource", handler_);
            }
        }
    }

    const FileDescriptor timer_;
    const FileDescriptor wake_;
    const std::function<void()> handler_;
    std::thread thread_;
};

}  // namespace

std::unique_ptr<WakeSource> WakeSource::make(Clock& /*clock*/, std::function<void()> handler) {
    FileDescriptor timer(::timerfd_create(CLOCK_REALTIME, TFD_CLOEXEC | TFD_NONBLOCK));
    FileDescriptor wake(::eventfd(0, EFD_CLOEXEC));
    if (!timer || !wake || !ClockJumpSource::arm(timer.get())) {
        return nullptr;
    }
    return std::make_unique<ClockJumpSource>(std::move(timer), std::move(wake), std::move(handler));
}

}  // namespace sentrova::platform
