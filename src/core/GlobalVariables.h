// Holds the current Configuration for all parts of the agent.
//
// The agent has one object. A reload or a setter replaces the whole configuration, so nobody sees half of a reload. To
// read several values that belong together, take one snapshot. Setters store in memory only: the caller also writes the
// value into its file. Safe from any thread.

#pragma once

#include "core/Configuration.h"
#include "core/MachineNames.h"
#include "core/PropertyListHandler.h"
#include "foundation/files/FileSystem.h"
#include "foundation/run/KeyValueObserving.h"
#include "foundation/run/Mutex.h"
#include "foundation/value/Value.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace sentrova {

// Observable under "maxEventDataSizeReached".
class GlobalVariables final : public KeyValueObserving {
  public:
    using Text = std::optional<std::string>;

    static constexpr const char* kMaxEventDataSizeReached = "maxEventDataSizeReached";

    // Reads the two files without the identity. Runs no program and writes no file. The arguments must outlive the
    // object.
    GlobalVariables(FileSystem& files, MachineNames& names, Decryption decrypt);

    // The running agent's object. Throws std::logic_error without an agent.
    static GlobalVariables& getInstance();

    // Loads everything, once at the agent's start. Asks for the names of the machine and fills in a missing file.
    // Throws ConfigurationError if the stored identity is too short to be one.
    void load();

