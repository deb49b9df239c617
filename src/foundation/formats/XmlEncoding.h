// Finds the encoding of an XML document and converts the document to UTF-8.
//
// The encoding comes from the first of these, in the Mac's order: a byte order mark; zero bytes at the start (UTF-16
// and UTF-32 without a mark); the XML declaration; UTF-8 as the default.

#pragma once

#include "foundation/value/Encodings.h"

#include <cstdint>
#include <optional>
#include <span>
#include <string>

namespace sentrova {

struct XmlText {
    // UTF-8 without a byte order mark. The text of a document in UTF-8 is copied unchecked.
    std::string text;
    // Set to the name of the encoding if invalid bytes stopped the conversion; `text` ends before them.
    std::optional<std::string> brokenEncoding;
};

// Throws FormatError if the document declares an unknown encoding, or a wide one (UTF-16 for example) that its bytes
// are not in. With null `encodings`, only ASCII and the Unicode encodings are known.
XmlText decodeXml(std::span<const std::uint8_t> bytes, const Encodings* encodings);

// Whether XML forbids the byte in all text: control characters except tab, line feed and carriage return.
constexpr bool isForbiddenInXml(char c) {
    return c >= '\0' && c < ' ' && c != '\t' && c != '\n' && c != '\r';
}

}  // namespace sentrova
