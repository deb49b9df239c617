// The whole road of an event: the agent's own program between a system volume and a server on loopback.

#include "BuildPaths.h"
#include "foundation/FileSystem.h"
#include "foundation/Json.h"
#include "foundation/KeyedArchive.h"
#include "support/AuditServer.h"
#include "support/RunningAgent.h"
#include "support/SystemVolume.h"
#include "support/TrailWriter.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <vector>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace sentrova::testing {
namespace {

using namespace std::chrono_literals;
using Kind = AuditServer::Failure::Kind;

constexpr auto kMorning = 1'700'000'000s;

class RoadTest : public ::testing::Test {
  protected:
    RoadTest() {
        serverInfo = loopbackConfiguration(server.port());
        mine = {{"TimestampOfLastEvent", "0"}, {"LogLevel", 2}, {"AgentVersion", "1.0"}, {"CommunicationType", 1}};
    }

    void configure() {
        volume.writeConfiguration("Serverinfo.plist", serverInfo);
        volume.writeConfiguration("myconfigurations.plist", mine);
    }

    // A trail of so many sudo records, a second apart, told apart by their process numbers.
    static TrailWriter sudoTrail(std::chrono::seconds begin, std::uint32_t firstProcess, std::uint32_t count) {
        TrailWriter trail;
        for (std::uint32_t i = 0; i < count; ++i) {
            trail.add(TrailRecord(45028)
                          .at(begin + std::chrono::seconds(i))
                          .subject({.auditId = 4001, .processId = firstProcess + i})
                          .returns(0));
        }
        return trail;
    }

    void addTrail(const char* name, const TrailWriter& trail) {
        volume.addTrail(name, trail.bytes(), trail.lastTime());
    }

    std::vector<Dictionary> events() const {
        std::vector<Dictionary> parsed;
        for (const auto& text : server.events()) {
            parsed.push_back(*Json::parse(text)->dictionary());
        }
        return parsed;
    }

    // How often each event arrived, by process number.
    std::map<std::int64_t, int> arrivals() const {
        std::map<std::int64_t, int> counts;
        for (const auto& event : events()) {
            ++counts[event["subject_pid"].integerValue()];
        }
        return counts;
    }

    static std::map<std::int64_t, int> eachOnce(std::int64_t first, std::int64_t count) {
        std::map<std::int64_t, int> counts;
        for (auto i = first; i < first + count; ++i) {
            counts[i] = 1;
        }
        return counts;
    }

