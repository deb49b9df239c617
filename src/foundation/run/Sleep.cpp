#include "foundation/run/Sleep.h"

#include "foundation/run/Mutex.h"

#include <memory>

namespace sentrova {

void sleepFor(Clock& clock, Clock::Duration duration) {
    // Shared with the timer, because the clock's thread may still be inside signal() when wait() has returned.
    const auto over = std::make_shared<Semaphore>();
    clock.after(duration, [over] { over->signal(); });
    over->wait();
}

}  // namespace sentrova
