#include "platform/AuditCondition.h"

#include <atomic>

namespace sentrova::platform {

namespace {
std::atomic<AuditCondition*> installedCondition{nullptr};
}  // namespace

AuditCondition& AuditCondition::shared() {
    auto* condition = installedCondition.load(std::memory_order_acquire);
    return condition ? *condition : host();
}

void AuditCondition::install(AuditCondition* condition) {
    installedCondition.store(condition, std::memory_order_release);
}

}  // namespace sentrova::platform
