#include "foundation/run/Backoff.h"

#include <gtest/gtest.h>

namespace sentrova {
namespace {

using namespace std::chrono_literals;

// Every random number is the same.
class FixedRandom final : public Cryptography {
  public:
    CipherResult aes256(std::span<const std::uint8_t>, std::span<const std::uint8_t>, Direction) const override {
        return CipherProblem::refused;
    }
    std::array<std::uint8_t, kDigestBytes> sha256(std::span<const std::uint8_t>) const override { return {}; }
    std::optional<Data> randomBytes(std::size_t count) const override {
        Data bytes(count);
        std::memcpy(bytes.data(), &number, std::min(count, sizeof number));
        return refuses ? std::nullopt : std::optional(bytes);
    }
    std::uint64_t number = 0;
    bool refuses = false;
};

TEST(BackoffTest, WaitIsDrawnFromZeroToABoundThatDoublesUpToFiveMinutesUntilASuccess) {
    FixedRandom random;
    Backoff backoff(random);
    for (int round = 0; round < 2; ++round) {
        for (const auto bound : {1s, 2s, 4s, 8s, 16s, 32s, 64s, 128s, 256s, 300s, 300s, 300s}) {
            const auto nanoseconds = static_cast<std::uint64_t>(Clock::Duration(bound).count());
            // The longest wait of the bound.
            random.number = 5 * (nanoseconds + 1) + nanoseconds;
            EXPECT_EQ(backoff.next(), bound);
        }
        backoff.reset();
    }
    random.number = 1'000'000'001;
    EXPECT_EQ(backoff.next(), 0s);
    random.number = 7;
    EXPECT_EQ(backoff.next(), 7ns);
    random.refuses = true;
    EXPECT_EQ(backoff.next(), 2s);
}

}  // namespace
}  // namespace sentrova
