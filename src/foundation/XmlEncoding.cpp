#include "foundation/XmlEncoding.h"

#include "foundation/FormatError.h"
#include "foundation/Text.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <memory>
#include <string_view>

#include <fmt/format.h>
#include <unicode/ucnv.h>

namespace sentrova {

namespace {

constexpr std::string_view kUtf8 = "UTF-8";

struct Encoding {
    std::string name;
    std::size_t markLength = 0;
    // The first bytes show that characters have more than one byte, or may have.
    bool mayBeWide = false;
};

// UTF-32 first: its little-endian mark begins with that of UTF-16.
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
    return Encoding{std::string(found->encoding), found->isMark ? found->first.size() : 0, true};
}

// The value of the attribute "encoding" of the XML declaration.
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

struct CloseConverter {
    void operator()(UConverter* converter) const { ucnv_close(converter); }
};
using Converter = std::unique_ptr<UConverter, CloseConverter>;

Converter openConverter(const std::string& encoding) {
    UErrorCode status = U_ZERO_ERROR;
    // An empty name means the host's default encoding to the library.
    Converter converter(encoding.empty() ? nullptr : ucnv_open(encoding.c_str(), &status));
    if (!converter || U_FAILURE(status)) {
        constexpr std::size_t kLongestName = 100;
        throw FormatError(
            fmt::format("Not a property list: unknown encoding \"{}\"", asciiLossy(encoding.substr(0, kLongestName))));
    }
    ucnv_setToUCallBack(converter.get(), UCNV_TO_U_CALLBACK_STOP, nullptr, nullptr, nullptr, &status);
    return converter;
}

XmlText converted(std::string_view bytes, const Encoding& encoding) {
    const auto from = openConverter(encoding.name);
    if (!encoding.mayBeWide && ucnv_getMinCharSize(from.get()) > 1) {
        throw FormatError(fmt::format("Not a property list: it declares {}, which it is not in", encoding.name));
    }
    std::u16string characters;
    std::array<char16_t, 4096> chunk{};
    const char* source = bytes.data();
    const char* const end = source + bytes.size();
    UErrorCode status = U_BUFFER_OVERFLOW_ERROR;
    while (status == U_BUFFER_OVERFLOW_ERROR) {
        status = U_ZERO_ERROR;
        auto* target = chunk.data();
        ucnv_toUnicode(from.get(), &target, chunk.data() + chunk.size(), &source, end, nullptr, true, &status);
        characters.append(chunk.data(), target);
    }
    XmlText result;
    result.text = utf8(characters).value_or("");
    if (U_FAILURE(status)) {
        result.brokenEncoding = encoding.name;
    }
    return result;
}

}  // namespace

XmlText decodeXml(std::span<const std::uint8_t> bytes) {
    std::string_view text(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    auto encoding = encodingByFirstBytes(text);
    if (!encoding) {
        encoding = Encoding{declaredEncoding(text).value_or(std::string(kUtf8))};
    }
    text.remove_prefix(encoding->markLength);
    // ASCII is a part of UTF-8. The library compares names as it does its own: without case, "-" and "_".
    if (ucnv_compareNames(encoding->name.c_str(), "UTF-8") == 0 ||
        ucnv_compareNames(encoding->name.c_str(), "US-ASCII") == 0) {
        return {std::string(text), std::nullopt};
    }
    return converted(text, *encoding);
}

}  // namespace sentrova
