// The folder of an installed agent, with the paths of what is in it.

#pragma once

#include <string>

namespace sentrova::control {

class InstallationFolder {
  public:
    // `root` is the folder above the agent's program folder.
    explicit InstallationFolder(std::string root) : root_(std::move(root)) {}

    const std::string& root() const { return root_; }
    std::string bin() const { return root_ + "/bin"; }
    std::string conf() const { return root_ + "/conf"; }
    std::string logs() const { return root_ + "/logs"; }
    std::string logArchive() const { return root_ + "/logs/archive"; }
    std::string spool() const { return root_ + "/eventData"; }
    std::string lockFile() const { return root_ + "/conf/agent.lock"; }
    std::string statusFile() const { return root_ + "/logs/status.json"; }

  private:
    std::string root_;
};

}  // namespace sentrova::control
