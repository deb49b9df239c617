#include "BuildPaths.h"
#include "platform/openssl/OpenSslCryptography.h"
#include "platform/posix/HostFileSystem.h"
#include "service/Agent.h"
#include "service/ConfigurationFindings.h"
#include "support/AgentFixture.h"

#include <gtest/gtest.h>

namespace sentrova::testing {

using Texts = std::vector<std::string>;

// The texts of all findings, each up to the consequence.
Texts problemsIn(const ConfigurationFiles& files) {
    auto findings = checkConfiguration(files, configurationRules(Agent::taskClasses()));
    std::ranges::move(findMisspelledKeys(files), std::back_inserter(findings));
    Texts problems;
    for (const auto& finding : findings) {
        EXPECT_FALSE(finding.instead.empty()) << finding.problem;
        EXPECT_TRUE(finding.text().ends_with("; " + finding.instead));
        problems.push_back(finding.text().substr(0, finding.text().size() - finding.instead.size() - 2));
    }
    return problems;
}

TEST(ConfigurationCheckTest, EachMistakeIsAFindingAndTheExampleHasNone) {
    using Files = ConfigurationFiles;
    using State = ConfigurationFile::State;
    platform::HostFileSystem host;
    const auto cryptography = platform::makeOpenSslCryptography();
    const Current<Cryptography>::Publication published(*cryptography);
    const auto example = Files::in(host, std::string(build::kSourceDir) + "/packaging/conf");
    const auto server = [](const char* key, Value value) {
        return [key, value](Files& files) { files.serverInfo.content.set(key, value); };
    };
    const auto without = [](const Texts& keys) {
        return [keys](Files& files) {
            for (const auto& key : keys) {
                files.serverInfo.content.remove(key);
            }
        };
    };
    const auto mine = [](const char* key, Value value) {
        return [key, value](Files& files) { files.myConfigurations.content.set(key, value); };
    };
    const auto tasks = [](Value value) {
        return [value](Files& files) { files.schedules.content.set("ScheduleTasks", value); };
    };
    // A good entry with these keys changed.
    const auto task = [](const Dictionary& changed) {
        Dictionary entry = {{"TaskName", "Sync"},
                            {"className", "ServerCommunicator"},
                            {"selector", "syncFromServer"},
                            {"IntervalSeconds", 60},
                            {"Repeat", true},
                            {"TaskStatus", "Enable"}};
        for (const auto& [key, value] : changed) {
            entry.set(key, value);
        }
        return entry;
    };
    const std::string t = "schedules.plist: ScheduleTasks[";
    const std::string s = "Serverinfo.plist: ";
    const std::string m = "myconfigurations.plist: ";
    const std::pair<std::function<void(Files&)>, Texts> cases[] = {
        {[](Files&) {}, {}},
        {[](Files& files) { files.serverInfo = {State::missing, {}, ""}; }, {s + "missing or empty"}},
        {[](Files& files) { files.serverInfo.content = {{"AgentName", "stub"}}; }, {s + "missing or empty"}},
        {[](Files& files) { files.schedules = {State::unreadable, {}, "EIO"}; },
         {"schedules.plist: not readable: EIO"}},
        {[](Files& files) { files.schedules.content = {}; }, {"schedules.plist: missing or empty"}},
        {tasks(Array{task({}), task({{"TaskName", nullptr}}), "b", task({{"TaskName", ""}}), task({})}),
         {t + "0].TaskName: \"Sync\" is the name of a later entry too", t + "1].TaskName: missing",
          t + "2].TaskName: the entry is not a dictionary", t + "3].TaskName: \"\" is not a name"}},
        {tasks(Array{task({{"className", "ServerCommunicato"}}), task({{"TaskName", "b"}, {"selector", nullptr}})}),
         {t + "0].className: \"ServerCommunicato\" is not a known class (the nearest is ServerCommunicator)",
          t + "1].selector: missing"}},
        {tasks(Array{task({{"RunAt", "3:70:00"}}), task({{"TaskName", "b"}, {"IntervalSeconds", "soon"}}),
                     task({{"TaskName", "c"}, {"IntervalSeconds", 0}, {"RunAt", "23:00:00"}, {"Repeat", false}}),
                     task({{"TaskName", "d"}, {"TaskStatus", "enabled"}}),
                     task({{"TaskName", "e"}, {"TaskStatus", "Disable"}})}),
         {t + "0].RunAt: \"3:70:00\" is not a time of day (HH:mm:ss)",
          t + "1].IntervalSeconds: \"soon\" is not a number above 0",
          t + "3].TaskStatus: \"enabled\" is not the word Enable"}},
        {server("ServerFQDN", "https://audit"), {s + "ServerFQDN: \"https://audit\" is not a plain host name"}},
        {server("ServerIP", "10.0.0.1:8443"), {s + "ServerIP: \"10.0.0.1:8443\" is not a plain host name"}},
        {server("ServerIP", "[::1]"), {}},
        {mine("AgentAuthID", "short"), {m + "AgentAuthID: fewer than 32 characters, which cannot hold an identity"}},
        {mine("AgentAuthID", std::string(32, '-') + "no cipher"),
         {m + "AgentAuthID: the stored identity cannot be decrypted, and Serverinfo.plist has no AgentUID"}},
        {server("EventToRead", ""), {s + "EventToRead: unknown key (the nearest is EventsToRead)"}},
        {server("isenabled", false), {s + "isenabled: unknown key (the nearest is isEnabled)"}},
        {[](Files& files) {
             for (const auto* key : {"Host", "Comment", "TimestampOfLastEvent", "Build", "AgentGuid"}) {
                 files.serverInfo.content.set(key, "1");
             }
         },
         {}},
        {mine("LogLevle", 1), {m + "LogLevle: unknown key (the nearest is LogLevel)"}},
        {tasks(Array{task({{"IntervalSecond", 5}})}),
         {t + "0].IntervalSecond: unknown key (the nearest is IntervalSeconds)"}},
        {without({"ServerFQDN", "ServerName"}), {}},
        {without({"ServerFQDN", "ServerName", "ServerIP"}),
         {s + "ServerFQDN: no server is named, neither here nor in ServerIP, ServerName or NATServerName"}},
        {without({"AgentPort", "AgentProtocol"}), {}},
        {without({"AgentPort", "AgentProtocol", "Port", "Protocol"}),
         {s + "ServerFQDN: no connection to the server has a port and a protocol"}},
        {without({"Port"}), {s + "Port: missing"}},
        {server("AgentPort", "65536"), {s + "AgentPort: \"65536\" is not a port from 1 to 65535"}},
        {server("Protocol", "ftp"), {s + "Protocol: \"ftp\" is neither http nor https"}},
        {server("Protocol", "HTTPS"), {}},
        {server("NATPort", 0), {}},
        {[](Files& files) {
             files.serverInfo.content.set("NATServerName", "relay");
             files.serverInfo.content.set("NATPort", 0);
         },
         {s + "NATPort: 0 is not a port from 1 to 65535", s + "NATProtocol: missing"}},
        {server("EventsToRead", "AUE_su, AUE_sudo,AUE_lgin,elsewhere,,elsewhere"),
         {s + "EventsToRead: \" AUE_sudo\" has blanks around it",
          s + "EventsToRead: \"AUE_lgin\" is not a known event (the nearest is AUE_login)",
          s + "EventsToRead: \"elsewhere\" is not a known event", s + "EventsToRead: a name is empty"}},
        {server("EventsToRead", ""), {s + "EventsToRead: the list is empty"}},
        {server("EventsToRead", std::string(100, 'x') + "\n"),
         {s + "EventsToRead: \"" + std::string(60, 'x') + "...\" is not a known event"}},
        {server("NumberofEventsPerRequest", 0), {s + "NumberofEventsPerRequest: 0 is below 1"}},
        {without({"MaxEventDataSize"}), {s + "MaxEventDataSize: missing"}},
        {without({"isEnabled"}), {s + "isEnabled: missing"}},
        {server("SyncTime", "soon"), {s + "SyncTime: \"soon\" is not a positive number"}},
        {server("FetchInterval", -5), {s + "FetchInterval: -5 is not a positive number"}},
        {without({"FetchInterval", "SyncTime"}), {}},
        {server("RecentEventTimeMillis", 5), {}},
        {[](Files& files) {
             files.serverInfo.content.set("RecentEventTimeMillis", 5);
             files.myConfigurations = {State::missing, {}, ""};
         },
         {s + "RecentEventTimeMillis: 5 overrides the stored time, since myconfigurations.plist is missing"}},
        {mine("TimestampOfLastEvent", "12x"), {m + "TimestampOfLastEvent: \"12x\" is not a number"}},
        {mine("LogLevel", "DEBUG"), {m + "LogLevel: \"DEBUG\" is not a number"}},
    };
    for (const auto& [edit, expected] : cases) {
        auto files = example;
        edit(files);
        EXPECT_EQ(problemsIn(files), expected);
    }
}

class ConfigurationReportTest : public ::testing::Test, protected AgentFixture {};

TEST_F(ConfigurationReportTest, FindingIsLoggedOnceEachTimeItAppears) {
    const ConfigurationFinding port = {"Serverinfo.plist", "Port", "missing", "none"};
    const ConfigurationFinding file = {"schedules.plist", std::nullopt, "missing", "none"};
    ConfigurationReport report(host().files, "", {});
    for (const auto& findings : {std::vector{port}, {port, file}, {file}, {}, {port}}) {
        report.report(findings);
    }
    EXPECT_EQ(logged("[ERROR]Serverinfo.plist: Port: missing; none\r\n"), 2);
    EXPECT_EQ(logged("[ERROR]schedules.plist: missing; none\r\n"), 1);
}

}  // namespace sentrova::testing
