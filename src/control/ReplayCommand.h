// "replay": sets the stored position back, so that the agent reads the trails from a time on again.

#pragma once

#include "control/AgentProcess.h"
#include "control/Command.h"

#include <cstdint>
#include <string>

namespace sentrova::control {

class ReplayCommand final : public Command {
  public:
    explicit ReplayCommand(CLI::App& program);

    bool needsRoot() const override { return true; }
    void checkArguments() override;
    int run(Console& console, const InstallationFolder& installation) override;

  private:
    bool isWanted(Console& console) const;

    std::string sinceText_;
    std::uint64_t since_ = 0;
    bool yes_ = false;
    bool restart_ = false;
};

}  // namespace sentrova::control
