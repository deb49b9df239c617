#include "foundation/Text.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstdint>
#include <cstring>
#include <limits>
#include <locale>
#include <sstream>

#include <unicode/normalizer2.h>
#include <unicode/uchar.h>
#include <unicode/unistr.h>

namespace sentrova {

namespace {

constexpr std::string_view kBlanks = " \t\n\r\v\f";

struct Character {
    char32_t codePoint = 0;
    // Bytes; 0 when the text does not begin with a valid character.
    std::size_t length = 0;
};

// The first character of a text that is not empty.
Character firstCharacter(std::string_view text) {
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const auto lead = byte(0);
    if (lead < 0x80) {
        return {lead, 1};
    }
    const auto length = static_cast<std::size_t>(std::countl_one(lead));
    if (length < 2 || length > 4 || length > text.size()) {
        return {};
    }
    char32_t codePoint = lead & (0x7FU >> length);
    for (std::size_t i = 1; i < length; ++i) {
        if ((byte(i) & 0xC0) != 0x80) {
            return {};
        }
        codePoint = (codePoint << 6) | (byte(i) & 0x3FU);
    }
    // The least code point that needs as many bytes, by their number.
    constexpr std::array<char32_t, 5> kLeast = {0, 0, 0x80, 0x800, 0x10000};
    const bool surrogate = codePoint >= 0xD800 && codePoint <= 0xDFFF;
    if (codePoint < kLeast[length] || surrogate || codePoint > 0x10FFFF) {
        return {};
    }
    return {codePoint, length};
}

std::size_t asciiPrefix(std::string_view text) {
    std::size_t at = 0;
    for (std::array<std::uint64_t, 4> words{}; at + sizeof words <= text.size(); at += sizeof words) {
        std::memcpy(words.data(), text.data() + at, sizeof words);
        if (((words[0] | words[1] | words[2] | words[3]) & 0x8080808080808080U) != 0) {
            break;
        }
    }
    while (at < text.size() && static_cast<unsigned char>(text[at]) < 0x80) {
        ++at;
    }
    return at;
}

// The character without its marks: empty for a mark alone, "?" for a character that has no ASCII form.
std::string asciiForm(char32_t codePoint) {
    UErrorCode status = U_ZERO_ERROR;
    const auto* normalizer = icu::Normalizer2::getNFKDInstance(status);
    if (U_FAILURE(status)) {
        return "?";
    }
    const auto parts = normalizer->normalize(icu::UnicodeString(static_cast<UChar32>(codePoint)), status);
    std::string form;
    for (std::int32_t i = 0; i < parts.length(); i = parts.moveIndex32(i, 1)) {
        const auto part = parts.char32At(i);
        if ((U_GET_GC_MASK(part) & (U_GC_MN_MASK | U_GC_ME_MASK)) != 0) {
            continue;
        }
        // The two that end or escape a quoted text: the wide forms of them must not turn into syntax.
        if (part >= 0x80 || part == '"' || part == '\\') {
            return "?";
        }
        form += static_cast<char>(part);
    }
    return form;
}

std::size_t digitsAt(std::string_view text, std::size_t at) {
    const auto rest = text.substr(at);
    return std::min(rest.find_first_not_of("0123456789"), rest.size());
}

// How many characters at the start of the text make up a decimal real number; 0 when they make none.
std::size_t realLength(std::string_view text) {
    std::size_t at = text.starts_with('-') || text.starts_with('+') ? 1 : 0;
    const auto whole = digitsAt(text, at);
    at += whole;
    std::size_t fraction = 0;
    if (at < text.size() && text[at] == '.') {
        fraction = digitsAt(text, at + 1);
        at += whole + fraction > 0 ? 1 + fraction : 0;
    }
    if (whole + fraction == 0) {
        return 0;
    }
    if (at < text.size() && (text[at] == 'e' || text[at] == 'E')) {
        auto exponent = at + 1;
        if (exponent < text.size() && (text[exponent] == '-' || text[exponent] == '+')) {
            ++exponent;
        }
        if (const auto digits = digitsAt(text, exponent); digits > 0) {
            at = exponent + digits;
        }
    }
    return at;
}

// The value of a text that is a decimal real number.
double realValue(std::string_view text) {
    std::istringstream stream{std::string(text)};
    stream.imbue(std::locale::classic());
    double value = 0;
    stream >> value;
    // Libraries differ in what they leave behind for a number out of range, but not in its sign.
    constexpr auto kLargest = std::numeric_limits<double>::max();
    if (stream.fail() && value >= kLargest) {
        return std::numeric_limits<double>::infinity();
    }
    if (stream.fail() && value <= -kLargest) {
        return -std::numeric_limits<double>::infinity();
    }
    return value;
}

}  // namespace

bool isValidUtf8(std::string_view text) {
    for (text.remove_prefix(asciiPrefix(text)); !text.empty(); text.remove_prefix(asciiPrefix(text))) {
        const auto length = firstCharacter(text).length;
        if (length == 0) {
            return false;
        }
        text.remove_prefix(length);
    }
    return true;
}

bool isAscii(std::string_view text) {
    return asciiPrefix(text) == text.size();
}

std::u16string utf16(std::string_view text) {
    std::u16string result;
    result.reserve(text.size());
    while (!text.empty()) {
        const auto [codePoint, length] = firstCharacter(text);
        text.remove_prefix(std::max<std::size_t>(length, 1));
        if (length == 0) {
            result += u'\xFFFD';
        } else if (codePoint < 0x10000) {
            result += static_cast<char16_t>(codePoint);
        } else {
            result += static_cast<char16_t>(0xD7C0 + (codePoint >> 10));
            result += static_cast<char16_t>(0xDC00 + (codePoint & 0x3FF));
        }
    }
    return result;
}

std::optional<std::string> utf8(std::u16string_view text) {
    std::string result;
    result.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        char32_t codePoint = text[i];
        if ((codePoint & 0xFC00) == 0xD800 && i + 1 < text.size() && (text[i + 1] & 0xFC00) == 0xDC00) {
            ++i;
            codePoint = 0x10000 + ((codePoint & 0x3FF) << 10) + (text[i] & 0x3FFU);
        } else if ((codePoint & 0xF800) == 0xD800) {
            return std::nullopt;
        }
        appendUtf8(codePoint, result);
    }
    return result;
}

