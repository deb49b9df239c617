#include "core/GlobalVariables.h"
#include "forwarding/TransportEngine.h"
#include "foundation/CurlUrlSession.h"
#include "foundation/FileSystem.h"
#include "support/AgentFixture.h"

#include <future>

#include <gtest/gtest.h>

namespace sentrova::testing {

namespace {

using namespace std::chrono_literals;

using Cycle = std::array<const char*, 12>;

// All addresses in their order, from connection 0 with host form 0 on.
constexpr Cycle kWithRelay = {
    "nat://relay.example.com:7443",   "nat://audit.example.com:7443",   "nat://192.0.2.1:7443",   "nat://audit:7443",
    "agent://relay.example.com:8443", "agent://audit.example.com:8443", "agent://192.0.2.1:8443", "agent://audit:8443",
    "prod://relay.example.com:9443",  "prod://audit.example.com:9443",  "prod://192.0.2.1:9443",  "prod://audit:9443",
};
constexpr Cycle kWithoutRelay = {
    "agent://audit.example.com:8443", "agent://audit.example.com:8443", "agent://192.0.2.1:8443", "agent://audit:8443",
    "agent://audit.example.com:8443", "agent://audit.example.com:8443", "agent://192.0.2.1:8443", "agent://audit:8443",
    "prod://audit.example.com:9443",  "prod://audit.example.com:9443",  "prod://192.0.2.1:9443",  "prod://audit:9443",
};
constexpr Cycle kRelayUnknown = {
    "nat://audit.example.com:7443",   "nat://audit.example.com:7443",   "nat://192.0.2.1:7443",   "nat://audit:7443",
    "agent://audit.example.com:8443", "agent://audit.example.com:8443", "agent://192.0.2.1:8443", "agent://audit:8443",
    "prod://audit.example.com:9443",  "prod://audit.example.com:9443",  "prod://192.0.2.1:9443",  "prod://audit:9443",
};

// The type that an address settles is told by its scheme.
std::uint64_t typeOf(std::string_view url) {
    return url.starts_with("nat") ? 0U : url.starts_with("agent") ? 1U : 2U;
}

}  // namespace

class TransportEngineTest : public ::testing::Test, protected AgentFixture {
  protected:
    TransportEngineTest() {
        serverInfo.set("NATProtocol", "nat");
        serverInfo.set("AgentProtocol", "agent");
        serverInfo.set("Protocol", "prod");
        writeConfiguration();
    }

