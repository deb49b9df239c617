#include "core/GlobalVariables.h"
#include "forwarding/TransportEngine.h"
#include "platform/curl/CurlUrlSession.h"
#include "server/AuditServer.h"
#include "support/AgentFixture.h"

#include <cstdlib>
#include <fstream>
#include <future>

#include <gtest/gtest.h>
#include <openssl/ssl.h>

namespace sentrova::testing {

using namespace std::chrono_literals;

class TransportEngineTest : public ::testing::Test, protected AgentFixture {
  protected:
    TransportEngineTest() {
        serverInfo.set("NATProtocol", "nat");
        serverInfo.set("AgentProtocol", "agent");
        serverInfo.set("Protocol", "prod");
        restartConfigured();
    }

    // Restarts the agent with the real session. Returns the status of the answer to an event, or the error code.
    std::int64_t deliverTo(const char* host, int port, const char* scheme) {
        serverInfo.set("ServerFQDN", host);
        serverInfo.set("AgentPort", port);
        serverInfo.set("AgentProtocol", scheme);
        real_.emplace(clock());
        real_->start();
        this->host().otherSession = &*real_;
        restartConfigured();
        const auto outcome = std::make_shared<std::promise<std::int64_t>>();
        EXPECT_TRUE(TransportEngine().sendMessageToServer(
            MessageType::eventDelivery, "[{}]", [outcome](const auto&, const auto& response, const auto& error) {
                outcome->set_value(response ? response->statusCode : error->code);
            }));
        auto answered = outcome->get_future();
        return answered.wait_for(1min) == std::future_status::ready ? answered.get() : 0;
    }

  private:
    std::optional<platform::CurlUrlSession> real_;
};

TEST_F(TransportEngineTest, RequestHasTheMessagesPathTheHeadersInOrderAndAnAsciiBody) {
    // Only the very first address uses the scheme of the configured type.
    myConfigurations.set("CommunicationType", 0);
    restartConfigured();
    EXPECT_EQ(TransportEngine().baseURL(), "nat://audit.example.com:8443");
    TransportEngine engine;
    const auto ignore = [](auto&&...) {};
    EXPECT_TRUE(engine.sendMessageToServer(MessageType::eventDelivery, "caf\xC3\xA9 \xE2\x98\x83", ignore));
    EXPECT_TRUE(
        engine.sendMessageToServer(MessageType::eventDelivery, std::make_shared<const std::string>(), ignore, "a-key"));
    EXPECT_TRUE(TransportEngine().sendMessageToServer(MessageType::configurationSync, "{}", ignore));
    EXPECT_FALSE(TransportEngine().sendMessageToServer(static_cast<MessageType>(2), "{}", ignore));
    EXPECT_EQ(logged("[ERROR]unknown message type 2"), 1);
    const auto sent = session().sent();
    ASSERT_EQ(sent.size(), 3U);
    const auto& first = sent[0].request;
    EXPECT_EQ(first.url, "agent://audit.example.com:8443/api/agent/tabs/agentData");
    EXPECT_TRUE(first.method == "POST" && first.timeout == 30s && sent[0].body == "cafe ?") << sent[0].body;
    EXPECT_EQ(first.headers,
              (decltype(first.headers){
                  {"Content-Length", "6"}, {"Content-Type", "text/json"}, {"OrgAccessKey", "org-access-key"}}));
    EXPECT_EQ(sent[1].request.url, first.url) << "the path is not added again";
    EXPECT_EQ(sent[1].request.headers.back(), std::pair(std::string("Idempotency-Key"), std::string("a-key")));
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

TEST_F(TransportEngineTest, InvalidHostNameFailsTheRequestThroughItsCompletion) {
    for (const auto* name : {"audit.example.com/x", "audit example", "user@audit", "a?b", "a#b", "", "a\tb"}) {
        EXPECT_EQ(deliverTo(name, 8443, "http"), static_cast<std::int64_t>(UrlErrorCode::badUrl)) << name;
    }
    EXPECT_EQ(logged("is not a valid host name"), 7);
}

TEST_F(TransportEngineTest, AnyCertificateIsAcceptedAndNoTlsOlderThanVersion1Point2) {
    constexpr auto kRefused = static_cast<std::int64_t>(UrlErrorCode::secureConnectionFailed);
    const std::tuple<const char*, ServerTls, std::int64_t> cases[] = {
        {"for another host", {.host = "somebody.example.net"}, 200},
        {"expired", {.validFrom = -730, .validUntil = -365}, 200},
        {"not valid yet", {.validFrom = 365, .validUntil = 730}, 200},
        {"a short key and an old digest", {.rsaBits = 1024, .digest = "SHA1"}, 200},
        {"TLS 1.3", {.onlyVersion = TLS1_3_VERSION}, 200},
        {"TLS 1.2", {.rsaBits = 1024, .digest = "SHA1", .onlyVersion = TLS1_2_VERSION}, 200},
        {"TLS 1.1", {.onlyVersion = TLS1_1_VERSION}, kRefused},
        {"TLS 1.0", {.onlyVersion = TLS1_VERSION}, kRefused},
    };
    // The agent keeps its own minimum even if the host allows less. The host's setting is read once per process.
    const auto lax = (volume().root() / "openssl.cnf").string();
    std::ofstream(lax) << "openssl_conf = a\n[a]\nssl_conf = b\n[b]\nsystem_default = c\n[c]\n"
                          "MinProtocol = TLSv1\nCipherString = DEFAULT:@SECLEVEL=0\n";
    ::setenv("OPENSSL_CONF", lax.c_str(), 1);
    for (const auto& [what, tls, outcome] : cases) {
        SCOPED_TRACE(what);
        AuditServer server({.https = true, .tls = tls});
        EXPECT_EQ(deliverTo("127.0.0.1", server.port(), "https"), outcome);
        EXPECT_EQ(server.events().size(), outcome == 200 ? 1U : 0U);
    }
    ::unsetenv("OPENSSL_CONF");
}

}  // namespace sentrova::testing
