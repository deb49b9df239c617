#include "foundation/formats/BinaryPropertyList.h"

#include "foundation/formats/FormatError.h"
#include "foundation/formats/PropertyList.h"
#include "foundation/value/Date.h"
#include "foundation/value/Text.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <limits>
#include <string>
#include <string_view>
#include <utility>

#include <fmt/format.h>

namespace sentrova {

namespace {

constexpr std::string_view kMagic = "bplist00";

// The file ends with a trailer: 6 unused bytes; the sizes of an offset and of a reference (1 byte each); the number of
// objects, the number of the root object and the position of the offset table (8 bytes each).
constexpr std::size_t kTrailerSize = 32;

// Dates count in seconds from 2001-01-01 00:00:00 UTC: this many seconds after 1970.
constexpr double kReferenceDate = 978307200;

// The limit for texts and data together. UTF-8 may need three bytes for two bytes of UTF-16.
constexpr std::size_t kMaximumContent = PropertyList::kMaximumBytes + PropertyList::kMaximumBytes / 2;

// The upper four bits of an object's first byte: its kind.
enum Marker : unsigned {
    kSimple = 0x0,
    kInteger = 0x1,
    kReal = 0x2,
    kDate = 0x3,
    kData = 0x4,
    kAscii = 0x5,
    kUtf16 = 0x6,
    kUtf8 = 0x7,
    kUid = 0x8,
    kArray = 0xA,
    kDictionary = 0xD,
};

}  // namespace

bool BinaryPropertyList::recognizes(std::span<const std::uint8_t> bytes) {
    return bytes.size() >= kMagic.size() && std::equal(kMagic.begin(), kMagic.end(), bytes.begin());
}

BinaryPropertyList::BinaryPropertyList(std::span<const std::uint8_t> bytes)
    : bytes_(bytes), objectsLeft_(PropertyList::kMaximumObjects), bytesLeft_(kMaximumContent) {
    if (!recognizes(bytes)) {
        throw FormatError("Not a binary property list");
    }
    if (bytes.size() < kMagic.size() + kTrailerSize) {
        throw FormatError("Binary property list is cut short");
    }
    const auto trailer = bytes.size() - kTrailerSize;
    offsetSize_ = bytes[trailer + 6];
    referenceSize_ = bytes[trailer + 7];
    objects_ = bigEndian(trailer + 8, 8);
    root_ = bigEndian(trailer + 16, 8);
    const auto table = bigEndian(trailer + 24, 8);
    const auto isSize = [](std::size_t size) { return size >= 1 && size <= sizeof(std::uint64_t); };
    if (!isSize(offsetSize_) || !isSize(referenceSize_) || table < kMagic.size() || table > trailer ||
        objects_ > (trailer - table) / offsetSize_ || root_ >= objects_) {
        throw FormatError("Binary property list has a damaged trailer");
    }
    objectsEnd_ = static_cast<std::size_t>(table);
}

BinaryPropertyList::Object BinaryPropertyList::object(Number number) {
    if (number >= objects_) {
        throw FormatError(fmt::format("Binary property list refers to an object {} of {}", number, objects_));
    }
    const auto at = bigEndian(objectsEnd_ + static_cast<std::size_t>(number) * offsetSize_, offsetSize_);
    if (at < kMagic.size() || at >= objectsEnd_) {
        throw FormatError(fmt::format("Binary property list has object {} outside its object area", number));
    }
    const unsigned marker = bytes_[static_cast<std::size_t>(at)];
    return object(static_cast<std::size_t>(at) + 1, marker >> 4, marker & 0xF);
}

BinaryPropertyList::Object BinaryPropertyList::object(std::size_t at, unsigned kind, unsigned low) {
    switch (kind) {
        case kSimple:
            return {.value = simple(low)};
        case kInteger:
            return {.value = integer(at, low)};
        case kReal:
            return {.value = real(at, low)};
        case kDate:
            return {.value = date(at)};
        case kUid:
            return {.kind = Object::Kind::uid, .value = {}, .uid = bigEndian(at, low + 1)};
        default:
            break;
    }
    const auto count = length(at, low);
    switch (kind) {
        case kData:
            return {.value = data(at, count)};
        case kAscii:
        case kUtf8:
            return {.value = text(at, count)};
        case kUtf16:
            return {.value = wideText(at, count)};
        case kArray:
            return container(Object::Kind::array, at, count);
        case kDictionary:
            return container(Object::Kind::dictionary, at, count);
        default:
            throw FormatError(fmt::format("Binary property list has an object of unknown kind {:#x}", kind));
    }
}

Value BinaryPropertyList::simple(unsigned low) const {
    constexpr unsigned kFalse = 0x8;
    constexpr unsigned kTrue = 0x9;
    if (low != kFalse && low != kTrue) {
        throw FormatError("Binary property list has an empty value");
    }
    return low == kTrue;
}

Value BinaryPropertyList::integer(std::size_t at, unsigned exponent) const {
    if (exponent <= 3) {
        // Integers of 1, 2 and 4 bytes are unsigned, those of 8 bytes signed.
        return static_cast<std::int64_t>(bigEndian(at, std::size_t{1} << exponent));
    }
    if (exponent != 4) {
        throw FormatError("Binary property list has an integer of unknown size");
    }
    const auto high = static_cast<std::int64_t>(bigEndian(at, 8));
    const auto low = bigEndian(at + 8, 8);
    if (high == (static_cast<std::int64_t>(low) < 0 ? -1 : 0)) {
        return static_cast<std::int64_t>(low);
    }
    return static_cast<double>(high) * 0x1p64 + static_cast<double>(low);
}

Value BinaryPropertyList::real(std::size_t at, unsigned exponent) const {
    if (exponent == 2) {
        return static_cast<double>(std::bit_cast<float>(static_cast<std::uint32_t>(bigEndian(at, 4))));
    }
    if (exponent == 3) {
        return std::bit_cast<double>(bigEndian(at, 8));
    }
    throw FormatError("Binary property list has a real of unknown size");
}

Value BinaryPropertyList::date(std::size_t at) const {
    const auto seconds = std::bit_cast<double>(bigEndian(at, 8));
    if (std::isnan(seconds)) {
        throw FormatError("Binary property list has a date that is not a number");
    }
    return dateFromEpoch(kReferenceDate + seconds);
}

Value BinaryPropertyList::data(std::size_t at, std::uint64_t length) {
    const auto bytes = content(at, length);
    return Data(bytes.begin(), bytes.end());
}

Value BinaryPropertyList::text(std::size_t at, std::uint64_t length) {
    const auto bytes = content(at, length);
    std::string text(bytes.begin(), bytes.end());
    if (!isValidUtf8(text)) {
        throw FormatError("Binary property list has text that is not UTF-8");
    }
    return text;
}

Value BinaryPropertyList::wideText(std::size_t at, std::uint64_t length) {
    // The length counts units of two bytes. It is capped first, so that a huge one does not overflow when doubled.
    const auto bytes = content(at, std::min<std::uint64_t>(length, bytes_.size()) * 2);
    std::u16string units(bytes.size() / 2, u'\0');
    for (std::size_t i = 0; i < units.size(); ++i) {
        units[i] = static_cast<char16_t>(bytes[2 * i] << 8 | bytes[2 * i + 1]);
    }
    auto text = utf8(units);
    if (!text) {
        throw FormatError("Binary property list has text with half a surrogate pair");
    }
    return *std::move(text);
}

BinaryPropertyList::Object BinaryPropertyList::container(Object::Kind kind, std::size_t at, std::uint64_t count) {
    const std::size_t each = kind == Object::Kind::dictionary ? 2 : 1;
    if (at > objectsEnd_ || count > (objectsEnd_ - at) / (each * referenceSize_)) {
        throw FormatError("Binary property list has a container that reaches beyond its object area");
    }
    // Checked before the caller reserves memory for so many.
    if (count * each > objectsLeft_) {
        throw FormatError(fmt::format("Binary property list has more than {} objects", PropertyList::kMaximumObjects));
    }
    objectsLeft_ -= static_cast<std::size_t>(count) * each;
    return {.kind = kind, .value = {}, .count = static_cast<std::size_t>(count), .references = at};
}

std::uint64_t BinaryPropertyList::length(std::size_t& at, unsigned low) const {
    constexpr unsigned kIntegerFollows = 0xF;
    if (low != kIntegerFollows) {
        return low;
    }
    const auto marker = static_cast<unsigned>(bigEndian(at, 1));
    if (marker >> 4 != kInteger || (marker & 0xF) > 3) {
        throw FormatError("Binary property list has an object without a length");
    }
    const auto size = std::size_t{1} << (marker & 0xF);
    const auto length = bigEndian(at + 1, size);
    at += 1 + size;
    return length;
}

BinaryPropertyList::Number BinaryPropertyList::reference(const Object& container, std::size_t index) const {
    return bigEndian(container.references + index * referenceSize_, referenceSize_);
}

std::uint64_t BinaryPropertyList::bigEndian(std::size_t at, std::size_t size) const {
    if (at > bytes_.size() || size > bytes_.size() - at) {
        throw FormatError("Binary property list ends within an object");
    }
    std::uint64_t value = 0;
    for (const auto byte : bytes_.subspan(at, size)) {
        value = value << 8 | byte;
    }
    return value;
}

std::span<const std::uint8_t> BinaryPropertyList::content(std::size_t at, std::uint64_t length) {
    if (at > objectsEnd_ || length > objectsEnd_ - at) {
        throw FormatError("Binary property list has an object that reaches beyond its object area");
    }
    if (length > bytesLeft_) {
        throw FormatError(fmt::format("Binary property list has more than {} bytes of content", kMaximumContent));
    }
    bytesLeft_ -= static_cast<std::size_t>(length);
    return bytes_.subspan(at, static_cast<std::size_t>(length));
}

Value BinaryPropertyList::value(Number number, std::size_t depth) {
    auto item = object(number);
    if (item.kind == Object::Kind::value) {
        return std::move(item.value);
    }
    if (item.kind == Object::Kind::uid) {
        throw FormatError("Binary property list is a keyed archive");
    }
    // Also stops at a container that contains itself.
    if (depth >= PropertyList::kMaximumDepth) {
        throw FormatError(fmt::format("Property list is nested deeper than {}", PropertyList::kMaximumDepth));
    }
    if (item.kind == Object::Kind::dictionary) {
        return dictionary(item, depth);
    }
    Array array;
    array.reserve(item.count);
    for (std::size_t i = 0; i < item.count; ++i) {
        array.push_back(value(element(item, i), depth + 1));
    }
    return array;
}

Value BinaryPropertyList::dictionary(const Object& object, std::size_t depth) {
    Dictionary dictionary;
    dictionary.reserve(object.count);
    for (std::size_t i = 0; i < object.count; ++i) {
        const auto name = value(key(object, i), depth + 1);
        if (!name.string()) {
            throw FormatError("Binary property list has a key that is not text");
        }
        dictionary.set(*name.string(), value(entry(object, i), depth + 1));
    }
    return dictionary;
}

}  // namespace sentrova
