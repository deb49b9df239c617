// The waits between attempts at something that keeps failing.

#pragma once

#include "foundation/run/Clock.h"
#include "foundation/value/Cryptography.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstring>

namespace sentrova {

// Exponential backoff with full jitter: each wait is drawn evenly from 0 to a bound, which doubles with each wait up to
// the longest bound. The jitter keeps many agents from returning to a recovered server all at once. Not safe from
// several threads.
class Backoff {
  public:
    static constexpr Clock::Duration kFirstBound = std::chrono::seconds(1);
    static constexpr Clock::Duration kLongestBound = std::chrono::minutes(5);

    // Draws from the secure random generator, which must outlive the object.
    explicit Backoff(const Cryptography& cryptography) : cryptography_(cryptography) {}

    // Returns the wait before the next attempt, after a failed one. Without random bytes it is half of the bound.
    Clock::Duration next() {
        const auto bound = bound_;
        bound_ = std::min(2 * bound_, kLongestBound);
        const auto bytes = cryptography_.randomBytes(sizeof(std::uint64_t));
        if (!bytes) {
            return bound / 2;
        }
        std::uint64_t number = 0;
        std::memcpy(&number, bytes->data(), sizeof number);
        return Clock::Duration(number % static_cast<std::uint64_t>(bound.count() + 1));
    }
    // Call it after a success: the first bound holds again.
    void reset() { bound_ = kFirstBound; }

  private:
    const Cryptography& cryptography_;
    Clock::Duration bound_ = kFirstBound;
};

}  // namespace sentrova
