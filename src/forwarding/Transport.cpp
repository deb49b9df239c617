#include "forwarding/Transport.h"

#include "core/GlobalConstants.h"
#include "core/LogSource.h"
#include "core/PropertyListHandler.h"

#include <fmt/format.h>

namespace sentrova {

namespace {
constexpr LogSource kTraffic("TransportEngine", LogCategory::Communication);
}  // namespace

void Transport::setIsConnected(bool flag) {
    if (connected_.exchange(flag) == flag) {
        return;
    }
    kTraffic.info("TransportEngine isconnected changed to {:d}", flag);
    const auto path = fmt::format("{}/{}", configuration_.confPath(), GlobalConstants::MY_CONFIGURATIONS_FILE);
    PropertyListHandler::change(path, GlobalConstants::COMMUNICATION_TYPE,
                                static_cast<std::int64_t>(configuration_.type()));
}

}  // namespace sentrova
