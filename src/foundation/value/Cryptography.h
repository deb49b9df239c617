// Cipher, digest and random bytes, provided by a library of the host.

#pragma once

#include "foundation/value/Value.h"

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <variant>

namespace sentrova {

// Safe from any thread. Published as the Current one by the agent.
class Cryptography {
  public:
    static constexpr std::size_t kKeyBytes = 32;
    static constexpr std::size_t kBlockBytes = 16;
    static constexpr std::size_t kDigestBytes = 32;

    enum class Direction { encrypt, decrypt };
    // `refused`: the library refused the call. `padding`: the decrypted bytes do not end with valid padding.
    enum class CipherProblem { refused, padding };
    using CipherResult = std::variant<Data, CipherProblem>;

    virtual ~Cryptography() = default;

    // AES-256 in CBC mode with PKCS #7 padding and an initialisation vector of zero bytes. The key has kKeyBytes. Bytes
    // to decrypt must be whole blocks.
    virtual CipherResult aes256(std::span<const std::uint8_t> bytes, std::span<const std::uint8_t> key,
                                Direction direction) const = 0;

    virtual std::array<std::uint8_t, kDigestBytes> sha256(std::span<const std::uint8_t> bytes) const = 0;

    // From the secure random generator. Absent if it fails.
    virtual std::optional<Data> randomBytes(std::size_t count) const = 0;

  protected:
    Cryptography() = default;
    Cryptography(const Cryptography&) = default;
    Cryptography& operator=(const Cryptography&) = default;
};

}  // namespace sentrova
