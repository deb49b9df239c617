#include "platform/ServiceManager.h"

namespace sentrova::platform {

namespace {

// The agent has no job on Linux: whoever starts it there knows how.
class NoServiceManager final : public ServiceManager {
  public:
    bool manages(pid_t /*process*/) override { return false; }
    std::optional<std::string> stop() override { return "this system has no job of the agent"; }
    std::optional<std::string> start() override { return "this system has no job of the agent"; }
};

}  // namespace

std::unique_ptr<ServiceManager> ServiceManager::make() {
    return std::make_unique<NoServiceManager>();
}

}  // namespace sentrova::platform
