#include "core/GlobalVariables.h"

#include "collection/DomainUtil.h"
#include "core/ConfigurationError.h"
#include "core/GlobalConstants.h"
#include "core/LogSource.h"
#include "core/PropertyListHandler.h"
#include "foundation/ProcessWide.h"
#include "platform/OperatingSystem.h"

#include <filesystem>

#include <fmt/format.h>

namespace sentrova {

namespace {

constexpr LogSource kLog("GlobalVariables");

std::string inFolder(const std::string& folder, std::string_view file) {
    return fmt::format("{}/{}", folder, file);
}

Dictionary contentOf(const PropertyListHandler& list) {
    return list.dictionary() ? *list.dictionary() : Dictionary();
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
    isRunning_ = true;
}

void GlobalVariables::initPrivate() {
    kLog.debug(__func__, "GlobalVariables Initialised");
    set(&Configuration::maxEventDataSizeReached, false);
}

void GlobalVariables::initialiseAgentPaths() {
    kLog.debug(__func__, "Globalvariables initialiseAgentPaths called");
    std::error_code error;
    const auto folders = Folders::around(std::filesystem::current_path(error).string());
    replace([&](Configuration& next) { static_cast<Folders&>(next) = folders; });
    kLog.debug(__func__, "Bin {}\tconf={}\tlogs={}", folders.binPath, folders.confPath, folders.logsPath);
}

void GlobalVariables::initialiseServerInfo() {
    kLog.debug(__func__, "Globalvariables initialiseServerInfo called");
    auto serverInfo = PropertyListHandler::initWithFile(inFolder(confPath(), GlobalConstants::SERVER_INFO_FILE));

    // The directory may take seconds to answer, so it is asked before the files are held.
    auto domain = serverInfo.GetValueForKey(GlobalConstants::DOMAIN_NAME);
    if (!domain.isNull() && domain != Value("")) {
        DomainUtil::setDomainName(domain.description());
    } else {
        const auto asked = DomainUtil::getDomainName();
        domain = asked ? Value(*asked) : Value();
    }
    setHostName(DomainUtil::getHostName());
    PropertyListHandler::exclusively([&] { loadServerInfo(std::move(serverInfo), domain); });
}

void GlobalVariables::loadServerInfo(PropertyListHandler serverInfo, const Value& domain) {
    const auto path = inFolder(confPath(), GlobalConstants::SERVER_INFO_FILE);
    if (isRunning_ && serverInfo.isLoaded()) {
        // An answer of the server may have been stored since the file was read.
        serverInfo = PropertyListHandler::initWithFile(path);
    }
    if (serverInfo.isUnread()) {
        kLog.error(__func__, "The settings of {} stay as they are in memory", path);
        return;
    }
    // Takes effect only on a file that was not there: loaded content cannot be changed, and is written back as it was.
    serverInfo.SetValueForKey(GlobalConstants::DOMAIN_NAME, domain);
    serverInfo.SetValueForKey(GlobalConstants::AGENT_NAME, hostName().value_or(platform::localizedHostName()));
    serverInfo.WriteToProplist();

    const auto content = contentOf(serverInfo);
    const auto settings = ServerSettings::from(content);
    const auto& recent = content[GlobalConstants::RECENT_EVENT_TIME_MILLIS];
    replace([&](Configuration& next) {
        static_cast<ServerSettings&>(next) = settings;
        if (!recent.isNull()) {
            next.timeStampOfLastEvent = recent;
        }
    });
    if (!recent.isNull()) {
        storeRecentEventTime(recent);
    }
}

void GlobalVariables::storeRecentEventTime(const Value& recent) {
    // Takes effect only on a file that was not there. The same file by two paths: the working directory is the program
    // folder.
    auto mine = PropertyListHandler::initWithFile(inFolder(confPath(), GlobalConstants::MY_CONFIGURATIONS_FILE));
    mine.SetValueForKey(GlobalConstants::TIMESTAMP_LE, recent);
    mine.WriteToProplist(inFolder(std::string(GlobalConstants::CONF_PATH), GlobalConstants::MY_CONFIGURATIONS_FILE));
}

void GlobalVariables::initialiseMyConfigurations() {
    kLog.debug(__func__, "Globalvariables initialiseMyConfigurations called");
    PropertyListHandler::exclusively([this] { loadMyConfigurations(); });
}

void GlobalVariables::loadMyConfigurations() {
    const auto path = inFolder(confPath(), GlobalConstants::MY_CONFIGURATIONS_FILE);
    const auto list = PropertyListHandler::initWithFile(path);
    if (list.isUnread()) {
        kLog.error(__func__, "The settings of {} stay as they are in memory", path);
        return;
    }
    const auto mine = contentOf(list);
    const auto present = snapshot();
    auto settings = AgentSettings::from(mine);
    settings.agentUUID = present->agentUUID;
    try {
        settings.agentUUID = AgentSettings::identityIn(mine, present->agentUID, path);
        identityRefused_ = false;
    } catch (const ConfigurationError& error) {
        if (!isRunning_) {
            kLog.error(__func__, "{}", error.what());
            throw;
        }
        if (!identityRefused_.exchange(true)) {
            kLog.error(__func__, "{}; the identity in memory stays", error.what());
        }
    }
    const auto type = mine[GlobalConstants::COMMUNICATION_TYPE].integerValue();
    replace([&](Configuration& next) {
        static_cast<AgentSettings&>(next) = settings;
        next.timeStampOfLastEvent = mine[GlobalConstants::TIMESTAMP_LE];
        next.type = next.relay() == Relay::none ? static_cast<ConnectionType>(type) : ConnectionType::relay;
    });
}

void GlobalVariables::setType(std::uint64_t value) {
    // Every choice of an address sets it, nearly always to what it is.
    if (type() != value) {
        set(&Configuration::type, static_cast<ConnectionType>(value));
    }
}

void GlobalVariables::setMaxEventDataSizeReached(bool value) {
    willChangeValueForKey(kMaxEventDataSizeReached);
    set(&Configuration::maxEventDataSizeReached, value);
    didChangeValueForKey(kMaxEventDataSizeReached);
}

Value GlobalVariables::valueForKey(std::string_view key) const {
    return key == kMaxEventDataSizeReached ? Value(maxEventDataSizeReached()) : Value();
}

}  // namespace sentrova
