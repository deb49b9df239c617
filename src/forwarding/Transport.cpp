#include "forwarding/Transport.h"

#include "core/GlobalConstants.h"
#include "core/LogSource.h"
#include "core/PropertyListHandler.h"

#include <utility>

#include <fmt/format.h>

namespace sentrova {

namespace {
constexpr LogSource kTraffic("TransportEngine", LogCategory::Communication);
}  // namespace

void Transport::setIsConnected(bool flag) {
    const bool changes = connected_.exchange(flag) != flag;
    // Before the file is written, because the observers must learn of the success even if that fails.
    if (flag) {
        successes_.notify("Transport", {});
    }
    if (!changes) {
        return;
    }
    kTraffic.info("TransportEngine isconnected changed to {:d}", flag);
    const auto path = fmt::format("{}/{}", configuration_.confPath(), GlobalConstants::MY_CONFIGURATIONS_FILE);
    PropertyListHandler::change(path, GlobalConstants::COMMUNICATION_TYPE,
                                static_cast<std::int64_t>(configuration_.type()));
}

Subscription Transport::observeSuccess(std::function<void()> function) {
    return successes_.add([function = std::move(function)](const Success&) { function(); });
}

}  // namespace sentrova
