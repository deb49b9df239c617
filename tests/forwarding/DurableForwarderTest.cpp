#include "forwarding/DurableForwarder.h"
#include "support/AgentFixture.h"
#include "support/FixedRandom.h"
#include "support/Footprint.h"

#include <set>
#include <vector>

#include <fmt/format.h>
#include <gtest/gtest.h>

namespace sentrova::testing {

namespace {
using namespace std::chrono_literals;
}  // namespace

class DurableForwarderTest : public ::testing::Test, protected AgentFixture {
  protected:
    DurableForwarderTest() {
        random_.refuses = true;
        begin();
    }
    ~DurableForwarderTest() override { end(); }

    void begin() {
        const auto host = this->host().host();
        spool_.emplace(DurableSpool::Surroundings{.configuration = GlobalVariables::getInstance(),
                                                  .files = host.files,
                                                  .clock = host.clock,
                                                  .dates = Current<DateFormat>::get(),
                                                  .cryptography = host.cryptography},
                       DurableSpool::Hooks{});
        ASSERT_TRUE(spool_->open(DurableSpool::Mode::on, 0));
        forwarder_ = DurableForwarder::make(*spool_, Current<Transport>::get(), host.clock, random_);
        forwarder_->start();
    }
    void end() {
        forwarder_->cancel();
        session().forget();
        EXPECT_EQ(forwarder_.use_count(), 1);
        forwarder_.reset();
        spool_->close();
    }

    // Adds full batches of three events each, numbered from `first`.
    void addBatches(int first, int count) {
        TrailPosition position = {.trail = {.device = 1, .inode = 1, .firstRecord = "first"}, .name = "trail"};
        for (int i = first * 3; i < (first + count) * 3; ++i) {
            position.offset = static_cast<std::uint64_t>(i) + 1;
            ASSERT_TRUE(spool_->accept(Dictionary{{"n", i}}, position, [] { return false; }));
        }
        ASSERT_TRUE(spool_->commitNow());
    }

    static std::string contentOf(int batch) {
        return fmt::format(R"([{{"n":{}}},{{"n":{}}},{{"n":{}}}])", batch * 3, batch * 3 + 1, batch * 3 + 2);
    }
    std::size_t filesLeft() {
        return Footprint::entriesOf(volume().eventData().c_str()) - 2;  // .journal and .position
    }

    // Answers the request with this number. Returns when the answer has been heeded.
    void answer(std::size_t number, const FakeUrlSession::Answer& answer) {
        session().answer(number, answer);
        session().settle();
    }
    // Moves the clock, and waits until that many requests have been sent.
    bool await(std::size_t requests, Clock::Duration wait = {}) {
        clock().advance(wait);
        // A timer that was set too late for the move is due.
        return eventually([&] {
            clock().advance({});
            return session().sent().size() >= requests;
        });
    }
    std::string bodyOf(std::size_t request) { return session().sent().at(request).body; }
    std::string keyOf(std::size_t request) {
        const auto headers = session().sent().at(request).request.headers;
        return headers.back().first == "Idempotency-Key" ? headers.back().second : "";
    }
    std::string addressOf(std::size_t request) {
        const auto url = session().sent().at(request).request.url;
        return url.substr(0, url.find("/api"));
    }

