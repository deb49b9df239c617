// "spool": the batches that wait, were refused or are kept, their events, and another attempt for them.

#pragma once

#include "control/Command.h"
#include "control/SpoolContent.h"

#include <string>
#include <vector>

namespace sentrova::control {

// Without a subcommand it lists. Only `retry` changes anything, and that through the agent.
class SpoolCommand final : public Command {
  public:
    explicit SpoolCommand(CLI::App& program);

    bool needsRoot() const override { return true; }
    void checkArguments() override;
    int run(Console& console, const InstallationFolder& installation) override;

  private:
    int list(Console& console, const InstallationFolder& installation, FileSystem& files,
             const SpoolContent& content) const;
    int show(Console& console, const SpoolContent& content) const;

    CLI::App* show_ = nullptr;
    CLI::App* retry_ = nullptr;
    bool json_ = false;
    bool all_ = false;
    std::string name_;
    std::vector<std::string> names_;
};

}  // namespace sentrova::control
