// Asks the running agent for its status.

#pragma once

#include "control/AgentProcess.h"
#include "control/InstallationFolder.h"
#include "foundation/files/FileSystem.h"
#include "foundation/value/Value.h"

#include <chrono>
#include <optional>

namespace sentrova::control {

class AgentQuestion {
  public:
    // The longest time that an agent has for its answer.
    static constexpr std::chrono::seconds kPatience{20};

    // The file system must outlive the object.
    AgentQuestion(const InstallationFolder& installation, FileSystem& files)
        : installation_(installation), files_(files) {}

    // The content of the status file, as it is now; nothing if there is none.
    std::optional<Dictionary> known() const;
    // Makes the process write the status file, and returns the content. Returns nothing if the process does not answer
    // in time, or ends. docs/formats.md describes the file.
    std::optional<Dictionary> ask(const AgentProcess& process) const;

  private:
    const InstallationFolder& installation_;
    FileSystem& files_;
};

}  // namespace sentrova::control
