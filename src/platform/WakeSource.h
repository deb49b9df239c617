// Calls a handler when the machine wakes from sleep.

#pragma once

#include "foundation/run/Clock.h"

#include <functional>
#include <memory>

namespace sentrova::platform {

class WakeSource {
  public:
    // Stops listening and waits for a running handler.
    virtual ~WakeSource() = default;

    // The handler runs on the source's own thread after each wake. On a host that cannot tell a wake from a change of
    // the clock, it also runs after somebody sets the clock. Null if the host does not report wakes. The clock must
    // outlive the source.
    static std::unique_ptr<WakeSource> make(Clock& clock, std::function<void()> handler);
};

}  // namespace sentrova::platform
