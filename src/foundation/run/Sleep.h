// Lets a thread sleep by a clock that a test may move by hand.

#pragma once

#include "foundation/time/Clock.h"

namespace sentrova {

// Blocks the calling thread until the monotonic time of the clock has moved on by the duration.
void sleepFor(Clock& clock, Clock::Duration duration);

}  // namespace sentrova