void appendUtf8(char32_t character, std::string& text) {
    const auto continuation = [&](unsigned shift) {
        text += static_cast<char>(0x80U | ((character >> shift) & 0x3FU));
    };
    if (character < 0x80) {
        text += static_cast<char>(character);
    } else if (character < 0x800) {
        text += static_cast<char>(0xC0U | (character >> 6));
        continuation(0);
    } else if (character < 0x10000) {
        text += static_cast<char>(0xE0U | (character >> 12));
        continuation(6);
        continuation(0);
    } else {
        text += static_cast<char>(0xF0U | (character >> 18));
        continuation(12);
        continuation(6);
        continuation(0);
    }
}

std::string asciiLossy(std::string_view text) {
    std::string result;
    result.reserve(text.size());
    while (true) {
        const auto ascii = asciiPrefix(text);
        result.append(text.substr(0, ascii));
        text.remove_prefix(ascii);
        if (text.empty()) {
            return result;
        }
        const auto [codePoint, length] = firstCharacter(text);
        result += length == 0 ? "?" : asciiForm(codePoint);
        text.remove_prefix(std::max<std::size_t>(length, 1));
    }
}

double leadingReal(std::string_view text) {
    text.remove_prefix(std::min(text.find_first_not_of(kBlanks), text.size()));
    const auto length = realLength(text);
    return length == 0 ? 0 : realValue(text.substr(0, length));
}

std::optional<double> wholeReal(std::string_view text) {
    const auto length = realLength(text);
    return length == 0 || length != text.size() ? std::nullopt : std::optional(realValue(text));
}

}  // namespace sentrova
