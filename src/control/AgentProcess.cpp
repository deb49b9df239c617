#include "control/AgentProcess.h"

#include "platform/posix/FileLock.h"

#include <csignal>

namespace sentrova::control {

AgentProcess AgentProcess::of(const InstallationFolder& installation) {
    const auto lock = platform::lockState(installation.lockFile());
    AgentProcess process;
    process.installation_ = installation;
    process.isRunning_ = lock.isHeld;
    process.processId_ = lock.holder;
    return process;
}

bool AgentProcess::signal(int number) const {
    const auto lock = platform::lockState(installation_.lockFile());
    return processId_ && lock.holder == processId_ && ::kill(*processId_, number) == 0;
}

}  // namespace sentrova::control
