#include "platform/AuditCondition.h"

#include "platform/SystemPath.h"

#include <unistd.h>

namespace sentrova::platform {

namespace {

// A FIFO of the system volume stands for the device. If it exists, auditing counts as on.
class VolumeCondition final : public AuditCondition {
  public:
    Result<AuditState> state() override {
        return ::access(systemPath("/dev/auditpipe").c_str(), F_OK) == 0 ? AuditState::on : AuditState::noDevice;
    }
};

}  // namespace

std::unique_ptr<AuditCondition> AuditCondition::make() {
    return std::make_unique<VolumeCondition>();
}

}  // namespace sentrova::platform
