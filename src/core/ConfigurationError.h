// Thrown for a configuration with which the agent cannot run.

#pragma once

#include <stdexcept>

namespace sentrova {

class ConfigurationError : public std::runtime_error {
  public:
    using std::runtime_error::runtime_error;

    // The exit status of a process that fails with this error while it starts (EX_CONFIG in sysexits.h).
    static constexpr int kExitStatus = 78;
};

}  // namespace sentrova
