// Reads property lists in their XML and binary forms, and writes them as XML (version 1.0).
//
// XML may be in any encoding that a byte order mark or the XML declaration names. Everything after the root element is
// ignored, as on a Mac.
//
// Input is hostile: reading takes time linear in the length of the input and stops at the limits below. Integers above
// 2^63 - 1 become reals. A date out of range becomes the nearest one in range. Of equal keys the last one counts.
// Safe from any thread.

#pragma once

#include "foundation/value/Encodings.h"
#include "foundation/value/Result.h"
#include "foundation/value/Value.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace sentrova {

class PropertyList {
  public:
    static constexpr std::size_t kMaximumBytes = 64 * 1024 * 1024;
    static constexpr std::size_t kMaximumDepth = 128;
    // The maximum number of values. A shared object of a binary list counts each time it is used.
    static constexpr std::size_t kMaximumObjects = 4'000'000;

    // The root value. Fails with the reason if the bytes are not a property list. Without `encodings`, XML is read only
    // in ASCII and the Unicode encodings.
    static Result<Value> parse(std::span<const std::uint8_t> bytes, const Encodings* encodings = nullptr);

    // Fractions of a second are cut off from dates. Fails with the position of the offending value on an empty value,
    // text that is not UTF-8 or has control characters that XML forbids, a year beyond four digits, and on more bytes
    // or deeper nesting than parse accepts.
    static Result<Data> writeXml(const Value& value);

    // Whether XML allows the text. Stricter than writeXml, which accepts U+FFFE and U+FFFF: a file from elsewhere may
    // hold them, and refusing them would lose the file.
    static bool isXmlText(std::string_view text);
};

}  // namespace sentrova
