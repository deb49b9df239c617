// Keeps the agent's credentials out of the log.

#pragma once

#include "foundation/value/Value.h"

#include <optional>

namespace sentrova {

class Secrets {
  public:
    Secrets() = delete;

    static constexpr const char* kMask = "********";

    // A copy with the agent's identity and the organisation's access key masked in all nested dictionaries. For
    // messages only.
    static Value masked(const Value& value);

    // A request or answer body. If it contains the key of a secret, all its bytes are masked. For messages only.
    static Value maskedBody(const std::optional<Data>& body);
};

}  // namespace sentrova