    // The current configuration. Later changes do not affect it.
    std::shared_ptr<const Configuration> snapshot() const EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        return configuration_;
    }

    // The three steps of load, which may be repeated later: set the folders from the working directory, and load each
    // of the two files. A missing or damaged file clears its settings. A file that the host cannot read at the moment
    // keeps them. A reload keeps the identity in memory if the stored one is too short. While a file is loaded, no
    // other change of a property list in this process can happen.
    void initialiseAgentPaths();
    void initialiseServerInfo();
    void initialiseMyConfigurations();

    // Whether realtime collection is on, the agent collects at all, the spool has reached its size limit, and a relay
    // is in use.
    bool isRealTime() const { return get(&Configuration::isRealTime); }
    void setIsRealTime(bool value) { set(&Configuration::isRealTime, value); }
    bool isEnabled() const { return get(&Configuration::isEnabled); }
    void setIsEnabled(bool value) { set(&Configuration::isEnabled, value); }
    bool maxEventDataSizeReached() const { return get(&Configuration::maxEventDataSizeReached); }
    void setMaxEventDataSizeReached(bool value);
    bool isNATConfigured() const { return get(&Configuration::isNATConfigured); }
    void setIsNATConfigured(bool value) { set(&Configuration::isNATConfigured, value); }

    // The server's connections.
    std::int64_t serverPort() const { return get(&Configuration::serverPort); }
    void setServerPort(std::int64_t value) { set(&Configuration::serverPort, value); }
    Text serverProtocol() const { return get(&Configuration::serverProtocol); }
    void setServerProtocol(Text value) { set(&Configuration::serverProtocol, std::move(value)); }
    std::int64_t agentPort() const { return get(&Configuration::agentPort); }
    void setAgentPort(std::int64_t value) { set(&Configuration::agentPort, value); }
    Text agentProtocol() const { return get(&Configuration::agentProtocol); }
    void setAgentProtocol(Text value) { set(&Configuration::agentProtocol, std::move(value)); }
    std::int64_t NATPort() const { return get(&Configuration::NATPort); }
    void setNATPort(std::int64_t value) { set(&Configuration::NATPort, value); }
    Text NATProtocol() const { return get(&Configuration::NATProtocol); }
    void setNATProtocol(Text value) { set(&Configuration::NATProtocol, std::move(value)); }
    // See Relay.
    Text NATServerName() const { return get(&Configuration::NATServerName); }
    void setNATServerName(Text value) { set(&Configuration::NATServerName, std::move(value)); }
    Text serverFQDN() const { return get(&Configuration::serverFQDN); }
    void setServerFQDN(Text value) { set(&Configuration::serverFQDN, std::move(value)); }
    Text serverIP() const { return get(&Configuration::serverIP); }
    void setServerIP(Text value) { set(&Configuration::serverIP, std::move(value)); }
    Text serverName() const { return get(&Configuration::serverName); }
    void setServerName(Text value) { set(&Configuration::serverName, std::move(value)); }
    // The connection in use: 0 the relay, 1 the agent connector, 2 the product connector.
    std::uint64_t type() const { return static_cast<std::uint64_t>(get(&Configuration::type)); }
    void setType(std::uint64_t value);

    // Whole seconds since 1970 of the last collected event, as stored (a number or its decimal text).
    Value timeStampOfLastEvent() const { return get(&Configuration::timeStampOfLastEvent); }
    void setTimeStampOfLastEvent(Value value) { set(&Configuration::timeStampOfLastEvent, std::move(value)); }
    // The names of the events to collect, separated by commas. Absent: all events. Empty: none.
    Text eventsToRead() const { return get(&Configuration::eventsToRead); }
    void setEventsToRead(Text value) { set(&Configuration::eventsToRead, std::move(value)); }
    std::int64_t noOfEventsPerRequest() const { return get(&Configuration::noOfEventsPerRequest); }
    void setNoOfEventsPerRequest(std::int64_t value) { set(&Configuration::noOfEventsPerRequest, value); }
    // The spool's size limit in gigabytes.
    std::int64_t eventDataSize() const { return get(&Configuration::eventDataSize); }
    void setEventDataSize(std::int64_t value) { set(&Configuration::eventDataSize, value); }

    // The agent itself.
    Text hostName() const { return get(&Configuration::hostName); }
    void setHostName(Text value) { set(&Configuration::hostName, std::move(value)); }
    std::int64_t logLevel() const { return get(&Configuration::logLevel); }
    void setLogLevel(std::int64_t value) { set(&Configuration::logLevel, value); }
    Text agentVersion() const { return get(&Configuration::agentVersion); }
    void setAgentVersion(Text value) { set(&Configuration::agentVersion, std::move(value)); }
    // The identity that the server assigned to the agent, in plain text.
    Text agentUUID() const { return get(&Configuration::agentUUID); }
    void setAgentUUID(Text value) { set(&Configuration::agentUUID, std::move(value)); }
    Text agentUID() const { return get(&Configuration::agentUID); }
    void setAgentUID(Text value) { set(&Configuration::agentUID, std::move(value)); }
    Text orgAccessKey() const { return get(&Configuration::orgAccessKey); }
    void setOrgAccessKey(Text value) { set(&Configuration::orgAccessKey, std::move(value)); }

    // Folders: absolute paths, not normalised (they contain "..").
    std::string agentInstallationPath() const { return get(&Configuration::agentInstallationPath); }
    void setAgentInstallationPath(std::string value) { set(&Configuration::agentInstallationPath, std::move(value)); }
    std::string eventDataPath() const { return get(&Configuration::eventDataPath); }
    void setEventDataPath(std::string value) { set(&Configuration::eventDataPath, std::move(value)); }
    std::string logsPath() const { return get(&Configuration::logsPath); }
    void setLogsPath(std::string value) { set(&Configuration::logsPath, std::move(value)); }
    std::string confPath() const { return get(&Configuration::confPath); }
    void setConfPath(std::string value) { set(&Configuration::confPath, std::move(value)); }
    std::string binPath() const { return get(&Configuration::binPath); }
    void setBinPath(std::string value) { set(&Configuration::binPath, std::move(value)); }

  protected:
    Value valueForKey(std::string_view key) const override;

  private:
    void initPrivate();
    // Call these only inside PropertyListHandler::exclusively.
    void loadServerInfo(PropertyListHandler serverInfo, const Value& domain);
    void loadMyConfigurations();
    void storeRecentEventTime(const Value& recent);

    template <class T, class Settings>
    T get(T Settings::* member) const EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        return (*configuration_).*member;
    }
    template <class T, class Settings>
    void set(T Settings::* member, T value) EXCLUDES(mutex_) {
        replace([&](Configuration& next) { next.*member = std::move(value); });
    }
    // Replaces the configuration by an edited copy. The edit runs under the lock and must only store values.
    template <class Edit>
    void replace(Edit edit) EXCLUDES(mutex_) {
        MutexLock lock(mutex_);
        auto next = std::make_shared<Configuration>(*configuration_);
        edit(*next);
        // Destroys the old configuration after the lock is released.
        std::shared_ptr<const Configuration> former = std::move(next);
        former.swap(configuration_);
        lock.unlock();
    }

    MachineNames& names_;
    const Decryption decrypt_;

    mutable Mutex mutex_;
    std::shared_ptr<const Configuration> configuration_ GUARDED_BY(mutex_);
    // True after the first load. From then on, an unusable identity is only logged and no longer thrown.
    std::atomic<bool> isLoaded_ = false;
    std::atomic<bool> identityRefused_ = false;
};

}  // namespace sentrova
