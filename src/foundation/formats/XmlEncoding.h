// The encoding of an XML document: found as XML defines it, and converted to UTF-8.
//
// The order of the evidence is the platform's: a byte order mark, then zero bytes (UTF-16 and UTF-32 without a mark),
// then the encoding that the XML declaration names, then UTF-8.

#pragma once

#include "foundation/value/Encodings.h"

#include <cstdint>
#include <optional>
#include <span>
#include <string>

namespace sentrova {

struct XmlText {
    // UTF-8, without a byte order mark. The bytes of a document that is already in UTF-8 are not checked.
    std::string text;
    // The encoding of bytes that stopped the conversion; what stands before them is in the text.
    std::optional<std::string> brokenEncoding;
};

// Throws FormatError when the document declares an encoding that is not known, or one of wide characters that its bytes
// are not in. Null encodings know the Unicode encodings alone.
XmlText decodeXml(std::span<const std::uint8_t> bytes, const Encodings* encodings);

// Whether XML forbids the byte in any text: control characters but tab, line feed and carriage return.
constexpr bool isForbiddenInXml(char c) {
    return c >= '\0' && c < ' ' && c != '\t' && c != '\n' && c != '\r';
}

}  // namespace sentrova
