#include "foundation/formats/XmlPropertyListReader.h"

#include "foundation/formats/Base64.h"
#include "foundation/formats/FormatError.h"
#include "foundation/formats/PropertyList.h"
#include "foundation/formats/XmlEncoding.h"
#include "foundation/value/Text.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <cstdint>
#include <limits>
#include <optional>
#include <utility>

#include <fmt/format.h>

namespace sentrova {

namespace {

constexpr std::string_view kBlanks = " \t\r\n";

std::string_view trimmed(std::string_view text) {
    text.remove_prefix(std::min(text.find_first_not_of(kBlanks), text.size()));
    return text.substr(0, text.find_last_not_of(kBlanks) + 1);
}

template <class T>
std::optional<T> number(std::string_view digits, int base = 10) {
    T value = 0;
    const auto [last, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value, base);
    return error == std::errc() && last == digits.data() + digits.size() ? std::optional(value) : std::nullopt;
}

// A number that fits into 64 bits, but not into 64 signed bits, becomes a real.
std::optional<Value> integerOf(std::string_view text) {
    const bool negative = text.starts_with('-');
    if (negative || text.starts_with('+')) {
        text.remove_prefix(1);
    }
    const bool hexadecimal = text.starts_with("0x") || text.starts_with("0X");
    const auto magnitude = number<std::uint64_t>(hexadecimal ? text.substr(2) : text, hexadecimal ? 16 : 10);
    if (!magnitude) {
        return std::nullopt;
    }
    constexpr auto kSign = std::uint64_t{1} << 63;
    if (*magnitude > kSign || (*magnitude == kSign && !negative)) {
        const auto value = static_cast<double>(*magnitude);
        return negative ? -value : value;
    }
    return static_cast<std::int64_t>(negative ? ~*magnitude + 1 : *magnitude);
}

std::optional<Value> realOf(std::string_view text) {
    constexpr auto kInfinity = std::numeric_limits<double>::infinity();
    static constexpr std::array<std::pair<std::string_view, double>, 5> kNamed = {{
        {"nan", std::numeric_limits<double>::quiet_NaN()},
        {"inf", kInfinity},
        {"+infinity", kInfinity},
        {"infinity", kInfinity},
        {"-infinity", -kInfinity},
    }};
    for (const auto& [name, value] : kNamed) {
        if (text == name) {
            return value;
        }
    }
    const auto value = wholeReal(text);
    return value ? std::optional<Value>(*value) : std::nullopt;
}

// "2026-11-15T15:58:40Z". A date out of range becomes the nearest one in range.
std::optional<Value> dateOf(std::string_view text) {
    using namespace std::chrono;
    constexpr std::string_view kForm = "0000-00-00T00:00:00Z";
    const auto follows = [](char c, char form) { return form == '0' ? c >= '0' && c <= '9' : c == form; };
    if (!std::ranges::equal(text, kForm, follows)) {
        return std::nullopt;
    }
    const auto field = [&](std::size_t at, std::size_t size) { return number<int>(text.substr(at, size)).value_or(0); };
    const year_month_day date(year(field(0, 4)), month(static_cast<unsigned>(field(5, 2))),
                              day(static_cast<unsigned>(field(8, 2))));
    const auto hour = field(11, 2);
    const auto minute = field(14, 2);
    const auto second = field(17, 2);
    if (!date.ok() || hour > 23 || minute > 59 || second > 59) {
        return std::nullopt;
    }
    const auto instant = sys_seconds(sys_days(date)) + hours(hour) + minutes(minute) + seconds(second);
    return Date(std::clamp(instant, ceil<seconds>(Date::min()), floor<seconds>(Date::max())));
}

std::optional<Value> dataOf(std::string text) {
    std::erase_if(text, [](char c) { return kBlanks.find(c) != std::string_view::npos; });
    auto data = fromBase64(text);
    return data ? std::optional<Value>(*std::move(data)) : std::nullopt;
}

// Whether XML allows a reference to the character.
bool isXmlCharacter(std::uint32_t character) {
    return character == '\t' || character == '\n' || character == '\r' || (character >= 0x20 && character <= 0xD7FF) ||
           (character >= 0xE000 && character <= 0xFFFD) || (character >= 0x10000 && character <= 0x10FFFF);
}

}  // namespace

Value XmlPropertyListReader::read() {
    auto tag = nextTag();
    const bool wrapped = tag.name == "plist" && !tag.closing && !tag.empty;
    if (wrapped) {
        tag = nextTag();
    }
    auto root = readElement(tag, 0);
    if (wrapped) {
        expectClosing("plist");
    }
    return root;
}

Value XmlPropertyListReader::readElement(const Tag& tag, std::size_t depth) {
    if (tag.closing) {
        fail(fmt::format("unexpected </{}>", tag.name));
    }
    if (++elements_ > PropertyList::kMaximumObjects) {
        fail(fmt::format("it has more than {} elements", PropertyList::kMaximumObjects));
    }
    if (tag.name == "dict" || tag.name == "array") {
        return readContainer(tag, depth);
    }
    static constexpr std::array<std::string_view, 7> kScalars = {"string", "integer", "real", "date",
                                                                 "data",   "true",    "false"};
    if (std::ranges::find(kScalars, tag.name) == kScalars.end()) {
        fail(fmt::format("unknown element <{}>", tag.name));
    }
    auto text = readText(tag);
    if (tag.name == "string") {
        return text;
    }
    std::optional<Value> value;
    if (tag.name == "integer") {
        value = integerOf(trimmed(text));
    } else if (tag.name == "real") {
        value = realOf(trimmed(text));
    } else if (tag.name == "date") {
        value = dateOf(trimmed(text));
    } else if (tag.name == "data") {
        value = dataOf(std::move(text));
    } else if (trimmed(text).empty()) {
        value = tag.name == "true";
    }
    if (!value) {
        fail(fmt::format("malformed content of <{}>", tag.name));
    }
    return *std::move(value);
}

Value XmlPropertyListReader::readContainer(const Tag& tag, std::size_t depth) {
    if (depth >= PropertyList::kMaximumDepth) {
        fail(fmt::format("it is nested deeper than {}", PropertyList::kMaximumDepth));
    }
    if (tag.name == "dict") {
        return tag.empty ? Dictionary() : readDictionary(depth + 1);
    }
    return tag.empty ? Array() : readArray(depth + 1);
}

Array XmlPropertyListReader::readArray(std::size_t depth) {
    Array array;
    for (auto tag = nextTag(); !tag.closing || tag.name != "array"; tag = nextTag()) {
        array.push_back(readElement(tag, depth));
    }
    return array;
}

Dictionary XmlPropertyListReader::readDictionary(std::size_t depth) {
    Dictionary dictionary;
    for (auto tag = nextTag(); !tag.closing || tag.name != "dict"; tag = nextTag()) {
        if (tag.closing || tag.name != "key") {
            fail(fmt::format("expected <key>, found <{}{}>", tag.closing ? "/" : "", tag.name));
        }
        const auto key = readText(tag);
        dictionary.set(key, readElement(nextTag(), depth));
    }
    return dictionary;
}

std::string XmlPropertyListReader::readText(const Tag& tag) {
    std::string text;
    if (tag.empty) {
        return text;
    }
    while (true) {
        readCharacters(text);
        if (accept("<![CDATA[")) {
            text += takeThrough("]]>");
        } else if (!skipComment()) {
            if (!isValidUtf8(text)) {
                fail("text that is not UTF-8");
            }
            // The agent could not write such a text back, and so could never change the file.
            if (std::ranges::any_of(text, isForbiddenInXml)) {
                fail("text with control characters");
            }
            expectClosing(tag.name);
            return text;
        }
    }
}

void XmlPropertyListReader::readCharacters(std::string& text) {
    while (!atEnd() && text_[at_] != '<') {
        if (text_[at_] == '&') {
            readEntity(text);
            continue;
        }
        const auto end = std::min(text_.find_first_of("<&", at_), text_.size());
        text += text_.substr(at_, end - at_);
        at_ = end;
    }
}

void XmlPropertyListReader::readEntity(std::string& text) {
    static constexpr std::array<std::pair<std::string_view, char>, 5> kNamed = {
        {{"&lt;", '<'}, {"&gt;", '>'}, {"&amp;", '&'}, {"&quot;", '"'}, {"&apos;", '\''}}};
    for (const auto& [name, character] : kNamed) {
        if (accept(name)) {
            text += character;
            return;
        }
    }
    if (!accept("&#")) {
        fail("unknown entity");
    }
    const bool hexadecimal = accept("x");
    const auto character = number<std::uint32_t>(takeThrough(";"), hexadecimal ? 16 : 10);
    if (!character || !isXmlCharacter(*character)) {
        fail("invalid character reference");
    }
    appendUtf8(*character, text);
}

XmlPropertyListReader::Tag XmlPropertyListReader::nextTag() {
    skipBetweenTags();
    if (atEnd()) {
        fail("it ends too early");
    }
    if (text_[at_] != '<') {
        fail("text between elements");
    }
    return readTag();
}

XmlPropertyListReader::Tag XmlPropertyListReader::readTag() {
    ++at_;
    Tag tag;
    tag.closing = accept("/");
    const auto nameEnd = text_.find_first_of(" \t\r\n/><\"'", at_);
    if (nameEnd == std::string_view::npos || nameEnd == at_) {
        fail("malformed tag");
    }
    tag.name = text_.substr(at_, nameEnd - at_);
    // Skips attributes, which have no meaning here. A quoted value may hold "/" and ">".
    for (at_ = nameEnd; !accept(">");) {
        if (accept("\"")) {
            takeThrough("\"");
        } else if (accept("'")) {
            takeThrough("'");
        } else if (accept("/>")) {
            tag.empty = true;
            break;
        } else if (atEnd() || text_[at_] == '<') {
            fail("unterminated tag");
        } else {
            ++at_;
        }
    }
    if (tag.closing && tag.empty) {
        fail("malformed tag");
    }
    return tag;
}

void XmlPropertyListReader::expectClosing(std::string_view name) {
    const auto tag = nextTag();
    if (!tag.closing || tag.name != name) {
        fail(fmt::format("expected </{}>, found <{}{}>", name, tag.closing ? "/" : "", tag.name));
    }
}

void XmlPropertyListReader::skipDocumentType() {
    while (!accept(">")) {
        if (accept("\"")) {
            takeThrough("\"");
        } else if (accept("'")) {
            takeThrough("'");
        } else if (atEnd() || text_[at_] == '[' || text_[at_] == '<') {
            fail("document type with an internal subset");
        } else {
            ++at_;
        }
    }
}

void XmlPropertyListReader::skipBlanks() {
    at_ = std::min(text_.find_first_not_of(kBlanks, at_), text_.size());
}

void XmlPropertyListReader::skipBetweenTags() {
    for (skipBlanks(); !atEnd(); skipBlanks()) {
        if (accept("<?")) {
            takeThrough("?>");
        } else if (elements_ == 0 && accept("<!DOCTYPE")) {
            skipDocumentType();
        } else if (!skipComment()) {
            return;
        }
    }
}

bool XmlPropertyListReader::skipComment() {
    if (!accept("<!--")) {
        return false;
    }
    takeThrough("-->");
    return true;
}

bool XmlPropertyListReader::accept(std::string_view token) {
    if (!text_.substr(at_).starts_with(token)) {
        return false;
    }
    at_ += token.size();
    return true;
}

std::string_view XmlPropertyListReader::takeThrough(std::string_view token) {
    const auto end = text_.find(token, at_);
    if (end == std::string_view::npos) {
        fail(fmt::format("it ends before a {}", token));
    }
    const auto taken = text_.substr(at_, end - at_);
    at_ = end + token.size();
    return taken;
}

void XmlPropertyListReader::fail(std::string_view why) const {
    // A name from the input may have any length.
    constexpr std::size_t kLongestReason = 200;
    const auto line = 1 + std::ranges::count(text_.substr(0, at_), '\n');
    throw FormatError(fmt::format("Not a property list, line {}: {}", line, excerpt(why, kLongestReason)));
}

}  // namespace sentrova
