// The command `events`: what the agent reports from audit trails.

#pragma once

#include "control/Command.h"
#include "control/EventChoice.h"

#include <optional>
#include <string>
#include <vector>

namespace sentrova::control {

// Reads nothing of an installation, writes no file and runs no program.
class EventsCommand final : public Command {
  public:
    explicit EventsCommand(CLI::App& program);

    void checkArguments() override;
    int run(Console& console, const InstallationFolder& installation) override;

  private:
    EventChoice choice_;
    std::optional<std::string> volume_;
    std::optional<std::string> since_;
    std::optional<std::string> until_;
    std::vector<std::string> trails_;
};

}  // namespace sentrova::control
