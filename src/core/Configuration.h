// The agent's configuration as a value: what `Serverinfo.plist` and `myconfigurations.plist` say, the agent's folders,
// and the few facts that the agent adds while it runs.
//
// Values copy; GlobalVariables holds the present one and replaces it whole. A key that is missing leaves a text absent
// and a number or flag 0. docs/configuration.md describes the keys.

#pragma once

#include "foundation/value/Value.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

namespace sentrova {

// How the agent reaches its server. A stored value may be any other number, which counts as the product connector.
enum class ConnectionType : std::uint64_t { relay = 0, agentConnector = 1, productConnector = 2 };

// What a configured relay name means.
enum class Relay : std::uint8_t {
    named,
    // "" or "-": there is no relay.
    none,
    // The name is missing. Connection 0 is then taken for a relay, but has no host name of its own.
    unspecified,
};
Relay relayOf(const std::optional<std::string>& serverName);

// Gives the plain text of a cipher text that was encrypted with a pass phrase; nothing for what was not.
using Decryption =
    std::function<std::optional<std::string>(const std::string& cipherText, const std::string& passPhrase)>;

// What `Serverinfo.plist` says.
struct ServerSettings {
    using Text = std::optional<std::string>;

    Text orgAccessKey;
    Text agentUID;
    Text serverIP;
    Text serverFQDN;
    Text serverName;
    std::int64_t serverPort = 0;
    Text serverProtocol;
    std::int64_t agentPort = 0;
    Text agentProtocol;
    Text NATServerName;
    std::int64_t NATPort = 0;
    Text NATProtocol;
    bool isRealTime = false;
    bool isEnabled = false;
    // The names of the events to collect, separated by commas.
    Text eventsToRead;
    std::int64_t noOfEventsPerRequest = 0;
    // The spool's size limit in gigabytes.
    std::int64_t eventDataSize = 0;

    // A number in a text's place reads as its decimal text.
    static ServerSettings from(const Dictionary& serverInfo);
};

// What `myconfigurations.plist` says, but for the stored time and the type of connection, which the server's file may
// override.
struct AgentSettings {
    using Text = std::optional<std::string>;

    std::int64_t logLevel = 0;
    Text agentVersion;
    // The identity that the server gave, in plain text.
    Text agentUUID;

    // Everything but the identity.
    static AgentSettings from(const Dictionary& mine);
    // The stored identity, which is encrypted with the agent's id, in plain text; nothing when none is stored or it is
    // not encrypted so. Throws ConfigurationError, which names the file, when the text is shorter than its prefix.
    static Text identityIn(const Dictionary& mine, const Text& agentUID, const std::string& file,
                           const Decryption& decrypt);
};

// Absolute, not normalised: they keep their "..".
struct Folders {
    std::string agentInstallationPath;
    std::string eventDataPath;
    std::string logsPath;
    std::string confPath;
    std::string binPath;

    // The folders beside the program folder.
    static Folders around(const std::string& installation);
};

struct Configuration : ServerSettings, AgentSettings, Folders {
    using Text = std::optional<std::string>;

    // The connection in use.
    ConnectionType type = ConnectionType::relay;
    // Whole seconds since 1970 of the last collected event, as stored (a number or its decimal text).
    Value timeStampOfLastEvent;
    Text hostName;
    bool maxEventDataSizeReached = false;
    bool isNATConfigured = false;

    Relay relay() const { return relayOf(NATServerName); }
};

}  // namespace sentrova
