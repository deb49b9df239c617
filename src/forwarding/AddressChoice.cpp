#include "forwarding/AddressChoice.h"

#include "core/LogSource.h"

#include <algorithm>

namespace sentrova {

namespace {

std::string getConnectionName(const Configuration& configuration, int currentHostname) {
    switch (currentHostname) {
        case 0:
            return orNull(configuration.relay() == Relay::named ? configuration.NATServerName
                                                                : configuration.serverFQDN);
        case 2:
            return orNull(configuration.serverIP);
        case 3:
            return orNull(configuration.serverName);
        default:
            return orNull(configuration.serverFQDN);
    }
}

ConnectionType typeOf(const Configuration& configuration, int currentPort) {
    if (currentPort == 0 && configuration.relay() != Relay::none) {
        return ConnectionType::relay;
    }
    return currentPort == 2 ? ConnectionType::productConnector : ConnectionType::agentConnector;
}

std::int64_t getConnectionPort(const Configuration& configuration, ConnectionType type) {
    switch (type) {
        case ConnectionType::relay:
            return configuration.NATPort;
        case ConnectionType::productConnector:
            return configuration.serverPort;
        default:
            return configuration.agentPort;
    }
}

std::string schemeOf(const Configuration& configuration, ConnectionType type) {
    switch (type) {
        case ConnectionType::relay:
            return orNull(configuration.NATProtocol);
        case ConnectionType::productConnector:
            return orNull(configuration.serverProtocol);
        default:
            return orNull(configuration.agentProtocol);
    }
}

}  // namespace

AddressPosition AddressPosition::first(ConnectionType type) {
    switch (type) {
        case ConnectionType::relay:
            return {.currentPort = 0, .currentHostname = 0, .isFirst = true};
        case ConnectionType::agentConnector:
            return {.currentPort = 1, .currentHostname = 1, .isFirst = true};
        default:
            return {.currentPort = 2, .currentHostname = 1, .isFirst = true};
    }
}

AddressPosition AddressPosition::next() const {
    const int hostname = (currentHostname + 1) % kHostForms;
    return {.currentPort = hostname == 0 ? (currentPort + 1) % kConnections : currentPort, .currentHostname = hostname};
}

ServerAddress addressAt(const Configuration& configuration, AddressPosition position) {
    const auto type = typeOf(configuration, position.currentPort);
    const bool isFirstOfRelay = position.isFirst && position.currentPort == 0;
    return {.scheme = schemeOf(configuration, isFirstOfRelay ? ConnectionType::relay : type),
            .host = getConnectionName(configuration, position.currentHostname),
            .port = getConnectionPort(configuration, type),
            .type = type};
}

std::vector<ServerAddress> addressesInTurn(const Configuration& configuration) {
    std::vector<ServerAddress> addresses;
    auto position = AddressPosition::first(configuration.type);
    // The first position comes again at the end of the rotation, where its scheme may be another one.
    for (int i = 0; i <= AddressPosition::kConnections * AddressPosition::kHostForms; ++i) {
        auto address = addressAt(configuration, position);
        const auto isSame = [&](const ServerAddress& other) {
            return address.scheme == other.scheme && address.host == other.host && address.port == other.port;
        };
        if (std::ranges::none_of(addresses, isSame)) {
            addresses.push_back(std::move(address));
        }
        position = position.next();
    }
    return addresses;
}

AddressChoice::AddressChoice(GlobalVariables& configuration)
    : configuration_(configuration), position_(AddressPosition::first(configuration.snapshot()->type)) {}

ServerAddress AddressChoice::current() {
    const MutexLock lock(mutex_);
    return choose();
}

ServerAddress AddressChoice::next() {
    const MutexLock lock(mutex_);
    position_ = position_.next();
    return choose();
}

ServerAddress AddressChoice::choose() {
    auto address = addressAt(*configuration_.snapshot(), position_);
    position_.isFirst = false;
    configuration_.setType(static_cast<std::uint64_t>(address.type));
    return address;
}

}  // namespace sentrova
