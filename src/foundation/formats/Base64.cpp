#include "foundation/formats/Base64.h"

#include <algorithm>
#include <array>

namespace sentrova {

namespace {

constexpr std::string_view kAlphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr std::uint8_t kNone = 0xFF;

// The value (0 to 63) of each character; kNone for a character outside the alphabet.
constexpr auto kDigits = [] {
    std::array<std::uint8_t, 256> digits{};
    digits.fill(kNone);
    for (std::size_t i = 0; i < kAlphabet.size(); ++i) {
        digits.at(static_cast<unsigned char>(kAlphabet[i])) = static_cast<std::uint8_t>(i);
    }
    return digits;
}();

}  // namespace

std::string toBase64(std::span<const std::uint8_t> bytes) {
    std::string text;
    text.reserve((bytes.size() + 2) / 3 * 4);
    for (std::size_t at = 0; at < bytes.size(); at += 3) {
        const auto count = std::min<std::size_t>(bytes.size() - at, 3);
        std::uint32_t bits = 0;
        for (std::size_t i = 0; i < 3; ++i) {
            bits = bits << 8U | (i < count ? bytes[at + i] : 0U);
        }
        for (std::size_t i = 0; i < 4; ++i) {
            text += i <= count ? kAlphabet[bits >> (18U - 6U * i) & 0x3FU] : '=';
        }
    }
    return text;
}

std::optional<Data> fromBase64(std::string_view text) {
    const auto digits = std::min(text.find('='), text.size());
    const auto padding = text.substr(digits);
    if (text.size() % 4 != 0 || padding.size() > 2 || padding.find_first_not_of('=') != std::string_view::npos) {
        return std::nullopt;
    }
    Data data;
    data.reserve(text.size() / 4 * 3);
    std::uint32_t bits = 0;
    unsigned count = 0;
    for (const char c : text.substr(0, digits)) {
        const auto digit = kDigits.at(static_cast<unsigned char>(c));
        if (digit == kNone) {
            return std::nullopt;
        }
        bits = bits << 6U | digit;
        count += 6;
        if (count >= 8) {
            count -= 8;
            data.push_back(static_cast<std::uint8_t>(bits >> count));
        }
    }
    return data;
}

}  // namespace sentrova
