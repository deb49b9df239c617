// "probe": tries each of the server's addresses, and tells how far the connection gets.

#pragma once

#include "control/Command.h"

namespace sentrova::control {

class ProbeCommand final : public Command {
  public:
    explicit ProbeCommand(CLI::App& program);

    int run(Console& console, const InstallationFolder& installation) override;

  private:
    bool json_ = false;
};

}  // namespace sentrova::control
