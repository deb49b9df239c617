#include "core/GlobalVariables.h"
#include "forwarding/TransportEngine.h"
#include "support/AgentFixture.h"

#include <array>
#include <future>
#include <tuple>

#include <gtest/gtest.h>

namespace sentrova::testing {

using namespace std::chrono_literals;

class TransportEngineTest : public ::testing::Test, protected AgentFixture {
  protected:
    TransportEngineTest() {
        serverInfo.set("NATProtocol", "nat");
        serverInfo.set("AgentProtocol", "agent");
        serverInfo.set("Protocol", "prod");
        writeConfiguration();
    }
};

TEST_F(TransportEngineTest, AddressesGoRoundFromTheFirstOfTheConfiguredType) {
    struct Cycle {
        Value relay;
        // The type of each connection, and the name under which each is tried first.
        std::array<std::uint64_t, 3> types;
        std::string first;
        // A relay that is none still gives its scheme to the very first engine.
        std::string veryFirst;
    };
    const Cycle cycles[] = {
        {"relay.example.com", {0, 1, 2}, "relay.example.com", "nat://relay.example.com:7443"},
        {"-", {1, 1, 2}, "audit.example.com", "nat://audit.example.com:8443"},
        {"", {1, 1, 2}, "audit.example.com", "nat://audit.example.com:8443"},
        {Value(), {0, 1, 2}, "audit.example.com", "nat://audit.example.com:7443"},
    };
    const std::pair<const char*, const char*> connections[] = {
        {"nat://", ":7443"}, {"agent://", ":8443"}, {"prod://", ":9443"}};
    for (const auto& cycle : cycles) {
        const std::string names[] = {cycle.first, "audit.example.com", "192.0.2.1", "audit"};
        const auto typeAt = [&](std::size_t step) { return cycle.types.at(step / 4 % 3); };
        const auto addressAt = [&](std::size_t step) {
            const auto& [scheme, port] = connections[typeAt(step)];
            return scheme + names[step % 4] + port;
        };
        for (const std::size_t type : {0U, 1U, 2U, 3U}) {
            SCOPED_TRACE(cycle.relay.description() + " " + std::to_string(type));
            restart();
            cycle.relay.isNull() ? void(serverInfo.remove("NATServerName"))
                                 : serverInfo.set("NATServerName", cycle.relay);
            writeConfiguration();
            auto& configuration = GlobalVariables::getInstance();
            configuration.setType(type);
            const std::size_t first = std::array{0U, 5U, 9U, 9U}.at(type);
            TransportEngine engine;
            EXPECT_EQ(engine.baseURL(), type == 0 ? cycle.veryFirst : addressAt(first));
            for (auto step = first; step <= first + 12; ++step) {
                EXPECT_EQ(TransportEngine().baseURL(), addressAt(step)) << "a new engine after " << step - first;
                EXPECT_EQ(configuration.type(), typeAt(step)) << step;
                engine.tryOtherURL();
                EXPECT_EQ(engine.baseURL(), addressAt(step + 1)) << step;
            }
        }
    }
}

TEST_F(TransportEngineTest, RequestHasTheMessagesPathTheHeadersInOrderAndAnAsciiBody) {
    TransportEngine engine;
    engine.sendMessageToServer(MessageType::eventDelivery, "caf\xC3\xA9 \xE2\x98\x83", [](auto&&...) {});
    engine.sendMessageToServer(MessageType::eventDelivery, "", [](auto&&...) {});
    TransportEngine().sendMessageToServer(MessageType::configurationSync, "{}", [](auto&&...) {});
    const auto unknown = static_cast<MessageType>(2);
    TransportEngine().sendMessageToServer(unknown, "{}", [](auto&&...) { ADD_FAILURE() << "completed"; });
    EXPECT_EQ(logged("[ERROR]there is no message of type 2"), 1);
    const auto sent = session().sent();
    ASSERT_EQ(sent.size(), 3U);
    EXPECT_EQ(sent[0].request.url, "agent://audit.example.com:8443/api/agent/tabs/agentData");
    EXPECT_EQ(sent[0].request.method, "POST");
    EXPECT_EQ(sent[0].request.timeout, 30s);
    EXPECT_EQ(sent[0].body, "cafe ?");
    using Headers = decltype(sent[0].request.headers);
    EXPECT_EQ(sent[0].request.headers,
              (Headers{{"Content-Length", "6"}, {"Content-Type", "text/json"}, {"OrgAccessKey", "org-access-key"}}));
    EXPECT_EQ(sent[1].request.url, sent[0].request.url) << "the path is not added again";
    EXPECT_EQ(sent[2].request.url, "agent://audit.example.com:8443/api/agent/configuration/syncmacagentconfiguration");
}

TEST_F(TransportEngineTest, ConnectionIsStoredOnlyWhenReachabilityChanges) {
    const std::tuple<bool, std::uint64_t, int> steps[] = {{true, 2, 1}, {false, 2, 2}, {false, 0, 2}, {true, 0, 0}};
    for (const auto& [connected, type, stored] : steps) {
        GlobalVariables::getInstance().setType(type);
        TransportEngine::setIsConnected(connected);
        EXPECT_EQ(TransportEngine::isConnected(), connected);
        myConfigurations.set("CommunicationType", stored);
        EXPECT_EQ(volume().readConfiguration("myconfigurations.plist"), myConfigurations);
    }
}

TEST_F(TransportEngineTest, NameThatIsNoHostFailsTheRequestThroughItsCompletion) {
    for (const auto* name : {"audit.example.com/x", "audit example", "user@audit", "a?b", "a#b", "", "a\tb"}) {
        restart();
        TransportEngine::setSessionFactory(nullptr);
        serverInfo.set("ServerFQDN", name);
        serverInfo.set("AgentProtocol", "http");
        writeConfiguration();
        std::promise<bool> failed;
        TransportEngine().sendMessageToServer(MessageType::eventDelivery, "[]",
                                              [&](const auto& data, const auto& response, const auto& error) {
                                                  failed.set_value(error && !data && !response);
                                              });
        auto result = failed.get_future();
        ASSERT_EQ(result.wait_for(1min), std::future_status::ready) << name;
        EXPECT_TRUE(result.get()) << name;
    }
    EXPECT_EQ(logged("is not the name of a host"), 7);
}

TEST_F(TransportEngineTest, AnyCertificateIsAcceptedAndNoOtherQuestionAnswered) {
    std::shared_ptr<UrlSessionDelegate> delegate;
    TransportEngine::setSessionFactory([&](std::shared_ptr<UrlSessionDelegate> given) -> std::unique_ptr<UrlSession> {
        delegate = std::move(given);
        return std::make_unique<FakeUrlSession>();
    });
    const TransportEngine engine;
    ASSERT_TRUE(delegate);
    using Method = UrlAuthenticationChallenge::Method;
    for (const auto method : {Method::serverTrust, Method::clientCertificate, Method::httpBasic, Method::httpDigest,
                              Method::ntlm, Method::negotiate, Method::other}) {
        int answers = 0;
        delegate->didReceiveChallenge({method, "anywhere"}, [&](UrlChallengeDisposition) { ++answers; });
        EXPECT_EQ(answers, method == Method::serverTrust ? 1 : 0);
    }
}

}  // namespace sentrova::testing
