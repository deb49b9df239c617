#include "foundation/run/Backoff.h"
#include "support/FixedRandom.h"

#include <gtest/gtest.h>

namespace sentrova::testing {
namespace {

using namespace std::chrono_literals;

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
}  // namespace sentrova::testing
