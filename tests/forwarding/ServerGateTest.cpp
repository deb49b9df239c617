#include "forwarding/ServerGate.h"
#include "forwarding/Transport.h"
#include "foundation/run/Current.h"
#include "support/AgentFixture.h"
#include "support/FixedRandom.h"

#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace sentrova::testing {

namespace {
using namespace std::chrono_literals;
}  // namespace

// Without a relay and beginning at the gateway. Of the twelve addresses six are different.
class ServerGateTest : public ::testing::Test, protected AgentFixture {
  protected:
    // Each wait is half of its bound.
    ServerGateTest() { random_.refuses = true; }

    // One failed delivery, as the forwarder handles it. Returns the wait after it.
    Clock::Duration fail(std::optional<std::chrono::seconds> retryAfter = {}) {
        const auto pass = gate_.enter(now_);
        EXPECT_TRUE(pass && gate_.failed(*pass, retryAfter, now_));
        tried_.push_back(std::to_string(pass->address.port) + " " + pass->address.host);
        addresses_.next();
        EXPECT_FALSE(gate_.enter(now_));
        return gate_.opensAt().value_or(Clock::Monotonic::max()) - now_;
    }
    AddressChoice& addresses_ = Current<Transport>::get().addresses();
    FixedRandom random_;
    ServerGate gate_{addresses_, random_};
    Clock::Monotonic now_{1h};
    std::vector<std::string> tried_;
};

TEST_F(ServerGateTest, WaitsDoubleUntilASuccessAndOneDeliveryProbesAfterEach) {
    for (const auto wait : {500ms, 1000ms, 2000ms, 4000ms, 8000ms, 16000ms, 32000ms, 64000ms, 128000ms, 150000ms}) {
        ASSERT_EQ(fail(), wait);
        EXPECT_FALSE(gate_.enter(now_ + wait - 1ns));
        now_ += wait;
        const auto probe = gate_.enter(now_);
        ASSERT_TRUE(probe);
        EXPECT_FALSE(gate_.enter(now_ + 1h)) << "a second delivery before the outcome of the first";
        EXPECT_EQ(gate_.opensAt(), std::nullopt);
        gate_.leave(*probe);
    }
    const auto probe = gate_.enter(now_);
    gate_.answered(*probe);
    EXPECT_TRUE(gate_.enter(now_) && gate_.enter(now_)) << "the others follow";
    EXPECT_EQ(fail(), 150s) << "a refused batch is no success";
    gate_.succeeded();
    EXPECT_TRUE(gate_.enter(now_) && gate_.enter(now_)) << "a success ends the wait";
    EXPECT_EQ(fail(), 500ms);
}

TEST_F(ServerGateTest, DeliveriesThatFailTogetherCountAsOneFailure) {
    const auto first = gate_.enter(now_);
    const auto second = gate_.enter(now_);
    const auto third = gate_.enter(now_);
    EXPECT_TRUE(gate_.failed(*first, {}, now_));
    EXPECT_FALSE(gate_.failed(*second, {}, now_ + 400ms));
    EXPECT_EQ(gate_.opensAt(), now_ + 500ms);
    now_ += 500ms;
    const auto probe = gate_.enter(now_);
    EXPECT_FALSE(gate_.failed(*third, {}, now_)) << "a late one does not stand for the probe";
    gate_.answered(*third);
    EXPECT_FALSE(gate_.enter(now_));
    EXPECT_TRUE(gate_.failed(*probe, {}, now_));
    EXPECT_EQ(gate_.opensAt(), now_ + 1s);
}

TEST_F(ServerGateTest, AddressThatAskedForAPauseIsSkippedUntilItsEnd) {
    for (const auto pause : {600s, 500s, 86400s, 700s, 800s, 900s}) {
        fail(pause);
        gate_.succeeded();
    }
    EXPECT_EQ(tried_, (std::vector<std::string>{"8443 audit.example.com", "8443 192.0.2.1", "8443 audit",
                                                "9443 audit.example.com", "9443 192.0.2.1", "9443 audit"}));
    EXPECT_FALSE(gate_.enter(now_)) << "a success does not end the pauses";
    EXPECT_EQ(gate_.opensAt(), now_ + 500s);
    EXPECT_FALSE(gate_.enter(now_ + 500s - 1ns));
    EXPECT_EQ(gate_.enter(now_ + 500s)->address.host, "192.0.2.1");
    // The pause of a day ends after an hour.
    now_ += 1h;
    tried_.clear();
    for (int i = 0; i < 12; ++i) {
        fail(0s);
        gate_.succeeded();
    }
    EXPECT_EQ(std::ranges::count(tried_, "8443 audit"), 2);
}

}  // namespace sentrova::testing
