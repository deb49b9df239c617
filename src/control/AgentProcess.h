// The running agent of an installation.

#pragma once

#include "control/InstallationFolder.h"

#include <sys/types.h>

#include <optional>

namespace sentrova::control {

// What was true when the object was made; an agent may start or end at any time.
class AgentProcess {
  public:
    static AgentProcess of(const InstallationFolder& installation);

    // Whether an agent holds the installation's lock.
    bool isRunning() const { return isRunning_; }
    // The process that holds the lock, by the kernel's word: the number in the file proves nothing. Absent if the
    // kernel does not tell it.
    std::optional<pid_t> processId() const { return processId_; }
    // Sends the signal to the process that holds the lock at this moment. Returns false if that is not the process of
    // this object, or if the signal was refused.
    bool signal(int number) const;

  private:
    InstallationFolder installation_{""};
    bool isRunning_ = false;
    std::optional<pid_t> processId_;
};

}  // namespace sentrova::control
