// Sleeps by the agent's clock, which a test can move by hand.

#pragma once

#include "foundation/run/Clock.h"

namespace sentrova {

// Blocks the calling thread until the clock's monotonic time has advanced by the duration.
void sleepFor(Clock& clock, Clock::Duration duration);

}  // namespace sentrova
