#include "forwarding/SecurityUtil.h"

#include "foundation/formats/Base64.h"
#include "foundation/run/Current.h"
#include "foundation/value/Cryptography.h"
#include "foundation/value/Text.h"

#include <iterator>
#include <limits>
#include <variant>

#include <fmt/format.h>

namespace sentrova {

namespace {

constexpr auto kKeyBytes = Cryptography::kKeyBytes;
constexpr auto kBlockBytes = Cryptography::kBlockBytes;

// The status codes of the platform's cipher call.
enum class CipherStatus : std::int64_t {
    paramError = -4300,
    alignmentError = -4303,
    decodeError = -4304,
    unspecifiedError = -4308,
    keySizeError = -4310,
};

Error failed(CipherStatus status) {
    const auto code = static_cast<std::int64_t>(status);
    // The platform's text for an error that has only a domain and a code.
    return {SecurityUtil::kEncryptionError, code,
            fmt::format("The operation couldn’t be completed. ({} error {}.)", SecurityUtil::kEncryptionError, code)};
}

Data keyFrom(std::string_view passPhrase) {
    const auto digest = SecurityUtil::sha256HashFor(passPhrase);
    return {digest.begin(), digest.begin() + kKeyBytes};
}

std::span<const std::uint8_t> bytesOf(std::string_view text) {
    return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

}  // namespace

SecurityUtil::OptionalText SecurityUtil::encrypt(const std::optional<std::string>& plainText,
                                                 const std::optional<std::string>& withKey, std::string_view withIV) {
    if (!plainText || !withKey) {
        return std::optional<std::string>();
    }
    const auto cipher = doAES(bytesOf(*plainText), keyFrom(*withKey), bytesOf(withIV), CipherOperation::encrypt);
    if (!cipher) {
        return cipher.error();
    }
    return std::optional(toBase64(*cipher));
}

SecurityUtil::OptionalText SecurityUtil::decrypt(const std::optional<std::string>& cipherText,
                                                 const std::optional<std::string>& withKey, std::string_view withIV) {
    const auto cipher = cipherText ? fromBase64(*cipherText) : std::nullopt;
    if (!cipher || !withKey) {
        return std::optional<std::string>();
    }
    const auto plain = doAES(*cipher, keyFrom(*withKey), bytesOf(withIV), CipherOperation::decrypt);
    if (!plain) {
        return plain.error();
    }
    std::string text(plain->begin(), plain->end());
    return isValidUtf8(text) ? std::optional(std::move(text)) : std::nullopt;
}

Result<Data> SecurityUtil::doAES(std::span<const std::uint8_t> data, std::span<const std::uint8_t> withKey,
                                 std::span<const std::uint8_t> /*withIV*/, CipherOperation context) {
    const bool encrypts = context == CipherOperation::encrypt;
    if (withKey.size() != kKeyBytes) {
        return failed(CipherStatus::keySizeError);
    }
    if (data.size() > static_cast<std::size_t>(std::numeric_limits<int>::max()) - kBlockBytes) {
        return failed(CipherStatus::paramError);
    }
    if (!encrypts && data.size() % kBlockBytes != 0) {
        return failed(CipherStatus::alignmentError);
    }
    const auto direction = encrypts ? Cryptography::Direction::encrypt : Cryptography::Direction::decrypt;
    auto result = Current<Cryptography>::get().aes256(data, withKey, direction);
    if (const auto* problem = std::get_if<Cryptography::CipherProblem>(&result)) {
        return failed(*problem == Cryptography::CipherProblem::padding ? CipherStatus::decodeError
                                                                       : CipherStatus::unspecifiedError);
    }
    return std::get<Data>(std::move(result));
}

std::string SecurityUtil::sha256HashFor(std::string_view text) {
    text = text.substr(0, text.find('\0'));
    std::string hex;
    for (const auto byte : Current<Cryptography>::get().sha256(bytesOf(text))) {
        fmt::format_to(std::back_inserter(hex), "{:02x}", byte);
    }
    return hex;
}

std::optional<Data> SecurityUtil::randomBytes(std::size_t count) {
    return Current<Cryptography>::get().randomBytes(count);
}

}  // namespace sentrova
