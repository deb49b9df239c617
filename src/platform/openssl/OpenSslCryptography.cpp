#include "platform/openssl/OpenSslCryptography.h"

#include <limits>

#include <openssl/evp.h>
#include <openssl/rand.h>

namespace sentrova::platform {

namespace {

class OpenSslCryptography final : public Cryptography {
  public:
    CipherResult aes256(std::span<const std::uint8_t> bytes, std::span<const std::uint8_t> key,
                        Direction direction) const override {
        static constexpr std::array<std::uint8_t, kBlockBytes> kZeroVector{};
        // The library counts in int, and may write one block more than its input.
        constexpr auto kMostBytes = static_cast<std::size_t>(std::numeric_limits<int>::max()) - kBlockBytes;
        const std::unique_ptr<EVP_CIPHER_CTX, decltype(&EVP_CIPHER_CTX_free)> cipher(EVP_CIPHER_CTX_new(),
                                                                                     &EVP_CIPHER_CTX_free);
        if (!cipher || key.size() != kKeyBytes || bytes.size() > kMostBytes) {
            return CipherProblem::refused;
        }
        Data output(bytes.size() + kBlockBytes);
        int written = 0;
        const int encrypts = direction == Direction::encrypt ? 1 : 0;
        if (EVP_CipherInit_ex(cipher.get(), EVP_aes_256_cbc(), nullptr, key.data(), kZeroVector.data(), encrypts) !=
                1 ||
            EVP_CipherUpdate(cipher.get(), output.data(), &written, bytes.data(), static_cast<int>(bytes.size())) !=
                1) {
            return CipherProblem::refused;
        }
        int last = 0;
        if (EVP_CipherFinal_ex(cipher.get(), output.data() + written, &last) != 1) {
            return CipherProblem::padding;
        }
        output.resize(static_cast<std::size_t>(written) + static_cast<std::size_t>(last));
        return output;
    }

    std::array<std::uint8_t, kDigestBytes> sha256(std::span<const std::uint8_t> bytes) const override {
        std::array<std::uint8_t, kDigestBytes> digest{};
        EVP_Digest(bytes.data(), bytes.size(), digest.data(), nullptr, EVP_sha256(), nullptr);
        return digest;
    }

    std::optional<Data> randomBytes(std::size_t count) const override {
        Data bytes(count);
        return RAND_bytes(bytes.data(), static_cast<int>(count)) == 1 ? std::optional(std::move(bytes)) : std::nullopt;
    }
};

}  // namespace

std::unique_ptr<Cryptography> makeOpenSslCryptography() {
    return std::make_unique<OpenSslCryptography>();
}

}  // namespace sentrova::platform
