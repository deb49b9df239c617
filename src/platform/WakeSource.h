// Hears of the machine's wake from sleep.

#pragma once

#include "foundation/time/Clock.h"

#include <functional>
#include <memory>

namespace sentrova::platform {

class WakeSource {
  public:
    // Stops listening; a call of the handler that has begun is waited for.
    virtual ~WakeSource() = default;

    // The handler runs on a thread of the source's own after each wake, and where the host tells of that in one with
    // it, after each time that somebody set the clock. Null when the host does not tell. The clock must outlive the
    // source.
    static std::unique_ptr<WakeSource> make(Clock& clock, std::function<void()> handler);
};

}  // namespace sentrova::platform
