#include "collection/DomainUtil.h"
#include "core/GlobalVariables.h"
#include "forwarding/SecurityUtil.h"
#include "forwarding/TransportEngine.h"
#include "foundation/formats/Json.h"
#include "support/AgentFixture.h"
#include "support/FaultyFileSystem.h"
#include "sync/ServerCommunicator.h"

#include <future>

#include <gtest/gtest.h>

namespace sentrova::testing {

using namespace std::chrono_literals;

class ServerCommunicatorTest : public ::testing::Test, protected AgentFixture {
  protected:
    // One synchronisation with that answer. Returns when all its changes have been applied.
    void syncAnsweredWith(const std::string& body) {
        session().respondWith([body](const auto&) { return FakeUrlSession::Answer{200, body}; });
        ServerCommunicator().syncAndApply();
    }

    Dictionary request(std::size_t number) { return *Json::parse(session().sent().at(number).body)->dictionary(); }
};

TEST_F(ServerCommunicatorTest, TwelveFailuresTryEveryAddressAndThenPause) {
    std::size_t requests = 0;
    session().respondWith([&requests](const auto&) -> std::optional<FakeUrlSession::Answer> {
        ++requests;
        if (requests == 3) {
            return FakeUrlSession::failure(UrlErrorCode::timedOut, "Nobody answered");
        }
        if (requests == 4) {
            throw std::runtime_error("No thread");
        }
        return FakeUrlSession::Answer{requests <= 24 ? 500 : 200, "{}"};
    });
    auto sync = std::async(std::launch::async, [] { ServerCommunicator().syncFromServer(); });
    for (const auto failures : {12U, 24U}) {
        ASSERT_TRUE(clock().awaitTimerIn(900s));
        EXPECT_EQ(session().sent().size(), failures);
        EXPECT_FALSE(TransportEngine::isConnected());
        clock().advance(899s);
        EXPECT_EQ(sync.wait_for(0s), std::future_status::timeout);
        clock().advance(1s);
    }
    sync.get();
    EXPECT_TRUE(TransportEngine::isConnected());

    const auto sent = session().sent();
    ASSERT_EQ(sent.size(), 25U);
    for (std::size_t i = 0; i < sent.size(); ++i) {
        // Each attempt appends the path once, and the connection type is that of the attempt.
        const bool direct = i % 12 >= 3 && i % 12 <= 6;
        const std::string path = "/api/agent/configuration/syncmacagentconfiguration";
        EXPECT_EQ(sent[i].request.url.find(path), sent[i].request.url.size() - path.size()) << i;
        EXPECT_EQ(sent[i].request.url.starts_with("https:"), direct) << i;
        EXPECT_EQ(request(i)["CommunicationType"], Value(direct ? "3:ProductConnector" : "2:AgentConnector")) << i;
    }
    EXPECT_EQ(sent[12].request.url, sent[0].request.url);
    EXPECT_EQ(sent[24].request.url, sent[0].request.url);
    EXPECT_EQ(logged("[ERROR] response code error Nobody answered", "Communication"), 1);
    const std::pair<const char*, int> failures[] = {{"http://audit:8443: Nobody answered", 1},
                                                    {"https://audit.example.com:9443: The request could not begin", 1},
                                                    {"answered with HTTP status 500", 22}};
    for (const auto& [text, count] : failures) {
        EXPECT_EQ(logged(text, "Communication"), count) << text;
    }
    EXPECT_EQ(volume().readConfiguration("Serverinfo.plist"), serverInfo);
}

TEST_F(ServerCommunicatorTest, RequestIsTheStoredConfigurationWithTheAgentsStateWhichIsNotStored) {
    const auto prefix = std::string(32, 'p');
    const auto identity = prefix + **SecurityUtil::encrypt("identity-7", "XEVORTANIMB", "");
    auto tasks = schedules["ScheduleTasks"];
    tasks.array()->at(0).dictionary()->set("LastScheduleTimeInMillis", 1700000000);
    schedules.set("ScheduleTasks", tasks);
    const std::pair<const char*, const char*> types[] = {
        {"relay.example.com", "1:NAT"}, {"-", "2:AgentConnector"}, {"-", "3:ProductConnector"}};
    for (std::size_t type = 0; type < std::size(types); ++type) {
        const auto& [relay, text] = types[type];
        serverInfo.set("NATServerName", relay);
        myConfigurations = {
            {"TimestampOfLastEvent", "1383590186"}, {"AgentVersion", "1.0.0"}, {"CommunicationType", type}};
        auto expected = serverInfo;
        if (type == 1) {
            myConfigurations.set("AgentAuthID", identity);
            expected.set("AgentAuthID", "identity-7");
        }
        restartConfigured();
        GlobalVariables::getInstance().load();
        syncAnsweredWith("{}");
        expected.set("Build", "1.0.0");
        expected.set("TimestampOfLastEvent", "1383590186");
        expected.set("ScheduleRunAt", 1700000000);
        expected.set("CommunicationType", text);
        EXPECT_EQ(request(type), expected);
        EXPECT_EQ(volume().readConfiguration("Serverinfo.plist"), serverInfo);
    }
}

TEST_F(ServerCommunicatorTest, AnswerWithoutAConfigurationIsASuccessThatChangesNothing) {
    for (const std::string body : {"", "no json", "[{\"a\":1}]", "{\"a\":1", "{\"a\":null}", "{\"a\":\"\xFF\"}"}) {
        restart();
        syncAnsweredWith(body);
        EXPECT_TRUE(TransportEngine::isConnected());
        EXPECT_EQ(volume().readConfiguration("Serverinfo.plist"), serverInfo) << body.substr(0, 20);
        EXPECT_EQ(volume().readConfiguration("myconfigurations.plist"), myConfigurations);
    }
    EXPECT_EQ(logged("No State change"), 0) << "no handler runs";
    EXPECT_EQ(logged("[ERROR]The server's answer is not a configuration"), 4);
}

TEST_F(ServerCommunicatorTest, AnswerIsStoredWithoutTextsThatXmlCannotRepresentAndItsChangesApplyInOrder) {
    syncAnsweredWith(
        R"({"AgentGuid":"guid-1","DomainID":"1","DomainName":"new.example.com","isEnabled":false,"FetchInterval":60,)"
        R"("NATServerName":"relay.example.com","SyncTime":"120","EventsToRead":"AUE_su","AgentAuthID":"identity-7",)"
        R"("AgentUID":"uid-1","Port":null,"Nested":{"a":null,"b":[1,null,"\u0001",{"c":null,"d\u0000":2}]},)"
        R"("ServerName":"a\u001b[1m","ServerIP":"\uFFFE","NATProtocol":"\uFFFF","OrgAccessKey":"key-2"})");
    for (const auto* where : {".Nested.b[2]", ".Nested.b[3].d", ".ServerName", ".ServerIP", ".NATProtocol"}) {
        EXPECT_EQ(logged(std::string("[ERROR]The server's answer has a text at ") + where), 1) << where;
    }
    const auto stored = volume().readConfiguration("Serverinfo.plist");
    EXPECT_EQ(stored["Nested"], Value(Dictionary{{"b", Array{1, Dictionary()}}}));
    EXPECT_FALSE(stored.contains("Port"));
    EXPECT_EQ(stored.size(), 12U) << "what the server did not send is gone";
    std::size_t at = 0;
    for (const auto* message : {"First Time Configuration", "State Changed to disabled",
                                "Fetch interval has been changed updating schedule to 60",
                                "SyncTime has been updated to 120", "Events to be audited are changed to AUE_su"}) {
        at = log().find(std::string("[INFO]") + message, at);
        EXPECT_NE(at, std::string::npos) << message;
    }
    const auto& configuration = GlobalVariables::getInstance();
    EXPECT_EQ(configuration.type(), 0U);
    EXPECT_EQ(configuration.serverFQDN(), std::nullopt);
    EXPECT_EQ(configuration.orgAccessKey(), "key-2");
    EXPECT_EQ(configuration.agentUUID(), "identity-7") << "reloaded after it was stored";
    EXPECT_FALSE(configuration.isEnabled());
    EXPECT_EQ(DomainUtil::getDomainName(), "new.example.com");
    EXPECT_EQ(log("Communication").find("key-2"), std::string::npos) << "no secret is logged";
}

TEST_F(ServerCommunicatorTest, AnswerThatCannotBeStoredIsAppliedByTheNextSyncThatStoresIt) {
    const std::string answer = R"({"isEnabled":false,"ServerFQDN":"new.example.com"})";
    const auto& configuration = GlobalVariables::getInstance();
    {
        FaultyFileSystem files([](const auto& path) { return path.ends_with("Serverinfo.plist"); });
        files.arm({.call = FaultyFileSystem::kRename, .error = ENOSPC, .number = 1});
        syncAnsweredWith(answer);
    }
    EXPECT_EQ(volume().readConfiguration("Serverinfo.plist"), serverInfo);
    EXPECT_TRUE(configuration.isEnabled() && configuration.serverFQDN() == "audit.example.com");
    EXPECT_EQ(logged("[ERROR]The server's answer could not be stored"), 1);
    EXPECT_EQ(logged("State"), 0) << "no handler runs";
    syncAnsweredWith(answer);
    EXPECT_EQ(logged("State Changed to disabled"), 1);
    EXPECT_TRUE(!configuration.isEnabled() && configuration.serverFQDN() == "new.example.com");
}

}  // namespace sentrova::testing
