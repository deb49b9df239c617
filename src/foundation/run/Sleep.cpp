#include "foundation/run/Sleep.h"

#include "foundation/run/Mutex.h"

#include <memory>

namespace sentrova {

void sleepFor(Clock& clock, Clock::Duration duration) {
    // Shared with the timer: a signalling thread may still be inside signal() when the sleeper has left.
    const auto over = std::make_shared<Semaphore>();
    clock.after(duration, [over] { over->signal(); });
    over->wait();
}

}  // namespace sentrova
