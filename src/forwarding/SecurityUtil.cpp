#include "forwarding/SecurityUtil.h"

#include "foundation/Text.h"

#include <array>
#include <limits>
#include <memory>

#include <fmt/format.h>
#include <openssl/evp.h>
#include <openssl/rand.h>

namespace sentrova {

namespace {

constexpr std::size_t kKeyBytes = 32;
constexpr std::size_t kBlockBytes = 16;

// The statuses of the platform's cipher call.
enum class CipherStatus : std::int64_t {
    paramError = -4300,
    alignmentError = -4303,
    decodeError = -4304,
    unspecifiedError = -4308,
    keySizeError = -4310,
};

Error failed(CipherStatus status) {
    const auto code = static_cast<std::int64_t>(status);
    // The text that the platform gives to an error that carries nothing but domain and code.
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

std::string toBase64(const Data& data) {
    std::string text(4 * ((data.size() + 2) / 3) + 1, '\0');
    const int length =
        EVP_EncodeBlock(reinterpret_cast<unsigned char*>(text.data()), data.data(), static_cast<int>(data.size()));
    text.resize(static_cast<std::size_t>(length));
    return text;
}

std::optional<Data> fromBase64(std::string_view text) {
    static constexpr std::string_view kAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    const auto firstPad = std::min(text.find('='), text.size());
    const auto padding = text.size() - firstPad;
    if (text.size() % 4 != 0 || padding > 2 || text.substr(firstPad).find_first_not_of('=') != std::string_view::npos) {
        return std::nullopt;
    }
    Data data;
    data.reserve(text.size() / 4 * 3);
    std::uint32_t bits = 0;
    int count = 0;
    for (const char c : text.substr(0, firstPad)) {
        const auto digit = kAlphabet.find(c);
        if (digit == std::string_view::npos) {
            return std::nullopt;
        }
        bits = (bits << 6U) | static_cast<std::uint32_t>(digit);
        count += 6;
        if (count >= 8) {
            count -= 8;
            data.push_back(static_cast<std::uint8_t>(bits >> static_cast<unsigned>(count)));
        }
    }
    return data;
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
    const int encrypts = context == CipherOperation::encrypt ? 1 : 0;
    if (withKey.size() != kKeyBytes) {
        return failed(CipherStatus::keySizeError);
    }
    if (data.size() > static_cast<std::size_t>(std::numeric_limits<int>::max()) - kBlockBytes) {
        return failed(CipherStatus::paramError);
    }
    if (encrypts == 0 && data.size() % kBlockBytes != 0) {
        return failed(CipherStatus::alignmentError);
    }
    const std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> cipher(EVP_CIPHER_CTX_new(),
                                                                                 &EVP_CIPHER_CTX_free);
    static constexpr std::array<std::uint8_t, kBlockBytes> kZeroVector{};
    Data output(data.size() + kBlockBytes);
    int written = 0;
    if (!cipher ||
        EVP_CipherInit_ex(cipher.get(), EVP_aes_256_cbc(), nullptr, withKey.data(), kZeroVector.data(), encrypts) !=
            1 ||
        EVP_CipherUpdate(cipher.get(), output.data(), &written, data.data(), static_cast<int>(data.size())) != 1) {
        return failed(CipherStatus::unspecifiedError);
    }
    int last = 0;
    if (EVP_CipherFinal_ex(cipher.get(), output.data() + written, &last) != 1) {
        return failed(CipherStatus::decodeError);
    }
    output.resize(static_cast<std::size_t>(written) + static_cast<std::size_t>(last));
    return output;
}

std::string SecurityUtil::sha256HashFor(std::string_view text) {
    text = text.substr(0, text.find('\0'));
    std::array<std::uint8_t, EVP_MAX_MD_SIZE> digest{};
    unsigned int length = 0;
    EVP_Digest(text.data(), text.size(), digest.data(), &length, EVP_sha256(), nullptr);
    std::string hex;
    hex.reserve(2 * std::size_t{length});
    for (unsigned int i = 0; i < length; ++i) {
        fmt::format_to(std::back_inserter(hex), "{:02x}", digest.at(i));
    }
    return hex;
}

std::optional<Data> SecurityUtil::randomBytes(std::size_t count) {
    Data bytes(count);
    return RAND_bytes(bytes.data(), static_cast<int>(count)) == 1 ? std::optional(std::move(bytes)) : std::nullopt;
}

}  // namespace sentrova
