#include "core/GlobalVariables.h"

#include "core/ConfigurationCheck.h"
#include "core/ConfigurationError.h"
#include "core/GlobalConstants.h"
#include "core/LogSource.h"
#include "core/PropertyListHandler.h"
#include "foundation/run/Current.h"
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

Folders presentFolders() {
    std::error_code error;
    return Folders::around(std::filesystem::current_path(error).string());
}

// The content of the files, without the names of the machine and the identity: those need a program or a decryption.
Configuration firstConfiguration(FileSystem& files) {
    const auto folders = presentFolders();
    const auto contentOfFile = [&](std::string_view name) {
        return ConfigurationFile::at(files, inFolder(folders.confPath, name)).content;
    };
    auto first = Configuration::from(contentOfFile(GlobalConstants::SERVER_INFO_FILE),
                                     contentOfFile(GlobalConstants::MY_CONFIGURATIONS_FILE));
    static_cast<Folders&>(first) = folders;
    return first;
}

}  // namespace

GlobalVariables::GlobalVariables(FileSystem& files, MachineNames& names, Decryption decrypt)
    : names_(names),
      decrypt_(std::move(decrypt)),
      configuration_(std::make_shared<const Configuration>(firstConfiguration(files))) {}

GlobalVariables& GlobalVariables::getInstance() {
    return Current<GlobalVariables>::get();
}

void GlobalVariables::load() {
    initPrivate();
    initialiseAgentPaths();
    initialiseServerInfo();
    initialiseMyConfigurations();
    isLoaded_ = true;
}

void GlobalVariables::initPrivate() {
    kLog.debug("GlobalVariables Initialised");
    set(&Configuration::maxEventDataSizeReached, false);
}

void GlobalVariables::initialiseAgentPaths() {
    kLog.debug("Globalvariables initialiseAgentPaths called");
    const auto folders = presentFolders();
    replace([&](Configuration& next) { static_cast<Folders&>(next) = folders; });
    kLog.debug("Bin {}\tconf={}\tlogs={}", folders.binPath, folders.confPath, folders.logsPath);
}

void GlobalVariables::initialiseServerInfo() {
    kLog.debug("Globalvariables initialiseServerInfo called");
    auto serverInfo = PropertyListHandler::initWithFile(inFolder(confPath(), GlobalConstants::SERVER_INFO_FILE));

    // Asked before the lock on the property lists is taken, because the directory may take seconds to answer.
    auto domain = serverInfo.GetValueForKey(GlobalConstants::DOMAIN_NAME);
    if (!domain.isNull() && domain != Value("")) {
        names_.setDomainName(domain.description());
    } else {
        const auto asked = names_.domainName();
        domain = asked ? Value(*asked) : Value();
    }
    setHostName(names_.hostName());
    PropertyListHandler::exclusively([&] { loadServerInfo(std::move(serverInfo), domain); });
}

void GlobalVariables::loadServerInfo(PropertyListHandler serverInfo, const Value& domain) {
    const auto path = inFolder(confPath(), GlobalConstants::SERVER_INFO_FILE);
    if (isLoaded_ && serverInfo.isLoaded()) {
        // An answer from the server may have changed the file since it was read.
        serverInfo = PropertyListHandler::initWithFile(path);
    }
    if (serverInfo.isUnread()) {
        kLog.error("The settings of {} stay as they are in memory", path);
        return;
    }
    // SetValueForKey has an effect only if the file was missing. Loaded content cannot be changed and is written back
    // as it was.
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
    // SetValueForKey has an effect only if the file was missing. The two paths name the same file, because the working
    // directory is the program folder.
    auto mine = PropertyListHandler::initWithFile(inFolder(confPath(), GlobalConstants::MY_CONFIGURATIONS_FILE));
    mine.SetValueForKey(GlobalConstants::TIMESTAMP_LE, recent);
    mine.WriteToProplist(inFolder(std::string(GlobalConstants::CONF_PATH), GlobalConstants::MY_CONFIGURATIONS_FILE));
}

void GlobalVariables::initialiseMyConfigurations() {
    kLog.debug("Globalvariables initialiseMyConfigurations called");
    PropertyListHandler::exclusively([this] { loadMyConfigurations(); });
}

void GlobalVariables::loadMyConfigurations() {
    const auto path = inFolder(confPath(), GlobalConstants::MY_CONFIGURATIONS_FILE);
    const auto list = PropertyListHandler::initWithFile(path);
    if (list.isUnread()) {
        kLog.error("The settings of {} stay as they are in memory", path);
        return;
    }
    const auto mine = contentOf(list);
    const auto present = snapshot();
    auto settings = AgentSettings::from(mine);
    settings.agentUUID = present->agentUUID;
    try {
        settings.agentUUID = AgentSettings::identityIn(mine, present->agentUID, path, decrypt_);
        identityRefused_ = false;
    } catch (const ConfigurationError& error) {
        if (!isLoaded_) {
            kLog.error("{}", error.what());
            throw;
        }
        if (!identityRefused_.exchange(true)) {
            kLog.error("{}; the identity in memory is kept", error.what());
        }
    }
    replace([&](Configuration& next) { next.take(settings, mine); });
}

void GlobalVariables::setType(std::uint64_t value) {
    // Called for each choice of an address, nearly always with the current type. Avoids copying the configuration then.
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
