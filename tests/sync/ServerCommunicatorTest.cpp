#include "collection/DomainUtil.h"
#include "core/GlobalVariables.h"
#include "forwarding/SecurityUtil.h"
#include "forwarding/TransportEngine.h"
#include "foundation/Json.h"
#include "support/AgentFixture.h"
#include "sync/ServerCommunicator.h"

#include <future>

#include <gtest/gtest.h>

namespace sentrova::testing {

using namespace std::chrono_literals;

class ServerCommunicatorTest : public ::testing::Test, protected AgentFixture {
  protected:
    // One synchronisation that the server answers so; returns when everything it brings has been applied.
    void syncAnsweredWith(const std::string& body) {
        session().respondWith([body](const auto&) { return FakeUrlSession::Answer{200, body}; });
        ServerCommunicator().syncFromServer();
        session().settle();
    }

    Dictionary lastRequest() {
        const auto body = Json::parse(session().sent().back().body);
        return body && body->dictionary() ? *body->dictionary() : Dictionary();
    }
};

TEST_F(ServerCommunicatorTest, TwelveFailuresGoRoundTheAddressesAndThenPause) {
    constexpr const char* kPath = "/api/agent/configuration/syncmacagentconfiguration";
    std::size_t requests = 0;
    session().respondWith([&requests](const auto&) -> std::optional<FakeUrlSession::Answer> {
        ++requests;
        if (requests == 3) {
            return FakeUrlSession::failure(UrlErrorCode::timedOut, "Nobody answered");
        }
        return FakeUrlSession::Answer{requests <= 12 ? 500 : 200, "{}"};
    });
    auto sync = std::async(std::launch::async, [] { ServerCommunicator().syncFromServer(); });
    ASSERT_TRUE(clock().awaitTimerIn(900s));
    EXPECT_EQ(session().sent().size(), 12U);
    EXPECT_FALSE(TransportEngine::isConnected());
    clock().advance(899s);
    EXPECT_EQ(sync.wait_for(0s), std::future_status::timeout);
    clock().advance(1s);
    sync.get();
    EXPECT_TRUE(TransportEngine::isConnected());

    // The path is sent by each attempt once, and the type tells the connection of the attempt.
    const std::pair<const char*, const char*> pass[] = {
        {"http://audit.example.com:8443", "2:AgentConnector"},
        {"http://192.0.2.1:8443", "2:AgentConnector"},
        {"http://audit:8443", "2:AgentConnector"},
        {"https://audit.example.com:9443", "3:ProductConnector"},
        {"https://audit.example.com:9443", "3:ProductConnector"},
        {"https://192.0.2.1:9443", "3:ProductConnector"},
        {"https://audit:9443", "3:ProductConnector"},
        {"http://audit.example.com:8443", "2:AgentConnector"},
        {"http://audit.example.com:8443", "2:AgentConnector"},
        {"http://192.0.2.1:8443", "2:AgentConnector"},
        {"http://audit:8443", "2:AgentConnector"},
        {"http://audit.example.com:8443", "2:AgentConnector"},
    };
    const auto sent = session().sent();
    ASSERT_EQ(sent.size(), 13U);
    for (std::size_t i = 0; i < sent.size(); ++i) {
        EXPECT_EQ(sent[i].request.url, std::string(pass[i % 12].first) + kPath) << i;
        EXPECT_NE(sent[i].body.find(std::string(R"("CommunicationType":")") + pass[i % 12].second), std::string::npos);
    }
    EXPECT_EQ(logged("[INFO]Sleeping for 900 seconds"), 1);
    EXPECT_EQ(logged("[ERROR] response code error (null)", "Communication"), 11);
    EXPECT_EQ(logged("[ERROR] response code error Nobody answered", "Communication"), 1);
    EXPECT_EQ(volume().readConfiguration("Serverinfo.plist"), serverInfo);
}

TEST_F(ServerCommunicatorTest, RequestIsTheStoredConfigurationWithTheAgentsStateWhichIsNotStored) {
    const auto prefix = std::string(32, 'p');
    myConfigurations.set("AgentAuthID", prefix + **SecurityUtil::encrypt("identity-7", "XEVORTANIMB", ""));
    myConfigurations.set("TimestampOfLastEvent", "1383590186");
    auto tasks = schedules["ScheduleTasks"];
    tasks.array()->at(0).dictionary()->set("LastScheduleTimeInMillis", 1700000000);
    schedules.set("ScheduleTasks", tasks);
    writeConfiguration();
    syncAnsweredWith("{}");

    auto expected = serverInfo;
    expected.set("Build", "1.0.0");
    expected.set("TimestampOfLastEvent", "1383590186");
    expected.set("AgentAuthID", "identity-7");
    expected.set("ScheduleRunAt", 1700000000);
    expected.set("CommunicationType", "2:AgentConnector");
    EXPECT_EQ(lastRequest(), expected);
    EXPECT_EQ(volume().readConfiguration("Serverinfo.plist"), serverInfo);
}

TEST_F(ServerCommunicatorTest, RequestNamesTheConnectionInUse) {
    const std::pair<std::uint64_t, const char*> cases[] = {
        {0, "1:NAT"}, {1, "2:AgentConnector"}, {2, "3:ProductConnector"}};
    for (const auto& [type, text] : cases) {
        restart();
        serverInfo.set("NATServerName", type == 0 ? "relay.example.com" : "-");
        myConfigurations.set("CommunicationType", type);
        writeConfiguration();
        syncAnsweredWith("{}");
        EXPECT_EQ(lastRequest()["CommunicationType"], Value(text));
        EXPECT_FALSE(lastRequest().contains("AgentAuthID")) << "there is no identity yet";
    }
}

TEST_F(ServerCommunicatorTest, AnswerWithoutAConfigurationIsASuccessThatChangesNothing) {
    std::string deep;
    for (int i = 0; i < 100000; ++i) {
        deep += "{\"a\":";
    }
    for (const auto& body : {std::string("{}"), std::string(), std::string("no json"), std::string("[{\"a\":1}]"),
                             std::string("null"), std::string("{\"a\":1"), std::string("{\"a\":null}"),
                             std::string("{\"a\":\"\xFF\"}"), deep, std::string(100000, '[')}) {
        restart();
        syncAnsweredWith(body);
        EXPECT_TRUE(TransportEngine::isConnected());
        EXPECT_EQ(volume().readConfiguration("Serverinfo.plist"), serverInfo) << body.substr(0, 20);
        EXPECT_EQ(volume().readConfiguration("myconfigurations.plist"), myConfigurations);
    }
    EXPECT_EQ(logged("No State change"), 0) << "no handler runs";
    EXPECT_EQ(logged("[ERROR]The server's answer is no configuration"), 7);
}

TEST_F(ServerCommunicatorTest, AnswerReplacesTheStoredConfigurationWithoutItsNulls) {
    syncAnsweredWith(R"({"DomainName":"new.example.com","ServerFQDN":"new.example.com","MaxEventDataSize":null,)"
                     R"("Nested":{"a":null,"b":[1,null,{"c":null}]},"NATServerName":"-","OrgAccessKey":"key-2"})");
    const Dictionary expected = {{"DomainName", "new.example.com"},
                                 {"ServerFQDN", "new.example.com"},
                                 {"Nested", Dictionary{{"b", Array{1, Dictionary()}}}},
                                 {"NATServerName", "-"},
                                 {"OrgAccessKey", "key-2"}};
    EXPECT_EQ(volume().readConfiguration("Serverinfo.plist"), expected);
    const auto& configuration = GlobalVariables::getInstance();
    EXPECT_EQ(configuration.serverFQDN(), "new.example.com");
    EXPECT_EQ(configuration.orgAccessKey(), "key-2");
    EXPECT_EQ(configuration.serverIP(), std::nullopt) << "what the server did not send is gone";
    EXPECT_EQ(DomainUtil::getDomainName(), "new.example.com");
    EXPECT_EQ(log("Communication").find("key-2"), std::string::npos) << "no secret is logged";
}

TEST_F(ServerCommunicatorTest, ChangesAreAppliedInTheirOrderFromWhatWasSent) {
    syncAnsweredWith(
        R"({"AgentGuid":"guid-1","DomainID":"1","DomainName":"corp.example.com","isEnabled":false,"FetchInterval":60,)"
        R"("NATServerName":"relay.example.com","SyncTime":"120","EventsToRead":"AUE_su","AgentAuthID":"identity-7",)"
        R"("AgentUID":"uid-1"})");
    std::size_t at = 0;
    for (const auto* message : {"First Time Configuration", "State Changed to disabled",
                                "Fetch interval has been changed updating schedule to 60",
                                "SyncTime has been updated to 120", "Events to be audited are changed to AUE_su"}) {
        at = log().find(std::string("[INFO]") + message, at);
        EXPECT_NE(at, std::string::npos) << message;
    }
    const auto& configuration = GlobalVariables::getInstance();
    EXPECT_EQ(configuration.type(), 0U);
    EXPECT_EQ(configuration.agentUUID(), "identity-7") << "reloaded after it was stored";
    EXPECT_FALSE(configuration.isEnabled());
}

}  // namespace sentrova::testing
