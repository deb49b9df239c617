#include "support/AgentFixture.h"

#include "forwarding/TransportEngine.h"
#include "foundation/DateFormat.h"
#include "foundation/Json.h"
#include "foundation/ProcessWide.h"

#include <thread>

namespace sentrova::testing {

AgentFixture::AgentFixture() : formerFolder_(std::filesystem::current_path()) {
    ::setenv("TZ", "UTC", 1);
    ::tzset();
    ::setenv("SENTROVA_SYSTEM_VOLUME", volume_.volume().c_str(), 1);
    std::filesystem::current_path(volume_.bin());
    ProcessWideState::reset();
    installSession();

    serverInfo = *Json::parse(R"({
        "DomainName": "corp.example.com", "OrgAccessKey": "org-access-key", "ServerIP": "192.0.2.1",
        "ServerFQDN": "audit.example.com", "ServerName": "audit", "Port": 9443, "Protocol": "https",
        "AgentPort": 8443, "AgentProtocol": "http", "NATServerName": "-", "NATPort": 7443, "NATProtocol": "https",
        "IsRealTime": false, "isEnabled": true, "NumberofEventsPerRequest": 3, "MaxEventDataSize": 1,
        "FetchInterval": 3600, "SyncTime": 900, "EventsToRead": "AUE_auth_user,AUE_sudo,AUE_login,AUE_logout,AUE_telnet,)"
                              R"(AUE_rshd,AUE_su,AUE_ssh,AUE_openssh,AUE_lw_login,AUE_lw_logout,AUE_ssauthint"})")
                      ->dictionary();
    myConfigurations = {
        {"TimestampOfLastEvent", "0"}, {"LogLevel", 2}, {"AgentVersion", "1.0.0"}, {"CommunicationType", 1}};
    const auto task = [](const char* name, const char* className, const char* selector) {
        return Dictionary{{"TaskName", name},       {"IntervalSeconds", 3600}, {"Repeat", true},
                          {"TaskStatus", "Enable"}, {"className", className},  {"selector", selector}};
    };
    schedules = {{"ScheduleTasks", Array{task("EventCollection", "EventCollectionSchedule", "start"),
                                         task("SyncConfiguration", "ServerCommunicator", "syncFromServer"),
                                         task("CheckEventDatasize", "ScheduleHandler", "CheckEventDatasize")}}};
    writeConfiguration();
}

AgentFixture::~AgentFixture() {
    restart();
    TransportEngine::setSessionFactory(nullptr);
    std::filesystem::current_path(formerFolder_);
    ::unsetenv("SENTROVA_SYSTEM_VOLUME");
}

void AgentFixture::installSession() {
    // The agent owns a session of its own that passes everything on, so that a restart does not end the test's.
    class Forwarding final : public UrlSession {
      public:
        explicit Forwarding(std::shared_ptr<FakeUrlSession> target) : target_(std::move(target)) {}
        void uploadTask(const UrlRequest& request, std::string body, Completion completionHandler) override {
            target_->uploadTask(request, std::move(body), std::move(completionHandler));
        }

      private:
        const std::shared_ptr<FakeUrlSession> target_;
    };
    TransportEngine::setSessionFactory(
        [session = session_](const auto&) { return std::make_unique<Forwarding>(session); });
}

void AgentFixture::writeConfiguration() {
    volume_.writeConfiguration("Serverinfo.plist", serverInfo);
    volume_.writeConfiguration("myconfigurations.plist", myConfigurations);
    volume_.writeConfiguration("schedules.plist", schedules);
}

void AgentFixture::restart() {
    session_->forget();
    ProcessWideState::endThreads();
    // What a task's last request was answered with.
    session_->settle();
    ProcessWideState::reset();
}

std::string AgentFixture::log(std::string_view category) const {
    auto& clock = Clock::shared();
    const auto name = std::string(category) + DateFormat::format("yyyy-MM-dd", clock.wallTime()) + ".log";
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

bool AgentFixture::eventually(const std::function<bool()>& condition) {
    const auto giveUp = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > giveUp) {
            return false;
        }
        std::this_thread::yield();
    }
    return true;
}

}  // namespace sentrova::testing
