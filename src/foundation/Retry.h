// Repeats what the host refuses for want of threads or memory.

#pragma once

#include <functional>
#include <string_view>

namespace sentrova {

// Calls the function until it returns without an exception, ten times a second, and reports the first exception under
// the name given. Blocks the calling thread meanwhile, so it is not for callbacks of the clock. The pauses do not use
// the clock, because the clock may be what was refused a thread.
void retryUntilGranted(std::string_view where, const std::function<void()>& function);

}  // namespace sentrova