    // The waits of the forwarder are half of their bounds.
    FixedRandom random_;
    std::optional<DurableSpool> spool_;
    std::shared_ptr<DurableForwarder> forwarder_;
};

TEST_F(DurableForwarderTest, StatusDecidesWhatBecomesOfTheBatchAndOfTheServer) {
    enum class Outcome { delivered, divided, refused, failed };
    const auto down = FakeUrlSession::failure(UrlErrorCode::cannotConnectToHost, "Nobody there");
    const std::pair<FakeUrlSession::Answer, Outcome> cases[] = {{{200, "no json"}, Outcome::delivered},
                                                                {{413, ""}, Outcome::divided},
                                                                {{400, ""}, Outcome::refused},
                                                                {{411, ""}, Outcome::refused},
                                                                {{415, ""}, Outcome::refused},
                                                                {{422, ""}, Outcome::refused},
                                                                {{201, ""}, Outcome::failed},
                                                                {{302, ""}, Outcome::failed},
                                                                {{401, ""}, Outcome::failed},
                                                                {{404, ""}, Outcome::failed},
                                                                {{429, ""}, Outcome::failed},
                                                                {{500, ""}, Outcome::failed},
                                                                {down, Outcome::failed}};
    std::vector<std::string> failedAt;
    int batch = 0;
    std::size_t next = 0;
    for (const auto& [given, outcome] : cases) {
        SCOPED_TRACE(given.status);
        addBatches(batch, 1);
        ASSERT_TRUE(await(next + 1));
        EXPECT_EQ(bodyOf(next), contentOf(batch++)) << "at once, whatever became of the batches before";
        const auto first = next;
        answer(next++, given);
        EXPECT_EQ(TransportEngine::isConnected(), outcome != Outcome::failed);
        if (outcome == Outcome::failed) {
            ASSERT_TRUE(await(next + 1, 500ms));
            EXPECT_EQ(bodyOf(next), bodyOf(first));
            EXPECT_EQ(keyOf(next), keyOf(first));
            failedAt.push_back(addressOf(first));
            answer(next++, {});
        } else if (outcome == Outcome::divided) {
            ASSERT_TRUE(await(next + 2));
            EXPECT_EQ(bodyOf(next) + bodyOf(next + 1), R"([{"n":3}][{"n":4},{"n":5}])");
            answer(next++, {});
            answer(next++, {});
        }
    }
    const std::vector<std::string> addresses = {"http://audit.example.com:8443",
                                                "http://192.0.2.1:8443",
                                                "http://audit:8443",
                                                "https://audit.example.com:9443",
                                                "https://audit.example.com:9443",
                                                "https://192.0.2.1:9443",
                                                "https://audit:9443"};
    EXPECT_EQ(failedAt, addresses) << "each failure moves on, and nothing else does";
    std::set<std::string> keys;
    for (std::size_t i = 0; i < next; ++i) {
        keys.insert(keyOf(i));
    }
    EXPECT_EQ(keys.size(), std::size(cases) + 2) << "one per batch, and one per part";
    EXPECT_EQ(keys.count(""), 0U);
    EXPECT_TRUE(spool_->commitNow());
    EXPECT_EQ(filesLeft(), 4U) << "the refused ones";
    EXPECT_EQ(logged("http://audit.example.com:8443: answered with HTTP status 422", "Communication"), 1);
}

TEST_F(DurableForwarderTest, OutageCostsOneRequestPerWaitAndEndsWithTheFirstSuccess) {
    addBatches(0, 8);
    ASSERT_TRUE(await(6));
    for (std::size_t i = 0; i < 6; ++i) {
        answer(i, {503, ""});
    }
    ASSERT_TRUE(await(7, 500ms));
    answer(6, {500, ""});
    ASSERT_TRUE(await(8, 1s));
    EXPECT_EQ(addressOf(6), "http://192.0.2.1:8443") << "six failures at a time are one";
    EXPECT_EQ(addressOf(7), "http://audit:8443");
    answer(7, {});
    ASSERT_TRUE(await(14));
    answer(8, {});
    ASSERT_TRUE(await(15));
    forwarder_->cancel();
    ASSERT_EQ(session().sent().size(), 15U);
    const int expected[] = {0, 0, 1, 2, 3, 4, 5, 6, 7};
    for (std::size_t i = 0; i < std::size(expected); ++i) {
        EXPECT_EQ(bodyOf(6 + i), contentOf(expected[i])) << i;
    }
}

TEST_F(DurableForwarderTest, PauseThatAServerAsksForIsKeptAndASyncEndsOtherWaits) {
    // All addresses are the same one.
    end();
    for (const auto* name : {"ServerName", "ServerIP"}) {
        serverInfo.set(name, "audit.example.com");
    }
    serverInfo.set("Port", 8443);
    serverInfo.set("Protocol", "http");
    restartConfigured();
    begin();

    addBatches(0, 1);
    ASSERT_TRUE(await(1));
    answer(0, {.status = 500, .retryAfter = 600s});
    TransportEngine::setIsConnected(true);
    ASSERT_TRUE(await(2)) << "a success of another request ends the wait; no pause follows from a 500";
    answer(1, {.status = 503, .retryAfter = 600s});
    const auto asked = clock().monotonicTime();
    TransportEngine::setIsConnected(true);
    EXPECT_TRUE(clock().awaitTimerIn(600s)) << "no success ends a pause";
    EXPECT_EQ(session().sent().size(), 2U);
    ASSERT_TRUE(await(3, 600s));
    EXPECT_EQ(clock().monotonicTime() - asked, 600s);
}

TEST_F(DurableForwarderTest, StopKeepsTheKeyAndStillHeedsAnswers) {
    addBatches(0, 3);
    ASSERT_TRUE(await(3));
    forwarder_->cancel();
    EXPECT_TRUE(forwarder_->isFinished());
    answer(1, {});
    answer(2, {500, ""});
    end();
    begin();
    ASSERT_TRUE(await(5));
    const auto attempt = [this](std::size_t request) { return std::pair(keyOf(request), bodyOf(request)); };
    EXPECT_EQ((std::set{attempt(3), attempt(4)}), (std::set{attempt(0), attempt(2)}));
}

TEST_F(DurableForwarderTest, BatchOfARequestThatCannotBeginIsSentAfterAWait) {
    session().respondWith(
        [](const auto&) -> std::optional<FakeUrlSession::Answer> { throw std::runtime_error("No thread"); });
    addBatches(0, 2);
    EXPECT_TRUE(eventually([this] { return logged("was not sent; it stays in the spool") == 1; }));
    session().startAnew();
    ASSERT_TRUE(await(1, 500ms));
    EXPECT_EQ(bodyOf(0), contentOf(0));
    EXPECT_TRUE(TransportEngine::isConnected());
    EXPECT_EQ(addressOf(0), "http://audit.example.com:8443");
    answer(0, {});
    EXPECT_TRUE(await(2));
}

}  // namespace sentrova::testing
