#include "forwarding/AddressChoice.h"

#include <array>

#include <gtest/gtest.h>

namespace sentrova {
namespace {

// Sixteen configurations (four relays by four types) by sixteen positions: the first position of the type, one whole
// rotation, and three more.
TEST(AddressChoiceTest, AddressDependsOnTheConfigurationAndThePositionOnly) {
    struct Server {
        std::optional<std::string> relay;
        std::string firstHost;
        // The connection in use at connection 0.
        int connection0;
    };
    const Server servers[] = {{"relay", "relay", 0}, {"-", "full", 1}, {"", "full", 1}, {std::nullopt, "full", 0}};
    const std::pair<std::string, int> connections[] = {{"nat", 7443}, {"agent", 8443}, {"prod", 9443}};
    for (const auto& server : servers) {
        for (const std::size_t type : {0U, 1U, 2U, 3U}) {
            Configuration configuration;
            configuration.NATServerName = server.relay;
            std::tie(configuration.NATProtocol, configuration.NATPort) = connections[0];
            std::tie(configuration.agentProtocol, configuration.agentPort) = connections[1];
            std::tie(configuration.serverProtocol, configuration.serverPort) = connections[2];
            configuration.serverFQDN = "full";
            configuration.serverIP = "192.0.2.1";
            auto position = AddressPosition::first(static_cast<ConnectionType>(type));
            for (std::size_t step = std::array{0U, 5U, 9U, 9U}.at(type), end = step + 16; step < end; ++step) {
                const auto index = static_cast<int>(step / 4 % 3);
                const auto connection = index == 0 ? server.connection0 : index;
                const auto& [scheme, port] = connections[connection];
                const std::string hosts[] = {server.firstHost, "full", "192.0.2.1", "(null)"};
                // Without a relay, the very first request still uses the relay's scheme.
                const ServerAddress expected = {step == 0 ? "nat" : scheme, hosts[step % 4], port,
                                                static_cast<ConnectionType>(connection)};
                EXPECT_EQ(addressAt(configuration, position), expected)
                    << server.relay.value_or("none") << " " << type << " " << step;
                position = position.next();
            }
        }
    }
}

}  // namespace
}  // namespace sentrova
