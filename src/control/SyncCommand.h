// sentrovactl sync: makes the running agent synchronise its configuration now.

#pragma once

#include "control/Command.h"

namespace sentrova::control {

class SyncCommand final : public Command {
  public:
    explicit SyncCommand(CLI::App& program);

    bool needsRoot() const override { return true; }
    int run(Console& console, const InstallationFolder& installation) override;
};

}  // namespace sentrova::control
