// The agent's configuration: what `Serverinfo.plist` and `myconfigurations.plist` say, held in memory for all parts.
//
// There is one, made by the first getInstance, which loads both files. A key that is missing leaves a text absent and a
// number or flag 0. Setters only store: who changes a value also writes it into its file. Safe from any thread.

#pragma once

#include "core/Property.h"
#include "foundation/KeyValueObserving.h"
#include "foundation/Value.h"

#include <cstdint>
#include <optional>
#include <string>

namespace sentrova {

// Observable under "maxEventDataSizeReached".
class GlobalVariables final : public KeyValueObserving {
  public:
    using Text = std::optional<std::string>;

    static constexpr const char* kMaxEventDataSizeReached = "maxEventDataSizeReached";

    // Throws ConfigurationError when the stored identity cannot be one; nothing is made then.
    static GlobalVariables& getInstance();

    // Work out the folders from the working directory, and load the two files. Callable again to reload.
    void initialiseAgentPaths();
    void initialiseServerInfo();
    void initialiseMyConfigurations();

    // Realtime collection is on; the agent collects at all; the spool has reached its size limit; a relay is in use.
    bool isRealTime() const { return isRealTime_.get(); }
    void setIsRealTime(bool value) { isRealTime_.set(value); }
    bool isEnabled() const { return isEnabled_.get(); }
    void setIsEnabled(bool value) { isEnabled_.set(value); }
    bool maxEventDataSizeReached() const { return maxEventDataSizeReached_.get(); }
    void setMaxEventDataSizeReached(bool value);
    bool isNATConfigured() const { return isNATConfigured_.get(); }
    void setIsNATConfigured(bool value) { isNATConfigured_.set(value); }

    // The server's connections.
    std::int64_t serverPort() const { return serverPort_.get(); }
    void setServerPort(std::int64_t value) { serverPort_.set(value); }
    Text serverProtocol() const { return serverProtocol_.get(); }
    void setServerProtocol(Text value) { serverProtocol_.set(std::move(value)); }
    std::int64_t agentPort() const { return agentPort_.get(); }
    void setAgentPort(std::int64_t value) { agentPort_.set(value); }
    Text agentProtocol() const { return agentProtocol_.get(); }
    void setAgentProtocol(Text value) { agentProtocol_.set(std::move(value)); }
    std::int64_t NATPort() const { return NATPort_.get(); }
    void setNATPort(std::int64_t value) { NATPort_.set(value); }
    Text NATProtocol() const { return NATProtocol_.get(); }
    void setNATProtocol(Text value) { NATProtocol_.set(std::move(value)); }
    // "" or "-" mean that there is none.
    Text NATServerName() const { return NATServerName_.get(); }
    void setNATServerName(Text value) { NATServerName_.set(std::move(value)); }
    // Present, and the name of a server.
    bool hasNATServer() const;
    Text serverFQDN() const { return serverFQDN_.get(); }
    void setServerFQDN(Text value) { serverFQDN_.set(std::move(value)); }
    Text serverIP() const { return serverIP_.get(); }
    void setServerIP(Text value) { serverIP_.set(std::move(value)); }
    Text serverName() const { return serverName_.get(); }
    void setServerName(Text value) { serverName_.set(std::move(value)); }
    // The connection in use: 0 the relay, 1 the agent connector, 2 the product connector.
    std::uint64_t type() const { return type_.get(); }
    void setType(std::uint64_t value) { type_.set(value); }

    // Whole seconds since 1970 of the last collected event, as stored (a number or its decimal text).
    Value timeStampOfLastEvent() const { return timeStampOfLastEvent_.get(); }
    void setTimeStampOfLastEvent(Value value) { timeStampOfLastEvent_.set(std::move(value)); }
    // The names of the events to collect, separated by commas.
    Text eventsToRead() const { return eventsToRead_.get(); }
    void setEventsToRead(Text value) { eventsToRead_.set(std::move(value)); }
    std::int64_t noOfEventsPerRequest() const { return noOfEventsPerRequest_.get(); }
    void setNoOfEventsPerRequest(std::int64_t value) { noOfEventsPerRequest_.set(value); }
    // The spool's size limit in gigabytes.
    std::int64_t eventDataSize() const { return eventDataSize_.get(); }
    void setEventDataSize(std::int64_t value) { eventDataSize_.set(value); }

    // The agent itself.
    Text hostName() const { return hostName_.get(); }
    void setHostName(Text value) { hostName_.set(std::move(value)); }
    std::int64_t logLevel() const { return logLevel_.get(); }
    void setLogLevel(std::int64_t value) { logLevel_.set(value); }
    Text agentVersion() const { return agentVersion_.get(); }
    void setAgentVersion(Text value) { agentVersion_.set(std::move(value)); }
    // The identity that the server gave, in plain text.
    Text agentUUID() const { return agentUUID_.get(); }
    void setAgentUUID(Text value) { agentUUID_.set(std::move(value)); }
    Text agentUID() const { return agentUID_.get(); }
    void setAgentUID(Text value) { agentUID_.set(std::move(value)); }
    Text orgAccessKey() const { return orgAccessKey_.get(); }
    void setOrgAccessKey(Text value) { orgAccessKey_.set(std::move(value)); }

    // Folders; not normalised, they keep their "..".
    std::string agentInstallationPath() const { return agentInstallationPath_.get(); }
    void setAgentInstallationPath(std::string value) { agentInstallationPath_.set(std::move(value)); }
    std::string eventDataPath() const { return eventDataPath_.get(); }
    void setEventDataPath(std::string value) { eventDataPath_.set(std::move(value)); }
    std::string logsPath() const { return logsPath_.get(); }
    void setLogsPath(std::string value) { logsPath_.set(std::move(value)); }
    std::string confPath() const { return confPath_.get(); }
    void setConfPath(std::string value) { confPath_.set(std::move(value)); }
    std::string binPath() const { return binPath_.get(); }
    void setBinPath(std::string value) { binPath_.set(std::move(value)); }

  protected:
    Value valueForKey(std::string_view key) const override;

  private:
    GlobalVariables();
    friend struct SharedVariables;

    void initPrivate();
    void loadServerKeys(const Dictionary& serverInfo);
    void loadIdentity(const Value& stored);

    Property<bool> isRealTime_;
    Property<bool> isEnabled_;
    Property<bool> maxEventDataSizeReached_;
    Property<bool> isNATConfigured_;
    Property<std::int64_t> serverPort_;
    Property<Text> serverProtocol_;
    Property<std::int64_t> agentPort_;
    Property<Text> agentProtocol_;
    Property<std::int64_t> NATPort_;
    Property<Text> NATProtocol_;
    Property<Text> NATServerName_;
    Property<Text> serverFQDN_;
    Property<Text> serverIP_;
    Property<Text> serverName_;
    Property<std::uint64_t> type_;
    Property<Value> timeStampOfLastEvent_;
    Property<Text> eventsToRead_;
    Property<std::int64_t> noOfEventsPerRequest_;
    Property<std::int64_t> eventDataSize_;
    Property<Text> hostName_;
    Property<std::int64_t> logLevel_;
    Property<Text> agentVersion_;
    Property<Text> agentUUID_;
    Property<Text> agentUID_;
    Property<Text> orgAccessKey_;
    Property<std::string> agentInstallationPath_;
    Property<std::string> eventDataPath_;
    Property<std::string> logsPath_;
    Property<std::string> confPath_;
    Property<std::string> binPath_;
};

}  // namespace sentrova
