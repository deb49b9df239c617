#include "foundation/formats/XmlEncoding.h"

#include "foundation/formats/FormatError.h"
#include "foundation/value/Text.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstddef>
#include <iterator>
#include <string_view>

#include <fmt/format.h>
#include <utf8.h>

namespace sentrova {

namespace {

constexpr std::string_view kUtf8 = "UTF-8";

struct Encoding {
    std::string name;
    std::size_t markLength = 0;
};

// UTF-32 comes first, because its little-endian mark begins with the mark of UTF-16.
std::optional<Encoding> encodingByFirstBytes(std::string_view bytes) {
    using namespace std::string_view_literals;
    struct Evidence {
        std::string_view first;
        std::string_view encoding;
        bool isMark;
    };
    static constexpr std::array<Evidence, 9> kEvidence = {{
        {"\0\0\xFE\xFF"sv, "UTF-32BE", true},
        {"\xFF\xFE\0\0"sv, "UTF-32LE", true},
        {"\xEF\xBB\xBF"sv, kUtf8, true},
        {"\xFE\xFF"sv, "UTF-16BE", true},
        {"\xFF\xFE"sv, "UTF-16LE", true},
        {"\0\0\0<"sv, "UTF-32BE", false},
        {"<\0\0\0"sv, "UTF-32LE", false},
        {"\0<"sv, "UTF-16BE", false},
        {"<\0"sv, "UTF-16LE", false},
    }};
    const auto* found =
        std::ranges::find_if(kEvidence, [&](const auto& evidence) { return bytes.starts_with(evidence.first); });
    if (found == kEvidence.end()) {
        return std::nullopt;
    }
    return Encoding{std::string(found->encoding), found->isMark ? found->first.size() : 0};
}

// The value of the "encoding" attribute in the XML declaration.
std::optional<std::string> declaredEncoding(std::string_view bytes) {
    constexpr std::string_view kBlanks = " \t\r\n";
    constexpr std::string_view kAttribute = "encoding";
    if (!bytes.starts_with("<?xml")) {
        return std::nullopt;
    }
    auto rest = bytes.substr(0, bytes.find("?>"));
    const auto skipTo = [&rest](std::size_t at) { rest.remove_prefix(std::min(at, rest.size())); };
    skipTo(rest.find(kAttribute));
    skipTo(kAttribute.size());
    skipTo(rest.find_first_not_of(kBlanks));
    if (!rest.starts_with('=')) {
        return std::nullopt;
    }
    skipTo(1);
    skipTo(rest.find_first_not_of(kBlanks));
    if (!rest.starts_with('"') && !rest.starts_with('\'')) {
        return std::nullopt;
    }
    const auto end = rest.find(rest.front(), 1);
    return end == std::string_view::npos ? std::nullopt : std::optional(std::string(rest.substr(1, end - 1)));
}

// The name in lower case and without punctuation, for comparing names of encodings.
std::string bareName(std::string_view name) {
    std::string bare;
    for (const char c : name) {
        if (std::isalnum(static_cast<unsigned char>(c)) != 0) {
            bare += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        }
    }
    return bare;
}

// The bytes as numbers of sizeof(Unit) bytes each.
template <class Unit>
std::basic_string<Unit> units(std::string_view bytes, bool isLittleEndian) {
    std::basic_string<Unit> result;
    result.reserve(bytes.size() / sizeof(Unit));
    for (std::size_t at = 0; at + sizeof(Unit) <= bytes.size(); at += sizeof(Unit)) {
        std::uint32_t unit = 0;
        for (std::size_t i = 0; i < sizeof(Unit); ++i) {
            const auto place = isLittleEndian ? sizeof(Unit) - 1 - i : i;
            unit = unit << 8U | static_cast<unsigned char>(bytes[at + place]);
        }
        result += static_cast<Unit>(unit);
    }
    return result;
}

// Converts UTF-16 or UTF-32. The result ends before the first invalid unit.
XmlText decodeUnicode(std::string_view bytes, const std::string& encoding) {
    const bool isLittleEndian = encoding.ends_with("LE");
    XmlText result;
    const auto target = std::back_inserter(result.text);
    try {
        if (encoding.starts_with("UTF-16")) {
            const auto text = units<char16_t>(bytes, isLittleEndian);
            utf8::utf16to8(text.begin(), text.end(), target);
        } else {
            const auto text = units<char32_t>(bytes, isLittleEndian);
            utf8::utf32to8(text.begin(), text.end(), target);
        }
    } catch (const utf8::exception&) {
        result.brokenEncoding = encoding;
    }
    const std::size_t width = encoding.starts_with("UTF-16") ? 2 : 4;
    if (bytes.size() % width != 0) {
        result.brokenEncoding = encoding;
    }
    return result;
}

[[noreturn]] void refuseUnknown(const std::string& encoding) {
    throw FormatError(fmt::format("Not a property list: unknown encoding \"{}\"", excerpt(encoding)));
}

XmlText converted(std::string_view bytes, const std::string& encoding, const Encodings* encodings) {
    const auto bare = bareName(encoding);
    const auto shortest = bare.starts_with("utf16") || bare.starts_with("utf32") ? std::optional<std::size_t>(2)
                          : encodings ? encodings->shortestCharacter(encoding)
                                      : std::nullopt;
    if (!shortest) {
        refuseUnknown(encoding);
    }
    if (*shortest > 1) {
        throw FormatError(
            fmt::format("Not a property list: it declares {}, but is encoded differently", excerpt(encoding)));
    }
    auto decoded = encodings->decode(bytes, encoding);
    if (!decoded) {
        refuseUnknown(encoding);
    }
    return {std::move(decoded->text), decoded->isWhole ? std::nullopt : std::optional(encoding)};
}

}  // namespace

XmlText decodeXml(std::span<const std::uint8_t> bytes, const Encodings* encodings) {
    std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    if (const auto evident = encodingByFirstBytes(text)) {
        text.remove_prefix(evident->markLength);
        return evident->name == kUtf8 ? XmlText{std::string(text), std::nullopt} : decodeUnicode(text, evident->name);
    }
    const auto declared = declaredEncoding(text).value_or(std::string(kUtf8));
    // ASCII text is valid UTF-8.
    if (const auto bare = bareName(declared); bare == "utf8" || bare == "usascii") {
        return {std::string(text), std::nullopt};
    }
    return converted(text, declared, encodings);
}

}  // namespace sentrova
