// What the agent makes of a server's TLS: its own delegate and the real session, against a real server.

#include "forwarding/TransportEngine.h"
#include "support/AgentFixture.h"
#include "support/AuditServer.h"

#include <cstdlib>
#include <fstream>
#include <future>
#include <tuple>

#include <gtest/gtest.h>
#include <openssl/ssl.h>

namespace sentrova::testing {
namespace {

class ServerTrustTest : public ::testing::Test, protected AgentFixture {
  protected:
    // The status of the answer to an event, or the error's code.
    std::int64_t deliver() {
        const auto outcome = std::make_shared<std::promise<std::int64_t>>();
        TransportEngine().sendMessageToServer(MessageType::eventDelivery, "[{}]",
                                              [outcome](const auto&, const auto& response, const auto& error) {
                                                  outcome->set_value(response ? response->statusCode : error->code);
                                              });
        auto answered = outcome->get_future();
        return answered.wait_for(std::chrono::minutes(1)) == std::future_status::ready ? answered.get() : 0;
    }
};

TEST_F(ServerTrustTest, AnyCertificateIsAcceptedAndNoTlsOlderThanVersion1Point2) {
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
    // A host may allow what it likes: the agent holds to its own minimum. Read once in a process.
    const auto lax = (volume().root() / "openssl.cnf").string();
    std::ofstream(lax) << "openssl_conf = a\n[a]\nssl_conf = b\n[b]\nsystem_default = c\n[c]\n"
                          "MinProtocol = TLSv1\nCipherString = DEFAULT:@SECLEVEL=0\n";
    ::setenv("OPENSSL_CONF", lax.c_str(), 1);
    for (const auto& [what, tls, outcome] : cases) {
        SCOPED_TRACE(what);
        AuditServer server({.https = true, .tls = tls});
        serverInfo.set("ServerFQDN", "127.0.0.1");
        serverInfo.set("AgentPort", server.port());
        serverInfo.set("AgentProtocol", "https");
        writeConfiguration();
        restart();
        TransportEngine::setSessionFactory(nullptr);
        EXPECT_EQ(deliver(), outcome);
        EXPECT_EQ(server.events().size(), outcome == 200 ? 1U : 0U);
    }
    ::unsetenv("OPENSSL_CONF");
}

}  // namespace
}  // namespace sentrova::testing
