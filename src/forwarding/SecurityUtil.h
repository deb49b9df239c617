// The agent's one cipher and hash: texts encrypted with AES-256 in CBC mode under a pass phrase, and SHA-256.
//
// The key is the first 32 characters of the lower-case hex SHA-256 digest of the pass phrase, as bytes. The vector is
// always sixteen zero bytes, so that equal texts encrypt equally and what earlier agents stored still decrypts.
// No state; safe from any thread.

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

    // The domain of a failed cipher call; the code is its status.
    static constexpr const char* kEncryptionError = "kEncryptionError";

    enum class CipherOperation : std::int32_t { encrypt = 0, decrypt = 1 };

    // A text, nothing, or the error of the cipher.
    using OptionalText = Result<std::optional<std::string>>;

    // The base64 text of the encrypted plain text. Nothing for an absent text or pass phrase. The vector is accepted
    // and not used.
    static OptionalText encrypt(const std::optional<std::string>& plainText, const std::optional<std::string>& withKey,
                                std::string_view withIV);

    // The plain text of a base64 text. Nothing for an absent argument, for what is not base64 and for what does not
    // decrypt to UTF-8; a wrong pass phrase mostly gives the cipher's error. The vector is accepted and not used.
    static OptionalText decrypt(const std::optional<std::string>& cipherText, const std::optional<std::string>& withKey,
                                std::string_view withIV);

    static Result<Data> doAES(std::span<const std::uint8_t> data, std::span<const std::uint8_t> withKey,
                              std::span<const std::uint8_t> withIV, CipherOperation context);

    // The digest, in lower-case hex, of the text's bytes up to the first zero byte.
    static std::string sha256HashFor(std::string_view text);

    // Bytes from the system's secure generator; nothing when it fails.
    static std::optional<Data> randomBytes(std::size_t count);
};

}  // namespace sentrova
