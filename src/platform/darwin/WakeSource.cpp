#include "platform/WakeSource.h"

#include "foundation/run/DispatchQueue.h"

#include <IOKit/IOMessage.h>
#include <IOKit/pwr_mgt/IOPMLib.h>

#include <dispatch/dispatch.h>

namespace sentrova::platform {

namespace {

// Power messages arrive on a dispatch queue that does nothing else, because the system delays sleep until they are
// acknowledged. The handler runs on a separate queue.
class PowerSource final : public WakeSource {
  public:
    PowerSource(Clock& clock, std::function<void()> handler)
        : handler_(std::move(handler)),
          handlerQueue_("WakeSource", clock),
          messageQueue_(::dispatch_queue_create("com.kelvark.vantorix.wakesource", DISPATCH_QUEUE_SERIAL)) {}

    ~PowerSource() override {
        // Runs on the message queue, so that no message is handled during or after the removal.
        ::dispatch_sync_f(messageQueue_, this, [](void* self) { static_cast<PowerSource*>(self)->endListening(); });
        ::dispatch_release(messageQueue_);
    }
    PowerSource(const PowerSource&) = delete;
    PowerSource& operator=(const PowerSource&) = delete;

    bool listen() {
        connection_ = ::IORegisterForSystemPower(this, &port_, takeMessage, &notifier_);
        if (connection_ == MACH_PORT_NULL) {
            return false;
        }
        ::IONotificationPortSetDispatchQueue(port_, messageQueue_);
        return true;
    }

  private:
    static void takeMessage(void* self, io_service_t, natural_t type, void* argument) {
        auto* const source = static_cast<PowerSource*>(self);
        switch (type) {
            case kIOMessageCanSystemSleep:
            case kIOMessageSystemWillSleep:
                ::IOAllowPowerChange(source->connection_, reinterpret_cast<std::intptr_t>(argument));
                break;
            case kIOMessageSystemHasPoweredOn:
                source->handlerQueue_.async(source->handler_);
                break;
            default:
                break;
        }
    }

    void endListening() {
        if (connection_ != MACH_PORT_NULL) {
            ::IODeregisterForSystemPower(&notifier_);
            ::IOServiceClose(connection_);
            ::IONotificationPortDestroy(port_);
        }
    }

    const std::function<void()> handler_;
    DispatchQueue handlerQueue_;
    const dispatch_queue_t messageQueue_;
    io_connect_t connection_ = MACH_PORT_NULL;
    io_object_t notifier_ = MACH_PORT_NULL;
    IONotificationPortRef port_ = nullptr;
};

}  // namespace

std::unique_ptr<WakeSource> WakeSource::make(Clock& clock, std::function<void()> handler) {
    auto source = std::make_unique<PowerSource>(clock, std::move(handler));
    if (!source->listen()) {
        return nullptr;
    }
    return source;
}

}  // namespace sentrova::platform
