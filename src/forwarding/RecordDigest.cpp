#include "forwarding/RecordDigest.h"

#include <fmt/format.h>

namespace sentrova {

std::string digestOf(std::span<const std::uint8_t> bytes, const Cryptography& cryptography) {
    constexpr std::size_t kBytes = 8;
    const auto digest = cryptography.sha256(bytes);
    std::string text;
    for (const auto byte : std::span(digest).first<kBytes>()) {
        fmt::format_to(std::back_inserter(text), "{:02x}", byte);
    }
    return text;
}

std::string digestOf(std::string_view text, const Cryptography& cryptography) {
    return digestOf(std::span(reinterpret_cast<const std::uint8_t*>(text.data()), text.size()), cryptography);
}

}  // namespace sentrova
