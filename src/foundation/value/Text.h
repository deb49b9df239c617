// Text encodings: what the agent needs to know of UTF-8, UTF-16 and ASCII; and numbers that are written as text.
//
// Safe from any thread. Nothing here depends on the locale.

#pragma once

#include "foundation/value/Encodings.h"

#include <optional>
#include <string>
#include <string_view>

namespace sentrova {

// Whether the text is UTF-8 in its strict form: no overlong forms, no surrogates, nothing above U+10FFFF.
bool isValidUtf8(std::string_view text);

bool isAscii(std::string_view text);

// The text in UTF-16; each byte that is not part of valid UTF-8 becomes U+FFFD.
std::u16string utf16(std::string_view text);

// The text in UTF-8; nothing when it holds half a surrogate pair.
std::optional<std::string> utf8(std::u16string_view text);

// Appends the character in UTF-8. Only for a code point that UTF-8 can carry.
void appendUtf8(char32_t character, std::string& text);

// The text in ASCII, as far as there is one: each character becomes its ASCII form (é becomes e), each byte that is not
// part of valid UTF-8 becomes "?".
std::string asciiLossy(std::string_view text, const Encodings& encodings);

// The beginning of a text from outside, for a message: at most so many bytes, each byte that is not part of valid UTF-8
// as "?".
std::string excerpt(std::string_view text, std::size_t mostBytes = 100);

// The decimal real number that the text begins with, after blanks; 0 where it begins with none. Beyond the largest real
// it is infinite.
double leadingReal(std::string_view text);

// The decimal real number that the text is, from end to end; nothing when it is none.
std::optional<double> wholeReal(std::string_view text);

}  // namespace sentrova
