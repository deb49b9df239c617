// The agent's cipher and hash: AES-256 in CBC mode under a pass phrase, and SHA-256.
//
// The key is the first 32 characters of the lower-case hex SHA-256 digest of the pass phrase, as bytes. The
// initialisation vector is always sixteen zero bytes, because identities that earlier agents stored must still decrypt.
// Equal texts therefore encrypt equally. Stateless; safe from any thread.

#pragma once

#include "foundation/value/Result.h"
#include "foundation/value/Value.h"

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace sentrova {

class SecurityUtil {
  public:
    SecurityUtil() = delete;

    // The error domain of a failed cipher call. The code is its status.
    static constexpr const char* kEncryptionError = "kEncryptionError";

    enum class CipherOperation : std::int32_t { encrypt = 0, decrypt = 1 };

    // A text, nothing, or a cipher error.
    using OptionalText = Result<std::optional<std::string>>;

    // Returns the encrypted text as base64, or nothing if the text or the pass phrase is absent. `withIV` is ignored.
    static OptionalText encrypt(const std::optional<std::string>& plainText, const std::optional<std::string>& withKey,
                                std::string_view withIV);

    // Returns the decrypted text. Returns nothing if an argument is absent, the text is not base64, or the result is
    // not UTF-8. A wrong pass phrase usually gives a cipher error. `withIV` is ignored.
    static OptionalText decrypt(const std::optional<std::string>& cipherText, const std::optional<std::string>& withKey,
                                std::string_view withIV);

    // The cipher itself. Returns an error if the key does not have 32 bytes. `withIV` is ignored.
    static Result<Data> doAES(std::span<const std::uint8_t> data, std::span<const std::uint8_t> withKey,
                              std::span<const std::uint8_t> withIV, CipherOperation context);

    // The lower-case hex digest of the bytes up to the first zero byte.
    static std::string sha256HashFor(std::string_view text);

    // Random bytes from the system's secure generator; nothing if it fails.
    static std::optional<Data> randomBytes(std::size_t count);
};

}  // namespace sentrova
