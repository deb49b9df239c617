// A configuration with which the agent cannot run.

#pragma once

#include <stdexcept>

namespace sentrova {

class ConfigurationError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;

    // What the process exits with when this comes up while it starts (sysexits' "configuration error").
    static constexpr int kExitStatus = 78;
};

}  // namespace sentrova
