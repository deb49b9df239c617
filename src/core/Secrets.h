// Keeps the values by which the agent proves who it is out of the log.

#pragma once

#include "foundation/Value.h"

namespace sentrova {

class Secrets {
  public:
    Secrets() = delete;

    static constexpr const char* kMask = "********";

    // The value with the agent's identity and the organisation's access key masked wherever a dictionary in it has
    // them. For messages only.
    static Value masked(const Value& value);
};

}  // namespace sentrova