    std::uint64_t fileIdentity() {
        return FileSystem::shared().status((volume().conf() / "myconfigurations.plist").string())->identity;
    }
};

TEST_F(TransportEngineTest, AddressesGoRoundFromTheFirstOfTheConfiguredType) {
    const std::pair<Value, const Cycle*> relays[] = {
        {"relay.example.com", &kWithRelay}, {"-", &kWithoutRelay}, {"", &kWithoutRelay}, {Value(), &kRelayUnknown}};
    constexpr std::array<std::size_t, 4> kFirst = {0, 5, 9, 9};
    for (const auto& [relay, cycle] : relays) {
        for (std::uint64_t type = 0; type < kFirst.size(); ++type) {
            SCOPED_TRACE(relay.description() + " " + std::to_string(type));
            restart();
            serverInfo.remove("NATServerName");
            if (!relay.isNull()) {
                serverInfo.set("NATServerName", relay);
            }
            writeConfiguration();
            auto& configuration = GlobalVariables::getInstance();
            configuration.setType(type);
            TransportEngine engine;
            if (type == 0 && cycle == &kWithoutRelay) {
                // The very first engine has the scheme of the configured type, before the look-ups settle another.
                EXPECT_EQ(engine.baseURL(), "nat://audit.example.com:8443");
            } else {
                EXPECT_EQ(engine.baseURL(), cycle->at(kFirst.at(type)));
            }
            for (std::size_t step = 0; step <= cycle->size(); ++step) {
                const std::string expected = cycle->at((kFirst.at(type) + step) % cycle->size());
                EXPECT_EQ(TransportEngine().baseURL(), expected) << "a new engine after " << step;
                EXPECT_EQ(configuration.type(), typeOf(expected)) << step;
                engine.tryOtherURL();
                EXPECT_EQ(engine.baseURL(), cycle->at((kFirst.at(type) + step + 1) % cycle->size())) << step;
            }
        }
    }
}

TEST_F(TransportEngineTest, RequestHasTheMessagesPathTheHeadersInOrderAndAnAsciiBody) {
    TransportEngine engine;
    engine.sendMessageToServer(MessageType::eventDelivery, "caf\xC3\xA9 \xE2\x98\x83", [](auto&&...) {});
    engine.sendMessageToServer(MessageType::eventDelivery, "", [](auto&&...) {});
    TransportEngine().sendMessageToServer(MessageType::configurationSync, "{}", [](auto&&...) {});
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

TEST_F(TransportEngineTest, MessageOfAnUnknownTypeIsLoggedAndNotSent) {
    for (const auto type : {-1, 2}) {
        const auto unknown = static_cast<MessageType>(type);
        TransportEngine().sendMessageToServer(unknown, "{}", [](auto&&...) { ADD_FAILURE() << "completed"; });
        MsgConfiguration message;
        message.getMessageConfiguration(MessageType::eventDelivery);
        EXPECT_EQ(&message.getMessageConfiguration(unknown), &message);
        EXPECT_FALSE(message.method() || message.URL());
    }
    EXPECT_TRUE(session().sent().empty());
    EXPECT_EQ(logged("[TransportEngine]"), 2);
    EXPECT_EQ(logged("[ERROR]there is no message of type"), 2);
}

TEST_F(TransportEngineTest, ConnectionIsStoredOnlyWhenReachabilityChanges) {
    EXPECT_TRUE(TransportEngine::isConnected());
    const auto before = fileIdentity();
    TransportEngine::setIsConnected(true);
    EXPECT_EQ(fileIdentity(), before);
    GlobalVariables::getInstance().setType(2);
    TransportEngine::setIsConnected(false);
    EXPECT_FALSE(TransportEngine::isConnected());
    auto stored = myConfigurations;
    stored.set("CommunicationType", 2);
    EXPECT_EQ(volume().readConfiguration("myconfigurations.plist"), stored);
    const auto after = fileIdentity();
    GlobalVariables::getInstance().setType(0);
    TransportEngine::setIsConnected(false);
    EXPECT_EQ(fileIdentity(), after);
    EXPECT_EQ(logged("[INFO]TransportEngine isconnected changed to 0", "Communication"), 1);
}

TEST_F(TransportEngineTest, NameThatIsNoHostFailsTheRequestThroughItsCompletion) {
    for (const auto* name : {"audit.example.com/x", "audit example", "user@audit", "a?b", "a#b", "", "a\tb"}) {
        restart();
        TransportEngine::setSessionFactory(nullptr);
        serverInfo.set("ServerFQDN", name);
        serverInfo.set("AgentProtocol", "http");
        writeConfiguration();
        std::promise<std::optional<Error>> failed;
        TransportEngine().sendMessageToServer(MessageType::eventDelivery, "[]",
                                              [&](const auto& data, const auto& response, const auto& error) {
                                                  EXPECT_FALSE(data || response);
                                                  failed.set_value(error);
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
    const TransportEngine first;
    ASSERT_TRUE(delegate);
    const auto* const of = delegate.get();
    const TransportEngine second;
    EXPECT_EQ(delegate.get(), of) << "one session for all";

    using Method = UrlAuthenticationChallenge::Method;
    for (const auto method : {Method::serverTrust, Method::clientCertificate, Method::httpBasic, Method::httpDigest,
                              Method::ntlm, Method::negotiate, Method::other}) {
        int answers = 0;
        delegate->didReceiveChallenge({method, "anywhere"}, [&](UrlChallengeDisposition) { ++answers; });
        EXPECT_EQ(answers, method == Method::serverTrust ? 1 : 0);
    }
}

}  // namespace sentrova::testing
