#include "platform/AuditCondition.h"

#include <unistd.h>

#include <cerrno>

#include <bsm/audit.h>

namespace sentrova::platform {

namespace {

class KernelCondition final : public AuditCondition {
  public:
    Result<AuditState> state() override {
        if (::access("/dev/auditpipe", F_OK) != 0) {
            return AuditState::noDevice;
        }
        int condition = AUC_UNSET;
        // Deprecated since macOS 11, like all of auditing. No other call gives this answer.
#pragma clang diagnostic push
#pragma clang diagnostic ignored "-Wdeprecated-declarations"
        const auto answered = ::auditon(A_GETCOND, &condition, sizeof condition);
#pragma clang diagnostic pop
        if (answered != 0) {
            return posixError(errno);
        }
        return condition == AUC_AUDITING ? AuditState::on : AuditState::off;
    }
};

}  // namespace

std::unique_ptr<AuditCondition> AuditCondition::make() {
    return std::make_unique<KernelCondition>();
}

}  // namespace sentrova::platform
