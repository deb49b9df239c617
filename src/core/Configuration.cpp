#include "core/Configuration.h"

#include "core/ConfigurationError.h"
#include "core/GlobalConstants.h"

#include <algorithm>
#include <cstddef>
#include <string_view>

#include <fmt/format.h>

namespace sentrova {

namespace {

using Text = std::optional<std::string>;

Text textIn(const Dictionary& dictionary, std::string_view key) {
    const auto& value = dictionary[key];
    return value.string() || value.isNumber() ? Text(value.description()) : std::nullopt;
}

// The text from the given UTF-16 index on. Absent if the text is shorter.
Text fromIndex(const std::string& text, std::size_t index) {
    std::size_t units = 0;
    for (std::size_t at = 0; at < text.size(); ++at) {
        const auto byte = static_cast<unsigned char>(text[at]);
        if ((byte & 0xC0U) == 0x80) {
            continue;
        }
        if (units >= index) {
            return text.substr(at);
        }
        // A character of four UTF-8 bytes takes two UTF-16 units.
        units += byte >= 0xF0 ? 2 : 1;
    }
    return units >= index ? Text(std::string()) : std::nullopt;
}

}  // namespace

Relay relayOf(const std::optional<std::string>& serverName) {
    if (!serverName) {
        return Relay::unspecified;
    }
    return serverName->empty() || *serverName == GlobalConstants::NO_NAT_SERVER ? Relay::none : Relay::named;
}

bool isHostName(std::string_view name) {
    return !name.empty() && std::ranges::all_of(name, [](char c) {
        return static_cast<unsigned char>(c) > ' ' && c != 0x7F &&
               std::string_view("/\\?#@%\"<>^`{|}").find(c) == std::string_view::npos;
    });
}

ServerSettings ServerSettings::from(const Dictionary& serverInfo) {
    ServerSettings settings;
    settings.orgAccessKey = textIn(serverInfo, GlobalConstants::ORG_ACCESS_KEY);
    settings.agentUID = textIn(serverInfo, GlobalConstants::AGENT_UID);
    settings.serverIP = textIn(serverInfo, GlobalConstants::SERVERIP);
    settings.serverFQDN = textIn(serverInfo, GlobalConstants::SERVERFQDN);
    settings.serverName = textIn(serverInfo, GlobalConstants::SERVERNAME);
    settings.serverPort = serverInfo[GlobalConstants::SERVER_PORT].integerValue();
    settings.serverProtocol = textIn(serverInfo, GlobalConstants::PROTOCOL);
    settings.agentPort = serverInfo[GlobalConstants::AGENT_PORT].integerValue();
    settings.isRealTime = serverInfo[GlobalConstants::REALTIME].boolValue();
    settings.eventsToRead = textIn(serverInfo, GlobalConstants::EVENTS_TO_READ);
    settings.isEnabled = serverInfo[GlobalConstants::IS_ENABLED].boolValue();
    settings.noOfEventsPerRequest = serverInfo[GlobalConstants::NUMBER_OF_EVENTS].integerValue();
    settings.eventDataSize = serverInfo[GlobalConstants::MAX_DATA_SIZE].integerValue();
    settings.agentProtocol = textIn(serverInfo, GlobalConstants::AGENT_PROTOCOL);
    settings.NATServerName = textIn(serverInfo, GlobalConstants::NAT_SERVER);
    settings.NATPort = serverInfo[GlobalConstants::NAT_PORT].intValue();
    settings.NATProtocol = textIn(serverInfo, GlobalConstants::NAT_PROTOCOL);
    return settings;
}

AgentSettings AgentSettings::from(const Dictionary& mine) {
    AgentSettings settings;
    settings.logLevel = mine[GlobalConstants::LOG_LEVEL].intValue();
    settings.durableDelivery = mine[GlobalConstants::DURABLE_DELIVERY].boolValue();
    const auto& version = mine[GlobalConstants::AGENT_VERSION];
    settings.agentVersion = version.isNull() ? Text() : Text(version.description());
    return settings;
}

Text AgentSettings::identityIn(const Dictionary& mine, const Text& agentUID, const std::string& file,
                               const Decryption& decrypt) {
    const auto& stored = mine[GlobalConstants::AGENT_AUTHENTICATION_ID];
    if (stored.isNull()) {
        return std::nullopt;
    }
    const auto text = stored.description();
    const auto cipher = fromIndex(text, kIdentityPrefix);
    if (!cipher) {
        throw ConfigurationError(
            fmt::format("The key \"{}\" of {} holds fewer than {} characters, so it cannot hold an identity",
                        GlobalConstants::AGENT_AUTHENTICATION_ID, file, kIdentityPrefix));
    }
    return decrypt(*cipher, agentUID.value_or(std::string(GlobalConstants::FALLBACK_PASS_PHRASE)));
}

Configuration Configuration::from(const Dictionary& serverInfo, const Dictionary& mine) {
    Configuration configuration;
    static_cast<ServerSettings&>(configuration) = ServerSettings::from(serverInfo);
    configuration.take(AgentSettings::from(mine), mine);
    if (configuration.timeStampOfLastEvent.isNull()) {
        configuration.timeStampOfLastEvent = serverInfo[GlobalConstants::RECENT_EVENT_TIME_MILLIS];
    }
    return configuration;
}

void Configuration::take(const AgentSettings& settings, const Dictionary& mine) {
    static_cast<AgentSettings&>(*this) = settings;
    timeStampOfLastEvent = mine[GlobalConstants::TIMESTAMP_LE];
    const auto stored = mine[GlobalConstants::COMMUNICATION_TYPE].integerValue();
    type = relay() == Relay::none ? static_cast<ConnectionType>(stored) : ConnectionType::relay;
}

Folders Folders::around(const std::string& installation) {
    return {.agentInstallationPath = installation,
            .eventDataPath = installation + "/../eventData",
            .logsPath = installation + "/../logs",
            .confPath = installation + "/../conf",
            .binPath = installation + "/../bin"};
}

}  // namespace sentrova
