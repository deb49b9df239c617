#include "foundation/value/Text.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstring>
#include <iterator>

#include <fast_float/fast_float.h>
#include <utf8.h>

namespace sentrova {

namespace {

constexpr std::string_view kBlanks = " \t\n\r\v\f";

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

std::size_t digitsAt(std::string_view text, std::size_t at) {
    const auto rest = text.substr(at);
    return std::min(rest.find_first_not_of("0123456789"), rest.size());
}

// The length of the decimal real number at the start of the text; 0 if there is none.
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

// The text must be a decimal real number.
double realValue(std::string_view text) {
    // The library refuses a plus sign.
    text.remove_prefix(text.starts_with('+') ? 1 : 0);
    double value = 0;
    fast_float::from_chars(text.data(), text.data() + text.size(), value);
    return value;
}

// Removes the valid UTF-8 at the start of the text and returns it.
std::string_view takeValid(std::string_view& text) {
    auto length = asciiPrefix(text);
    const auto rest = text.substr(length);
    length += static_cast<std::size_t>(utf8::find_invalid(rest.begin(), rest.end()) - rest.begin());
    const auto valid = text.substr(0, length);
    text.remove_prefix(length);
    return valid;
}

}  // namespace

bool isValidUtf8(std::string_view text) {
    takeValid(text);
    return text.empty();
}

bool isAscii(std::string_view text) {
    return asciiPrefix(text) == text.size();
}

std::u16string utf16(std::string_view text) {
    std::u16string result;
    result.reserve(text.size());
    while (!text.empty()) {
        const auto valid = takeValid(text);
        ::utf8::unchecked::utf8to16(valid.begin(), valid.end(), std::back_inserter(result));
        if (!text.empty()) {
            result += u'\xFFFD';
            text.remove_prefix(1);
        }
    }
    return result;
}

std::optional<std::string> utf8(std::u16string_view text) {
    std::string result;
    result.reserve(text.size());
    try {
        ::utf8::utf16to8(text.begin(), text.end(), std::back_inserter(result));
    } catch (const ::utf8::exception&) {
        return std::nullopt;
    }
    return result;
}

void appendUtf8(char32_t character, std::string& text) {
    ::utf8::unchecked::append(character, std::back_inserter(text));
}

std::string asciiLossy(std::string_view text, const Encodings& encodings) {
    std::string result;
    result.reserve(text.size());
    while (!text.empty()) {
        for (auto valid = takeValid(text); !valid.empty();) {
            const auto ascii = asciiPrefix(valid);
            result.append(valid.substr(0, ascii));
            valid.remove_prefix(ascii);
            if (!valid.empty()) {
                const auto* at = valid.data();
                result += encodings.asciiForm(::utf8::unchecked::next(at));
                valid.remove_prefix(static_cast<std::size_t>(at - valid.data()));
            }
        }
        if (!text.empty()) {
            result += '?';
            text.remove_prefix(1);
        }
    }
    return result;
}

std::string excerpt(std::string_view text, std::size_t mostBytes) {
    text = text.substr(0, mostBytes);
    std::string result;
    while (!text.empty()) {
        result += takeValid(text);
        if (!text.empty()) {
            result += '?';
            text.remove_prefix(1);
        }
    }
    return result;
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
