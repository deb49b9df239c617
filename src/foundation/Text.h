// Text encodings: what the agent needs to know of UTF-8, UTF-16 and ASCII.

#pragma once

#include <string>
#include <string_view>

namespace sentrova {

bool isValidUtf8(std::string_view text);

// The text in UTF-16; each byte that is not part of valid UTF-8 becomes U+FFFD.
std::u16string utf16(std::string_view text);

// The text in ASCII, as far as there is one: characters lose their marks (é becomes e), a character without an ASCII
// form becomes "?".
std::string asciiLossy(std::string_view text);

// The real number that the text begins with, after blanks; 0 where it begins with none. Independent of the locale.
double leadingReal(std::string_view text);

}  // namespace sentrova
