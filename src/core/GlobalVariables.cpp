#include "core/GlobalVariables.h"

#include "collection/DomainUtil.h"
#include "core/ConfigurationError.h"
#include "core/GlobalConstants.h"
#include "core/LogSource.h"
#include "core/PropertyListHandler.h"
#include "forwarding/SecurityUtil.h"
#include "foundation/ProcessWide.h"
#include "foundation/Text.h"
#include "platform/OperatingSystem.h"

#include <filesystem>

#include <fmt/format.h>

namespace sentrova {

namespace {

constexpr LogSource kLog("GlobalVariables");

// The identity is stored behind this many characters.
constexpr std::size_t kIdentityPrefix = 32;

// Texts of the configuration: a number in a text's place reads as its decimal text.
GlobalVariables::Text textIn(const Dictionary& dictionary, std::string_view key) {
    const auto& value = dictionary[key];
    return value.string() || value.isNumber() ? GlobalVariables::Text(value.description()) : std::nullopt;
}

// The text from the given UTF-16 index on; nothing when the text is shorter.
std::optional<std::string> fromIndex(const std::string& text, std::size_t index) {
    std::size_t units = 0;
    for (std::size_t at = 0; at < text.size(); ++at) {
        const auto byte = static_cast<unsigned char>(text[at]);
        if ((byte & 0xC0U) == 0x80) {
            continue;
        }
        if (units >= index) {
            return text.substr(at);
        }
        // Characters of four bytes take two units.
        units += byte >= 0xF0 ? 2 : 1;
    }
    return units >= index ? std::optional(std::string()) : std::nullopt;
}

}  // namespace

struct SharedVariables {
    GlobalVariables variables;
};

namespace {
ProcessWide<SharedVariables> theVariables;
}  // namespace

GlobalVariables& GlobalVariables::getInstance() {
    return theVariables.get().variables;
}

GlobalVariables::GlobalVariables() {
    initPrivate();
    initialiseAgentPaths();
    initialiseServerInfo();
    initialiseMyConfigurations();
}

void GlobalVariables::initPrivate() {
    kLog.debug(__func__, "GlobalVariables Initialised");
    maxEventDataSizeReached_.set(false);
}

void GlobalVariables::initialiseAgentPaths() {
    kLog.debug(__func__, "Globalvariables initialiseAgentPaths called");
    std::error_code error;
    const auto installation = std::filesystem::current_path(error).string();
    setAgentInstallationPath(installation);
    setEventDataPath(installation + "/../eventData");
    setBinPath(installation + "/../bin");
    setConfPath(installation + "/../conf");
    setLogsPath(installation + "/../logs");
    kLog.debug(__func__, "Bin {}\tconf={}\tlogs={}", binPath(), confPath(), logsPath());
}

void GlobalVariables::initialiseServerInfo() {
    kLog.debug(__func__, "Globalvariables initialiseServerInfo called");
    const auto path = fmt::format("{}/{}", confPath(), GlobalConstants::SERVER_INFO_FILE);
    auto serverInfo = PropertyListHandler::initWithFile(path);

    const auto domain = serverInfo.GetValueForKey(GlobalConstants::DOMAIN_NAME);
    if (!domain.isNull() && domain != Value("")) {
        DomainUtil::setDomainName(domain.description());
    } else {
        const auto asked = DomainUtil::getDomainName();
        serverInfo.SetValueForKey(GlobalConstants::DOMAIN_NAME, asked ? Value(*asked) : Value());
    }
    setHostName(DomainUtil::getHostName());
    serverInfo.SetValueForKey("AgentName", hostName().value_or(platform::localizedHostName()));
    // Takes effect only on a file that was not there: what was loaded cannot be changed and is written back as it was.
    serverInfo.WriteToProplist();

    loadServerKeys(serverInfo.dictionary() ? *serverInfo.dictionary() : Dictionary());
}

void GlobalVariables::loadServerKeys(const Dictionary& serverInfo) {
    setOrgAccessKey(textIn(serverInfo, GlobalConstants::ORG_ACCESS_KEY));
    setAgentUID(textIn(serverInfo, GlobalConstants::AGENT_UID));
    setServerIP(textIn(serverInfo, GlobalConstants::SERVERIP));
    setServerFQDN(textIn(serverInfo, GlobalConstants::SERVERFQDN));
    setServerName(textIn(serverInfo, GlobalConstants::SERVERNAME));
    setServerPort(serverInfo[GlobalConstants::SERVER_PORT].integerValue());
    setServerProtocol(textIn(serverInfo, GlobalConstants::PROTOCOL));
    setAgentPort(serverInfo[GlobalConstants::AGENT_PORT].integerValue());
    setIsRealTime(serverInfo[GlobalConstants::REALTIME].boolValue());
    setEventsToRead(textIn(serverInfo, GlobalConstants::EVENTS_TO_READ));
    setIsEnabled(serverInfo[GlobalConstants::IS_ENABLED].boolValue());
    setNoOfEventsPerRequest(serverInfo[GlobalConstants::NUMBER_OF_EVENTS].integerValue());
    setEventDataSize(serverInfo[GlobalConstants::MAX_DATA_SIZE].integerValue());
    setAgentProtocol(textIn(serverInfo, GlobalConstants::AGENT_PROTOCOL));
    setNATServerName(textIn(serverInfo, GlobalConstants::NAT_SERVER));
    setNATPort(serverInfo[GlobalConstants::NAT_PORT].intValue());
    setNATProtocol(textIn(serverInfo, GlobalConstants::NAT_PROTOCOL));

    if (const auto& recent = serverInfo[GlobalConstants::RECENT_EVENT_TIME_MILLIS]; !recent.isNull()) {
        setTimeStampOfLastEvent(recent);
        // Takes effect only on a file that was not there: what was loaded is written back as it was. The same file by
        // two paths: the working directory is the program folder.
        auto mine = PropertyListHandler::initWithFile(
            fmt::format("{}/{}", confPath(), GlobalConstants::MY_CONFIGURATIONS_FILE));
        mine.SetValueForKey(GlobalConstants::TIMESTAMP_LE, recent);
        mine.WriteToProplist(fmt::format("{}/{}", GlobalConstants::CONF_PATH, GlobalConstants::MY_CONFIGURATIONS_FILE));
    }
}

void GlobalVariables::initialiseMyConfigurations() {
    kLog.debug(__func__, "Globalvariables initialiseMyConfigurations called");
    const auto mine =
        PropertyListHandler::initWithFile(fmt::format("{}/{}", confPath(), GlobalConstants::MY_CONFIGURATIONS_FILE));
    setTimeStampOfLastEvent(mine.GetValueForKey(GlobalConstants::TIMESTAMP_LE));
    setLogLevel(mine.GetValueForKey(GlobalConstants::LOG_LEVEL).intValue());
    const auto version = mine.GetValueForKey(GlobalConstants::AGENT_VERSION);
    setAgentVersion(version.isNull() ? Text() : Text(version.description()));
    loadIdentity(mine.GetValueForKey(GlobalConstants::AGENT_AUTHENTICATION_ID));

    const auto relay = NATServerName();
    if (relay != "" && relay != GlobalConstants::NO_NAT_SERVER) {
        setType(0);
        return;
    }
    const auto type = mine.GetValueForKey(GlobalConstants::COMMUNICATION_TYPE).integerValue();
    setType(static_cast<std::uint64_t>(type));
}

void GlobalVariables::loadIdentity(const Value& stored) {
    if (stored.isNull()) {
        return;
    }
    const auto text = stored.description();
    const auto cipher = fromIndex(text, kIdentityPrefix);
    if (!cipher) {
        auto message =
            fmt::format("The key \"{}\" of {}/{} holds fewer than {} characters, so no identity can be in it",
                        GlobalConstants::AGENT_AUTHENTICATION_ID, confPath(), GlobalConstants::MY_CONFIGURATIONS_FILE,
                        kIdentityPrefix);
        kLog.error(__func__, "{}", message);
        throw ConfigurationError(message);
    }
    const auto vector = text.substr(0, text.size() - cipher->size());
    const auto plain =
        SecurityUtil::decrypt(cipher, agentUID().value_or(std::string(GlobalConstants::FALLBACK_PASS_PHRASE)), vector);
    setAgentUUID(plain ? *plain : std::nullopt);
}

bool GlobalVariables::hasNATServer() const {
    const auto relay = NATServerName();
    return relay && !relay->empty() && *relay != GlobalConstants::NO_NAT_SERVER;
}

void GlobalVariables::setMaxEventDataSizeReached(bool value) {
    willChangeValueForKey(kMaxEventDataSizeReached);
    maxEventDataSizeReached_.set(value);
    didChangeValueForKey(kMaxEventDataSizeReached);
}

Value GlobalVariables::valueForKey(std::string_view key) const {
    return key == kMaxEventDataSizeReached ? Value(maxEventDataSizeReached()) : Value();
}

}  // namespace sentrova
