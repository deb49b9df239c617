// Conversions between UTF-8, UTF-16 and ASCII, and from text to numbers.
//
// Independent of the locale. Safe from any thread.

#pragma once

#include "foundation/value/Encodings.h"

#include <optional>
#include <string>
#include <string_view>

namespace sentrova {

// Whether the text is strict UTF-8: no overlong forms, no surrogates, nothing above U+10FFFF.
bool isValidUtf8(std::string_view text);

bool isAscii(std::string_view text);

// The text in UTF-16; each byte that is not part of valid UTF-8 becomes U+FFFD.
std::u16string utf16(std::string_view text);

// The text in UTF-8. Absent if it holds an unpaired surrogate.
std::optional<std::string> utf8(std::u16string_view text);

// Appends the character in UTF-8. Only for code points up to U+10FFFF that are not surrogates.
void appendUtf8(char32_t character, std::string& text);

// The text in ASCII. Each character becomes its ASCII form (é becomes e; see Encodings::asciiForm), each byte of
// invalid UTF-8 becomes "?".
std::string asciiLossy(std::string_view text, const Encodings& encodings);

// The beginning of an untrusted text, for a message. At most `mostBytes` bytes; each byte of invalid UTF-8 becomes "?".
std::string excerpt(std::string_view text, std::size_t mostBytes = 100);

// The decimal real number at the start of the text, after blanks. 0 if there is none, infinite beyond the largest real.
double leadingReal(std::string_view text);

// The value of a text that is one decimal real number and nothing else. Absent for any other text.
std::optional<double> wholeReal(std::string_view text);

}  // namespace sentrova
