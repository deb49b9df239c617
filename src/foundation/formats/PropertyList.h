// Property lists: read in their XML and binary forms, written as XML (version 1.0).
//
// XML is read in any encoding that a byte order mark or its declaration names. Whatever follows the root element is
// ignored, as the platform does.
//
// Input is hostile: it is read in time linear in its length, and within the limits below. Integers above 2^63 - 1
// become reals, dates beyond the range of dates the nearest one; of equal keys the last one counts.
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
    // Binary lists share objects; this is how many values there may be when every share is counted.
    static constexpr std::size_t kMaximumObjects = 4'000'000;

    // The root value; fails with the reason when the bytes are no property list. Without encodings XML is read in the
    // Unicode encodings alone.
    static Result<Value> parse(std::span<const std::uint8_t> bytes, const Encodings* encodings = nullptr);

    // Parts of a second are cut off. Fails, naming the culprit, on what a property list cannot carry: an empty value,
    // text that is not UTF-8 or has control characters that XML forbids, more bytes or deeper nesting than parse
    // accepts.
    static Result<Data> writeXml(const Value& value);

    // Whether XML can carry the text. Stricter than writeXml: U+FFFE and U+FFFF in a file that somebody else wrote are
    // read and written back, since refusing them would lose that file.
    static bool isXmlText(std::string_view text);
};

}  // namespace sentrova
