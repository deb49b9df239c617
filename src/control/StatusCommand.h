// sentrovactl status: whether the agent is healthy, and what it has done.

#pragma once

#include "control/Command.h"

namespace sentrova::control {

class StatusCommand final : public Command {
  public:
    explicit StatusCommand(CLI::App& program);

    bool needsRoot() const override { return true; }
    int run(Console& console, const InstallationFolder& installation) override;

  private:
    bool asJson_ = false;
    bool asMetrics_ = false;
};

}  // namespace sentrova::control
