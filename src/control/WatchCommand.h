// The command `watch`: the events that the agent reports, as the system writes their records.

#pragma once

#include "control/Command.h"
#include "control/EventChoice.h"

namespace sentrova::control {

// Reads the live audit device through a descriptor of its own, until SIGINT or SIGTERM.
class WatchCommand final : public Command {
  public:
    explicit WatchCommand(CLI::App& program);

    int run(Console& console, const InstallationFolder& installation) override;

  private:
    EventChoice choice_;
};

}  // namespace sentrova::control
