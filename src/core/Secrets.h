// Keeps the values by which the agent proves who it is out of the log.

#pragma once

#include "foundation/value/Value.h"

#include <optional>

namespace sentrova {

class Secrets {
  public:
    Secrets() = delete;

    static constexpr const char* kMask = "********";

    // The value with the agent's identity and the organisation's access key masked wherever a dictionary in it has
    // them. For messages only.
    static Value masked(const Value& value);

    // A body as it came over the wire; one that names a secret has all of its bytes masked. For messages only.
    static Value maskedBody(const std::optional<Data>& body);
};

}  // namespace sentrova
