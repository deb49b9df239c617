// The agent's configuration as a value: the content of `Serverinfo.plist` and `myconfigurations.plist`, the agent's
// folders, and a few facts that the agent adds at run time.
//
// GlobalVariables holds the current configuration and replaces it as a whole. A missing key leaves a text absent and a
// number or flag 0. docs/configuration.md describes the keys.

#pragma once

#include "foundation/value/Value.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace sentrova {

// The connection to the server. The stored value may be any other number, which counts as the product connector.
enum class ConnectionType : std::uint64_t { relay = 0, agentConnector = 1, productConnector = 2 };

// The meaning of a configured relay name.
enum class Relay : std::uint8_t {
    named,
    // "" or "-": the agent uses no relay.
    none,
    // The name is missing. Connection 0 then counts as a relay, but has no host name.
    unspecified,
};
Relay relayOf(const std::optional<std::string>& serverName);

// Whether the text can stand for the host in a URL, between "//" and the port. The configuration comes from outside,
// and a character like "/" or "@" would change the meaning of the URL.
bool isHostName(std::string_view name);

// Decrypts a text. Absent if the text was not encrypted with the pass phrase.
using Decryption =
    std::function<std::optional<std::string>(const std::string& cipherText, const std::string& passPhrase)>;

// The settings in `Serverinfo.plist`.
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
    // The names of the events to collect, separated by commas. Absent: all events. Empty: none.
    Text eventsToRead;
    std::int64_t noOfEventsPerRequest = 0;
    // The spool's size limit in gigabytes.
    std::int64_t eventDataSize = 0;

    // A number in the place of a text is read as its decimal text.
    static ServerSettings from(const Dictionary& serverInfo);
};

// The settings in `myconfigurations.plist`, except the stored time and the connection type, which `Serverinfo.plist`
// may override.
struct AgentSettings {
    using Text = std::optional<std::string>;

    std::int64_t logLevel = 0;
    // Whether the next start of the agent stores every event durably; see docs/reliability.md.
    bool durableDelivery = false;
    Text agentVersion;
    // The identity that the server assigned to the agent, in plain text.
    Text agentUUID;

    // Reads everything except the identity.
    static AgentSettings from(const Dictionary& mine);
    // Decrypts the stored identity with the agent's id as the pass phrase. Absent if no identity is stored or the
    // decryption fails. Throws ConfigurationError with the name of the file if the stored text is shorter than the
    // prefix before the identity.
    static constexpr std::size_t kIdentityPrefix = 32;
    static Text identityIn(const Dictionary& mine, const Text& agentUID, const std::string& file,
                           const Decryption& decrypt);
};

// Absolute paths, not normalised: they contain "..".
struct Folders {
    std::string agentInstallationPath;
    std::string eventDataPath;
    std::string logsPath;
    std::string confPath;
    std::string binPath;

    // `installation` is the program folder; the other folders are beside it.
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

    // The settings in the content of the two files, with the stored time and the connection of a new process. Without
    // the identity, the folders and the facts of run time.
    static Configuration from(const Dictionary& serverInfo, const Dictionary& mine);
    // Takes the settings of `myconfigurations.plist`. The relay decides about the stored connection.
    void take(const AgentSettings& settings, const Dictionary& mine);
};

}  // namespace sentrova
