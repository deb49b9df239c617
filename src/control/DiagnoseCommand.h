// "diagnose": writes one archive for a support case.

#pragma once

#include "control/Command.h"

#include <string>

namespace sentrova::control {

class DiagnoseCommand final : public Command {
  public:
    explicit DiagnoseCommand(CLI::App& program);

    bool needsRoot() const override { return true; }
    int run(Console& console, const InstallationFolder& installation) override;

  private:
    std::string file_;
    bool withoutEvents_ = false;
};

}  // namespace sentrova::control
