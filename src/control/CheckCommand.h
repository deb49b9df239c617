// "check": finds mistakes in the configuration files, before or after they are deployed.

#pragma once

#include "control/Command.h"

#include <optional>
#include <string>

namespace sentrova::control {

class CheckCommand final : public Command {
  public:
    explicit CheckCommand(CLI::App& program);

    int run(Console& console, const InstallationFolder& installation) override;

  private:
    std::optional<std::string> folder_;
    bool json_ = false;
};

}  // namespace sentrova::control