    AuditServer server;
    SystemVolume volume;
    Dictionary serverInfo;
    Dictionary mine;
};

TEST_F(RoadTest, RealTrailGivesExactlyItsFourEvents) {
    const std::filesystem::path trail = build::kRealTrail;
    if (!std::filesystem::exists(trail)) {
        GTEST_SKIP() << "mac-2013.bsm is not there";
    }
    std::ifstream file(trail, std::ios::binary);
    const Data bytes{std::istreambuf_iterator<char>(file), {}};
    volume.addTrail("20131104171720.20131104174500", bytes, 1'383'590'186s);
    // Without a console, nobody is noted at the start.
    std::filesystem::remove(volume.console());
    serverInfo.set("EventsToRead", "AUE_auth_user,AUE_ssauthint,AUE_lw_login,AUE_logout");
    configure();
    {
        RunningAgent agent(build::kAgent, volume);
        ASSERT_TRUE(server.waitForEvents(4)) << logOf(volume, "Config");
        EXPECT_EQ(agent.stop(), 0);
    }
    const auto arrived = events();
    ASSERT_EQ(arrived.size(), 4U);
    for (const std::size_t i : {0U, 1U, 2U}) {
        const bool failed = i != 1;
        EXPECT_EQ(arrived[i]["EventCode"], Value(45023)) << i;
        EXPECT_EQ(arrived[i]["UserName"], Value("moxilo")) << i;
        EXPECT_EQ(arrived[i]["return_retval"], Value(failed ? 5000 : 0)) << i;
        EXPECT_EQ(arrived[i]["return_errval"], Value(failed ? "failure: Unknown error: 255" : "success")) << i;
    }
    EXPECT_EQ(arrived[3]["EventCode"], Value(6153));
    EXPECT_EQ(arrived[3]["UserName"], Value("501"));
    EXPECT_TRUE(volume.readConfiguration("myconfigurations.plist")["TimestampOfLastEvent"].string());
    const auto history = FileSystem::shared().read((volume.conf() / "currentLogins").string());
    ASSERT_TRUE(history);
    EXPECT_EQ(*KeyedArchive::unarchive(*history), (KeyedArchive::Content{{1'383'590'186, Dictionary{{"uid", "501"}}}}));

    RunningAgent again(build::kAgent, volume);
    ASSERT_TRUE(waitForLog(volume, "Config", "Skipping file /var/audit/20131104171720"));
    ASSERT_TRUE(waitForLog(volume, "Config", "EventCollectionSchedule has been added"));
    EXPECT_EQ(again.stop(), 0);
    EXPECT_EQ(server.events().size(), 4U);
}

TEST_F(RoadTest, AddressesAreTriedInTheirOrderUntilTheServerAnswers) {
    AuditServer relay;
    AuditServer product;
    serverInfo.set("NATServerName", "127.0.0.1");
    serverInfo.set("NATPort", relay.port());
    serverInfo.set("Port", product.port());
    configure();
    for (auto* refusing : {&server, &relay, &product}) {
        refusing->fail({.status = 503, .count = refusing == &product ? 3 : -1});
    }
    RunningAgent agent(build::kAgent, volume);
    ASSERT_TRUE(waitForLog(volume, "Communication", "GlobalVariables Sync Data is finished"));

    std::string expected;
    for (const auto port : {relay.port(), server.port(), product.port()}) {
        for (const auto* host : {"127.0.0.1", "localhost", "127.0.0.1", "LocalHost"}) {
            expected += fmt::format("next url http://{}:{}\n", host, port);
        }
    }
    std::string tried;
    const auto log = logOf(volume, "Config");
    constexpr std::string_view kMark = "GlobalVariables next url ";
    for (auto at = log.find(kMark); at != std::string::npos; at = log.find(kMark, at + 1)) {
        const auto url = log.substr(at + kMark.size(), log.find("\r\n", at) - at - kMark.size());
        tried += "next url " + url.substr(0, url.find("/api")) + "\n";
    }
    EXPECT_EQ(tried, expected);
    EXPECT_EQ(relay.requests().size(), 4U);
    EXPECT_EQ(server.requests().size(), 4U);
    EXPECT_EQ(product.requests().size(), 4U);
    EXPECT_NE(product.requests().back().body.find("\"CommunicationType\":\"3:ProductConnector\""), std::string::npos);
    EXPECT_EQ(agent.stop(), 0);
}

TEST_F(RoadTest, EveryEventArrivesThroughServerTrouble) {
    addTrail("1", sudoTrail(kMorning, 100, 41));
    // The synchronisation makes the server reachable again after each trouble.
    volume.writeConfiguration("schedules.plist",
                              {{"ScheduleTasks", Array{Dictionary{{"TaskName", "SyncConfiguration"},
                                                                  {"IntervalSeconds", 2},
                                                                  {"Repeat", true},
                                                                  {"TaskStatus", "Enable"},
                                                                  {"className", "ServerCommunicator"},
                                                                  {"selector", "syncFromServer"}}}}});
    configure();
    const std::vector<AuditServer::Failure> troubles = {
        {.status = 500},      {.status = 204},          {.status = 302, .headers = {{"Location", "/elsewhere"}}},
        {.kind = Kind::drop}, {.kind = Kind::noAnswer},
    };
    for (auto trouble : troubles) {
        trouble.path = AuditServer::kEventsPath;
        server.fail(trouble);
    }
    RunningAgent agent(build::kAgent, volume);
    ASSERT_TRUE(server.waitForEvents(41, 200s)) << logOf(volume, "Communication");
    EXPECT_EQ(agent.stop(), 0);
    EXPECT_EQ(arrivals(), eachOnce(100, 41));
    std::vector<int> statuses;
    for (const auto& request : server.requests()) {
        EXPECT_EQ(request.method, "POST");
        EXPECT_NE(request.path, "/elsewhere");
        if (request.path == AuditServer::kEventsPath && request.status != 200) {
            statuses.push_back(request.status);
        }
    }
    EXPECT_THAT(statuses, ::testing::UnorderedElementsAre(500, 204, 302, 0, 0));
    EXPECT_NE(logOf(volume, "Communication").find("[ERROR]The request timed out."), std::string::npos);
}

TEST_F(RoadTest, AnswerToARequestUnderWayMakesTheServerReachableAgain) {
    addTrail("1", sudoTrail(kMorning, 100, 9));
    configure();
    server.fail({.kind = Kind::hold, .path = AuditServer::kEventsPath});
    server.fail({.path = AuditServer::kEventsPath, .status = 500});
    RunningAgent agent(build::kAgent, volume);
    // The second delivery has not waited for the answer to the first.
    ASSERT_TRUE(waitForLog(volume, "Communication", "isconnected changed to 0")) << logOf(volume, "Config");
    server.release();
    ASSERT_TRUE(waitForLog(volume, "Communication", "isconnected changed to 1"));
    ASSERT_TRUE(server.waitForEvents(9));
    EXPECT_EQ(agent.stop(), 0);
    EXPECT_EQ(arrivals(), eachOnce(100, 9));
}

TEST_F(RoadTest, WhatWasNotDeliveredBeforeTheStopIsDeliveredAfterTheNextStart) {
    addTrail("1", sudoTrail(kMorning, 100, 200));
    configure();
    server.fail({.path = AuditServer::kEventsPath, .status = 500, .count = -1});
    {
        RunningAgent agent(build::kAgent, volume);
        ASSERT_TRUE(waitForLog(volume, "Communication", "isconnected changed to 0"));
        // The time of the last event is stored before this line; a stop before that has the trail read again.
        ASSERT_TRUE(waitForLog(volume, "Event", "Events read upto"));
        EXPECT_EQ(agent.stop(), 0);
    }
    std::vector<std::int64_t> spooled;
    for (const auto& file : std::filesystem::directory_iterator(volume.eventData())) {
        std::ifstream stream(file.path());
        const std::string text{std::istreambuf_iterator<char>(stream), {}};
        const auto batch = Json::parse(text);
        ASSERT_TRUE(batch) << file.path();
        for (const auto& event : *batch->array()) {
            spooled.push_back((*event.dictionary())["subject_pid"].integerValue());
        }
    }
    ASSERT_FALSE(spooled.empty());
    server.reset();
    RunningAgent again(build::kAgent, volume);
    ASSERT_TRUE(server.waitForEvents(spooled.size()));
    EXPECT_TRUE(waitUntil([this] { return std::filesystem::is_empty(volume.eventData()); }));
    EXPECT_EQ(again.stop(), 0);
    for (const auto process : spooled) {
        EXPECT_EQ(arrivals()[process], 1) << process;
    }
}

TEST_F(RoadTest, DamagedInputCostsOnlyItself) {
    addTrail("1", sudoTrail(kMorning, 100, 3));
    auto damaged = sudoTrail(kMorning + 1h, 200, 2);
    damaged.addRaw(Data{0x14, 0xFF, 0xFF, 0xFF, 0xFF, 1, 2, 3});
    addTrail("2", damaged);
    addTrail("3", sudoTrail(kMorning + 2h, 300, 4));
    std::filesystem::create_directory(volume.auditFolder() / "folder");
    std::ofstream(volume.eventData() / "event_20240101000000000") << "[{\"cut\":";
    std::ofstream(volume.conf() / "currentLogins") << "no archive";
    configure();
    std::ofstream(volume.conf() / "logfile.plist") << "<plist><dict><key>Config</key>";

    RunningAgent agent(build::kAgent, volume);
    ASSERT_TRUE(server.waitForEvents(9)) << logOf(volume, "Config");
    EXPECT_EQ(agent.stop(), 0);
    auto expected = eachOnce(100, 3);
    expected.merge(eachOnce(200, 2));
    expected.merge(eachOnce(300, 4));
    EXPECT_EQ(arrivals(), expected);
    const auto log = logOf(volume, "Config");
    for (const auto* line : {"8 bytes of /var/audit/2 are left unread", "event_20240101000000000 is no batch of events",
                             "Error while unarchiving current login  ", "logfile.plist is not read"}) {
        EXPECT_NE(log.find(line), std::string::npos) << line;
    }
    EXPECT_TRUE(std::filesystem::exists(volume.eventData() / "event_20240101000000000"));
}

TEST_F(RoadTest, HostileAnswersLeaveTheConfigurationAsItIs) {
    configure();
    const auto before = volume.readConfiguration("Serverinfo.plist");
    const std::map<std::string, std::string> answers = {
        {"text", "no json"},
        {"array", "[1,2]"},
        {"deep", std::string(100'000, '[')},
        {"empty", ""},
    };
    for (const auto& [name, answer] : answers) {
        server.reset();
        server.setAnswer(answer);
        RunningAgent agent(build::kAgent, volume);
        ASSERT_TRUE(waitForLog(volume, "Config", "AgentServiceHandler init Finished")) << name;
        EXPECT_EQ(agent.stop(), 0) << name;
        EXPECT_EQ(volume.readConfiguration("Serverinfo.plist"), before) << name;
        std::filesystem::remove_all(volume.logs());
        std::filesystem::create_directories(volume.logs() / "archive");
    }
    // An answer without end counts as a failure, and the next one as the answer.
    server.reset();
    server.fail({.kind = Kind::endless});
    RunningAgent agent(build::kAgent, volume);
    ASSERT_TRUE(server.waitForRequests(2));
    ASSERT_TRUE(waitForLog(volume, "Config", "AgentServiceHandler init Finished"));
    EXPECT_EQ(agent.stop(), 0);
    EXPECT_EQ(volume.readConfiguration("Serverinfo.plist"), before);
}

TEST_F(RoadTest, DebugLogTellsTheRoadInItsOrder) {
    addTrail("1", sudoTrail(kMorning, 100, 6));
    std::filesystem::remove(volume.auditPipe());
    configure();
    RunningAgent agent(build::kAgent, volume);
    ASSERT_TRUE(server.waitForEvents(6));
    ASSERT_TRUE(waitForLog(volume, "Communication", "response="));
    EXPECT_EQ(agent.stop(), 0);

    const auto expectInOrder = [this](std::string_view category, const std::vector<std::string>& messages) {
        const auto log = logOf(volume, category);
        std::size_t at = 0;
        for (const auto& message : messages) {
            const auto found = log.find(message, at);
            ASSERT_NE(found, std::string::npos) << message << "\n" << log;
            at = found + message.size();
        }
    };
    expectInOrder("Config",
                  {"[INFO]isSupportedOsVersion=1", "[DEBUG]GlobalVariables Initialised",
                   "[DEBUG]Globalvariables initialiseServerInfo called", "[ERROR]There is no /dev/auditpipe",
                   "[INFO]GlobalVariables going to sync data from server", "[INFO]EventQueueGCD queueData initialised",
                   "[DEBUG]AgentServiceHandler init Finished", "[INFO]Going to Start Vantorix Sentrova Agent.",
                   "[INFO]Going to rotate log", "[INFO]Zipping Log", "[DEBUG]Calling first schedule",
                   "[DEBUG]Going to check /var/audit/1", "[ERROR]Eventcollector start called",
                   "[DEBUG]EventQueueGCD enqueue called", "[INFO] filename ", "[DEBUG]/var/audit/1 file read",
                   "[INFO]AgentServiceHandler stop called"});
    expectInOrder("Event", {"[INFO]Eventcollecor reading events from 0", "[INFO]/var/audit/1 ended: 6 records read"});
    expectInOrder("Communication", {"[DEBUG]GlobalVariables Sync Data is finished", "[DEBUG]EventForwarder DATA= ",
                                    "[DEBUG]response status code: 200", "[INFO]response="});
    for (const auto* category : {"Config", "Communication", "Event"}) {
        EXPECT_EQ(logOf(volume, category).find("org-key"), std::string::npos) << category;
    }
}

TEST_F(RoadTest, UnsupportedSystemIsRefused) {
    configure();
    for (const auto* version : {"10.14.6", "9.9"}) {
        volume.setVersion(version);
        RunningAgent agent(build::kAgent, volume);
        EXPECT_EQ(agent.wait(), 0) << version;
    }
    const auto log = logOf(volume, "Config");
    EXPECT_NE(log.find("[ERROR]Agent cannot run because its either an unsupported version or the User is not a root"),
              std::string::npos);
    EXPECT_NE(log.find("[ERROR]Supported Version = majorVersion.minorVersion"), std::string::npos);
    EXPECT_TRUE(server.requests().empty());
    EXPECT_FALSE(std::filesystem::exists(volume.conf() / "currentLogins"));
}

TEST_F(RoadTest, IdentityThatIsTooShortStopsTheStart) {
    mine.set("AgentAuthID", "short");
    configure();
    RunningAgent agent(build::kAgent, volume);
    EXPECT_EQ(agent.wait(), 78);
    EXPECT_NE(logOf(volume, "Config").find("The key \"AgentAuthID\" of "), std::string::npos);
}

}  // namespace
}  // namespace sentrova::testing
