// A library for cryptography whose random numbers are all the same, or refused.

#pragma once

#include "foundation/value/Cryptography.h"

#include <algorithm>
#include <cstring>

namespace sentrova::testing {

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
    // Each wait of a Backoff is half of its bound then.
    bool refuses = false;
};

}  // namespace sentrova::testing
