#include "foundation/formats/BinaryPropertyListWriter.h"

#include "foundation/value/Text.h"

#include <algorithm>
#include <bit>
#include <limits>

namespace sentrova {

namespace {

void appendBigEndian(std::uint64_t value, std::size_t size, Data& bytes) {
    for (std::size_t i = size; i > 0; --i) {
        bytes.push_back(static_cast<std::uint8_t>(value >> (8 * (i - 1))));
    }
}

// The smallest size in bytes for numbers up to this one, among the sizes that readers know.
std::size_t sizeFor(std::uint64_t largest) {
    return largest <= 0xFF ? 1 : largest <= 0xFFFF ? 2 : largest <= 0xFFFFFFFF ? 4 : 8;
}

}  // namespace

BinaryPropertyListWriter::Number BinaryPropertyListWriter::close() {
    objects_.push_back({bytes_.size(), references_.size()});
    return static_cast<Number>(objects_.size() - 1);
}

void BinaryPropertyListWriter::appendHead(unsigned kind, std::size_t length) {
    constexpr unsigned kIntegerFollows = 0xF;
    bytes_.push_back(static_cast<std::uint8_t>(kind << 4 | std::min<std::size_t>(length, kIntegerFollows)));
    if (length >= kIntegerFollows) {
        appendInteger(static_cast<std::int64_t>(length));
    }
}

void BinaryPropertyListWriter::appendInteger(std::int64_t value) {
    // Only integers of eight bytes are signed.
    const auto size = value < 0 ? 8 : sizeFor(static_cast<std::uint64_t>(value));
    bytes_.push_back(static_cast<std::uint8_t>(0x10 | std::countr_zero(size)));
    appendBigEndian(static_cast<std::uint64_t>(value), size, bytes_);
}

BinaryPropertyListWriter::Number BinaryPropertyListWriter::addBoolean(bool value) {
    bytes_.push_back(value ? 0x09 : 0x08);
    return close();
}

BinaryPropertyListWriter::Number BinaryPropertyListWriter::addInteger(std::int64_t value) {
    appendInteger(value);
    return close();
}

BinaryPropertyListWriter::Number BinaryPropertyListWriter::addReal(double value) {
    bytes_.push_back(0x23);
    appendBigEndian(std::bit_cast<std::uint64_t>(value), sizeof value, bytes_);
    return close();
}

BinaryPropertyListWriter::Number BinaryPropertyListWriter::addText(std::string_view text) {
    if (std::ranges::all_of(text, [](char c) { return static_cast<unsigned char>(c) < 0x80; })) {
        appendHead(0x5, text.size());
        bytes_.insert(bytes_.end(), text.begin(), text.end());
        return close();
    }
    const auto units = utf16(text);
    appendHead(0x6, units.size());
    for (const auto unit : units) {
        appendBigEndian(unit, sizeof unit, bytes_);
    }
    return close();
}

BinaryPropertyListWriter::Number BinaryPropertyListWriter::addUid(std::uint32_t index) {
    const auto size = sizeFor(index);
    bytes_.push_back(static_cast<std::uint8_t>(0x80 | (size - 1)));
    appendBigEndian(index, size, bytes_);
    return close();
}

BinaryPropertyListWriter::Number BinaryPropertyListWriter::addArray(const std::vector<Number>& elements) {
    appendHead(0xA, elements.size());
    references_.insert(references_.end(), elements.begin(), elements.end());
    return close();
}

BinaryPropertyListWriter::Number BinaryPropertyListWriter::addDictionary(
    const std::vector<std::pair<Number, Number>>& entries) {
    appendHead(0xD, entries.size());
    std::ranges::transform(entries, std::back_inserter(references_), &std::pair<Number, Number>::first);
    std::ranges::transform(entries, std::back_inserter(references_), &std::pair<Number, Number>::second);
    return close();
}

Data BinaryPropertyListWriter::finish(Number root) const {
    constexpr std::string_view kMagic = "bplist00";
    Data list(kMagic.begin(), kMagic.end());
    const auto referenceSize = sizeFor(objects_.size());
    std::vector<std::size_t> offsets;
    offsets.reserve(objects_.size());
    list.reserve(list.size() + bytes_.size() + referenceSize * references_.size());

    Object from;
    for (const auto& object : objects_) {
        offsets.push_back(list.size());
        list.insert(list.end(), bytes_.begin() + static_cast<std::ptrdiff_t>(from.bytesEnd),
                    bytes_.begin() + static_cast<std::ptrdiff_t>(object.bytesEnd));
        for (auto i = from.referencesEnd; i < object.referencesEnd; ++i) {
            appendBigEndian(references_[i], referenceSize, list);
        }
        from = object;
    }

    const auto table = list.size();
    const auto offsetSize = sizeFor(table);
    for (const auto offset : offsets) {
        appendBigEndian(offset, offsetSize, list);
    }
    list.insert(list.end(), 6, 0);
    list.push_back(static_cast<std::uint8_t>(offsetSize));
    list.push_back(static_cast<std::uint8_t>(referenceSize));
    appendBigEndian(objects_.size(), 8, list);
    appendBigEndian(root, 8, list);
    appendBigEndian(table, 8, list);
    return list;
}

}  // namespace sentrova
