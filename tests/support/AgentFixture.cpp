#include "support/AgentFixture.h"

#include "foundation/formats/Json.h"
#include "foundation/run/Current.h"

namespace sentrova::testing {

AgentFixture::AgentFixture() : formerFolder_(std::filesystem::current_path()) {
    ::setenv("TZ", "UTC", 1);
    ::tzset();
    ::setenv("SENTROVA_SYSTEM_VOLUME", volume_.volume().c_str(), 1);
    std::filesystem::current_path(volume_.bin());
    serverInfo = *Json::parse(R"({
        "DomainName": "corp.example.com", "OrgAccessKey": "org-access-key", "ServerIP": "192.0.2.1",
        "ServerFQDN": "audit.example.com", "ServerName": "audit", "Port": 9443, "Protocol": "https",
        "AgentPort": 8443, "AgentProtocol": "http", "NATServerName": "-", "NATPort": 7443, "NATProtocol": "https",
        "IsRealTime": false, "isEnabled": true, "NumberofEventsPerRequest": 3, "MaxEventDataSize": 1,
        "FetchInterval": 3600, "SyncTime": 900, "EventsToRead": "AUE_auth_user,AUE_sudo,AUE_login,AUE_logout,AUE_telnet,)"
                              R"(AUE_rshd,AUE_su,AUE_ssh,AUE_openssh,AUE_lw_login,AUE_lw_logout,AUE_ssauthint"})")
                      ->dictionary();
    myConfigurations = {{"TimestampOfLastEvent", "0"},
                        {"LogLevel", 2},
                        {"AgentVersion", "1.0.0"},
                        {"CommunicationType", 1},
                        {"DurableDelivery", false}};
    const auto task = [](const char* name, const char* className, const char* selector) {
        return Dictionary{{"TaskName", name},       {"IntervalSeconds", 3600}, {"Repeat", true},
                          {"TaskStatus", "Enable"}, {"className", className},  {"selector", selector}};
    };
    schedules = {{"ScheduleTasks", Array{task("EventCollection", "EventCollectionSchedule", "start"),
                                         task("SyncConfiguration", "ServerCommunicator", "syncFromServer"),
                                         task("CheckEventDatasize", "ScheduleHandler", "CheckEventDatasize")}}};
    restartConfigured();
}

AgentFixture::~AgentFixture() {
    endAgent();
    std::filesystem::current_path(formerFolder_);
    ::unsetenv("SENTROVA_SYSTEM_VOLUME");
}

void AgentFixture::writeConfiguration() {
    volume_.writeConfiguration("Serverinfo.plist", serverInfo);
    volume_.writeConfiguration("myconfigurations.plist", myConfigurations);
    volume_.writeConfiguration("schedules.plist", schedules);
}

void AgentFixture::endAgent() {
    if (!agent_) {
        return;
    }
    session().forget();
    agent_->endThreads();
    // The answer to the latest request of a task.
    session().settle();
    agent_.reset();
}

void AgentFixture::restart() {
    endAgent();
    agent_.emplace(host_.host(), taskClasses);
    Logger::getInstance().load(NotificationCenter::defaultCenter());
}

void AgentFixture::restartConfigured() {
    writeConfiguration();
    restart();
}

std::string AgentFixture::log(std::string_view category) const {
    const auto day = Current<DateFormat>::get().format("yyyy-MM-dd", Current<Clock>::get().wallTime());
    const auto name = std::string(category) + day + ".log";
    return textOf(volume_.logs() / name);
}

int AgentFixture::logged(std::string_view text, std::string_view category) const {
    const auto whole = log(category);
    int count = 0;
    for (auto at = whole.find(text); at != std::string::npos; at = whole.find(text, at + text.size())) {
        ++count;
    }
    return count;
}

}  // namespace sentrova::testing
