// Base64 (RFC 4648, section 4): with "+" and "/", padded with "=". Safe from any thread.

#pragma once

#include "foundation/value/Value.h"

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace sentrova {

// The text has no line breaks.
std::string toBase64(std::span<const std::uint8_t> bytes);

// Absent unless the whole text is base64. Blanks and line breaks are not accepted.
std::optional<Data> fromBase64(std::string_view text);

}  // namespace sentrova
