#include "platform/AuditPipeDevice.h"

#include <atomic>

namespace sentrova::platform {

namespace {
std::atomic<AuditPipeDevice*> installedDevice{nullptr};
}  // namespace

AuditPipeDevice& AuditPipeDevice::shared() {
    auto* device = installedDevice.load(std::memory_order_acquire);
    return device ? *device : host();
}

void AuditPipeDevice::install(AuditPipeDevice* device) {
    installedDevice.store(device, std::memory_order_release);
}

}  // namespace sentrova::platform
