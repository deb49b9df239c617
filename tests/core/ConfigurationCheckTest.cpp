#include "BuildPaths.h"
#include "collection/EventSelection.h"
#include "core/ConfigurationCheck.h"
#include "platform/posix/HostFileSystem.h"
#include "support/AgentFixture.h"

#include <gtest/gtest.h>

namespace sentrova::testing {

using Texts = std::vector<std::string>;

// The text of a finding up to the consequence.
Texts problemsIn(const ConfigurationFiles& files) {
    Texts problems;
    for (const auto& finding : checkConfiguration(files, EventSelection::knownNames())) {
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
    const std::string s = "Serverinfo.plist: ";
    const std::string m = "myconfigurations.plist: ";
    const std::pair<std::function<void(Files&)>, Texts> cases[] = {
        {[](Files&) {}, {}},
        {[](Files& files) { files.serverInfo = {State::missing, {}, ""}; }, {s + "missing or empty"}},
        {[](Files& files) { files.serverInfo.content = {{"AgentName", "stub"}}; }, {s + "missing or empty"}},
        {[](Files& files) { files.schedules = {State::unreadable, {}, "EIO"}; },
         {"schedules.plist: not readable: EIO"}},
        {[](Files& files) { files.schedules.content = {}; }, {"schedules.plist: missing or empty"}},
        {tasks(Array{Dictionary{{"TaskName", "a"}}, Dictionary{}, "b", Dictionary{{"TaskName", ""}}}),
         {"schedules.plist: ScheduleTasks[1].TaskName: missing",
          "schedules.plist: ScheduleTasks[2].TaskName: the entry is not a dictionary",
          "schedules.plist: ScheduleTasks[3].TaskName: \"\" is not a name"}},
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
