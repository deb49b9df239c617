// The host's service manager, as far as it stops and starts the agent.

#pragma once

#include <sys/types.h>

#include <memory>
#include <optional>
#include <string>

namespace sentrova::platform {

// For one thread at a time. The functions run the manager's own programs, and block for as long as these take.
class ServiceManager {
  public:
    static std::unique_ptr<ServiceManager> make();

    virtual ~ServiceManager() = default;
    ServiceManager(const ServiceManager&) = delete;
    ServiceManager& operator=(const ServiceManager&) = delete;

    // Whether the process is that of the agent's job. False on a host without such a job.
    virtual bool manages(pid_t process) = 0;
    // Asks the manager to end the job's process and not to start another one. The process may still be ending when the
    // function returns. Returns the reason for a failure, in words.
    virtual std::optional<std::string> stop() = 0;
    // Starts a job that was stopped. Returns the reason for a failure, in words.
    virtual std::optional<std::string> start() = 0;

  protected:
    ServiceManager() = default;
};

}  // namespace sentrova::platform
